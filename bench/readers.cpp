#include "bench/readers.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/write.hpp>
#include <cerrno>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace tarnlink::bench {
namespace {

constexpr std::size_t kReadBuffer = std::size_t{1} << 20;  // Octets, read with one call at most.
constexpr std::string_view kHeadEnd = "\r\n\r\n";
// RFC 6455, 1.3; the answer's key is not checked.
constexpr std::string_view kUpgradeRequest =
    "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";

int checked(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

// RFC 6455, 5.2 and 5.3: one frame of up to 125 octets. Under the masking key zero they stay.
std::string maskedText(std::string_view text) {
  std::string frame{'\x81', static_cast<char>(0x80 | text.size())};
  return frame.append(4, '\0').append(text);
}

}  // namespace

Readers::Readers(std::size_t count, std::uint16_t port, const std::vector<std::string>& commands,
                 const std::string& awaited)
    : epoll_(checked(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1")) {
  for (std::size_t i = 0; i < count; ++i) connect(port, commands, awaited);
  for (Client& client : clients_) {
    epoll_event event{.events = EPOLLIN, .data = {.ptr = &client}};
    checked(::epoll_ctl(epoll_, EPOLL_CTL_ADD, client.socket.native_handle(), &event), "epoll_ctl");
  }
  thread_ = std::thread([this] { read(); });
}

Readers::~Readers() {
  isStopping_ = true;
  clients_.front().socket.shutdown(tcp::socket::shutdown_both);  // Wakes the thread.
  thread_.join();
  ::close(epoll_);
}

void Readers::connect(std::uint16_t port, const std::vector<std::string>& commands,
                      const std::string& awaited) {
  clients_.push_back({tcp::socket(io_), {}});
  tcp::socket& socket = clients_.back().socket;
  socket.connect({boost::asio::ip::address_v4::loopback(), port});
  socket.set_option(tcp::no_delay(true));
  std::string all(kUpgradeRequest);
  for (const auto& command : commands) all += maskedText(command);
  boost::asio::write(socket, boost::asio::buffer(all));
  std::string answer;
  std::array<char, 4096> octets;
  std::size_t head = 0;
  while ((head = answer.find(kHeadEnd)) == answer.npos || answer.find(awaited) == answer.npos) {
    answer.append(octets.data(), socket.read_some(boost::asio::buffer(octets)));
  }
  if (!answer.starts_with("HTTP/1.1 101")) throw std::runtime_error("no upgrade: " + answer);
  head += kHeadEnd.size();
  clients_.back().frames.take(answer.data() + head, answer.size() - head);
}

void Readers::read() {
  std::vector<char> buffer(kReadBuffer);
  std::vector<epoll_event> events(clients_.size());
  while (!isStopping_) {
    const int count = ::epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), -1);
    for (int i = 0; i < count; ++i) {
      auto& client = *static_cast<Client*>(events[static_cast<std::size_t>(i)].data.ptr);
      const auto size = ::read(client.socket.native_handle(), buffer.data(), buffer.size());
      if (size <= 0 && !isStopping_) throw std::runtime_error("a server has closed a connection");
      client.frames.take(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    }
    tellCounts();
  }
}

void Readers::tellCounts() {
  const auto now = Clock::now();
  const auto slowest = std::min_element(
      clients_.begin(), clients_.end(),
      [](const Client& a, const Client& b) { return a.frames.count() < b.frames.count(); });
  const std::lock_guard hold(lock_);
  fewest_ = slowest->frames.count();
  arrivals_.resize(std::min<std::size_t>(fewest_, arrivals_.capacity()), now);
  if (fewest_ >= wanted_) told_.notify_all();
}

void Readers::FrameCounter::take(const char* octets, std::size_t size) {
  while (size > 0) {
    if (left_ == 0) {
      header_ += *octets++;
      --size;
      const auto at = [this](std::size_t i) { return static_cast<unsigned char>(header_[i]); };
      if (header_.size() < 2 || ((at(1) & 0x7F) == 126 && header_.size() < 4)) continue;
      left_ = header_.size() == 2 ? at(1) : std::size_t{at(2)} << 8 | at(3);
      if (left_ == 127 && header_.size() == 2)
        throw std::runtime_error("a frame above 65,535 octets");
      isCounted_ = (at(0) & 0x0F) == 1 && left_ >= kSmallestCounted;
      header_.clear();
      continue;
    }
    const auto part = std::min(left_, size);
    octets += part;
    size -= part;
    left_ -= part;
    if (left_ == 0 && isCounted_) ++count_;
  }
}

void Readers::waitFor(std::uint64_t frames) {
  std::unique_lock hold(lock_);
  wanted_ = frames;
  if (told_.wait_for(hold, kPatience, [&] { return fewest_ >= frames; })) return;
  throw std::runtime_error("of " + std::to_string(frames) + " frames a client has got " +
                           std::to_string(fewest_));
}

void Readers::noteArrivals(std::size_t frames) {
  const std::lock_guard hold(lock_);
  arrivals_.reserve(frames);
}

}  // namespace tarnlink::bench
