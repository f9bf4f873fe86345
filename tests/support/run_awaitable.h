// From a test's thread into coroutines and back.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <exception>
#include <optional>
#include <type_traits>
#include <utility>

namespace tarnlink::test {

/// Runs a coroutine to its end on an executor of its own, on the calling thread. `T` needs no
/// default constructor, which Asio's completion handlers ask for.
template <class T>
T runAwaitable(boost::asio::awaitable<T> work) {
  using Stored = std::conditional_t<std::is_void_v<T>, bool, T>;
  std::optional<Stored> result;
  constexpr auto store = [](boost::asio::awaitable<T> awaited,
                            std::optional<Stored>& stored) -> boost::asio::awaitable<void> {
    if constexpr (std::is_void_v<T>) {
      co_await std::move(awaited);
      stored = true;
    } else {
      stored.emplace(co_await std::move(awaited));
    }
  };
  boost::asio::io_context context;
  boost::asio::co_spawn(context, store(std::move(work), result),
                        [](const std::exception_ptr& error) {
                          if (error) std::rethrow_exception(error);
                        });
  context.run();
  return static_cast<T>(std::move(result.value()));
}

}  // namespace tarnlink::test
