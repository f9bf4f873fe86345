#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cerrno>
#include <cstdint>
#include <system_error>

#include "goosestack/wake_up.h"

namespace goosestack {

WakeUp::WakeUp() : descriptor_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (descriptor_ < 0) throw std::system_error(errno, std::generic_category());
}

WakeUp::~WakeUp() {
  ::close(descriptor_);
}

void WakeUp::signal() noexcept {
  constexpr std::uint64_t kOne = 1;
  // Fails only where so many have not been waited for that the next wait ends anyway.
  [[maybe_unused]] const auto written = ::write(descriptor_, &kOne, sizeof kOne);
}

WakeUp::Place::Place(const WakeUp& wakeUp, const boost::asio::any_io_executor& executor)
    : descriptor_(executor, wakeUp.descriptor_) {}

WakeUp::Place::~Place() {
  if (descriptor_.is_open()) descriptor_.release();
}

boost::asio::awaitable<void> WakeUp::Place::wait() {
  // Room for more than comes: so Asio knows that nothing is left, and reads only when woken.
  std::array<std::uint64_t, 2> count;
  co_await descriptor_.async_read_some(boost::asio::buffer(count), boost::asio::use_awaitable);
}

}  // namespace goosestack
