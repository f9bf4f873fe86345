// A call of an actor's operation from any executor.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <type_traits>
#include <utility>

namespace goosestack {

/// What `work`, which holds all that it needs, returns when it has run on `strand`.
template <class Strand, class Work>
boost::asio::awaitable<std::invoke_result_t<Work&>> runOnStrand(Strand strand, Work work) {
  constexpr auto run = [](Work held) -> boost::asio::awaitable<std::invoke_result_t<Work&>> {
    co_return held();
  };
  auto onStrand = run(std::move(work));
  co_return co_await boost::asio::co_spawn(strand, std::move(onStrand), boost::asio::use_awaitable);
}

}  // namespace goosestack
