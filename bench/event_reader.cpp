#include "bench/event_reader.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace tarnlink::bench {
namespace {

constexpr std::size_t kBuffer = std::size_t{1} << 20;  // Octets; an event of the benches fits.
constexpr std::size_t kMaxShort = 125;

}  // namespace

EventReader::EventReader(std::uint16_t port, const std::string& pairingCode) : buffer_(kBuffer) {
  connect(port);
  shakeHands();
  say(R"({"cmd":"auth","token":")" + pairingCode + R"("})");
  if (nextNamed("auth_result").find("true") == std::string::npos) {
    throw std::runtime_error("the bridge refuses the pairing code");
  }
}

EventReader::~EventReader() {
  ::close(socket_);
}

void EventReader::connect(std::uint16_t port) {
  socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int yes = 1;
  const timeval patience{kPatience, 0};
  ::setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
  ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  if (::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::system_error(errno, std::generic_category(), "connecting to the bridge");
  }
}

// RFC 6455, 4.1. The answer's key is not checked: the bridge is the one that was started here.
void EventReader::shakeHands() {
  sendAll(
      "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
      "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
  constexpr std::string_view kEnd = "\r\n\r\n";
  while (true) {
    receiveMore();
    const std::string_view received(buffer_.data() + begin_, end_ - begin_);
    if (const auto found = received.find(kEnd); found != received.npos) {
      if (!received.starts_with("HTTP/1.1 101")) throw std::runtime_error("no WebSocket there");
      begin_ += found + kEnd.size();
      return;
    }
  }
}

// RFC 6455, 5.2 and 5.3: one short masked text frame; under the mask 0 the octets stay as they are.
void EventReader::say(std::string_view command) {
  if (command.size() > kMaxShort) throw std::runtime_error("a command too long for one octet");
  std::string frame{'\x81', static_cast<char>(0x80 | command.size())};
  frame.append(4, '\0');
  frame += command;
  sendAll(frame);
}

std::string_view EventReader::next() {
  while (true) {
    const auto* head = reinterpret_cast<const unsigned char*>(buffer_.data()) + begin_;
    const std::size_t available = end_ - begin_;
    std::size_t header = 2;
    std::size_t length = available > 1 ? head[1] & 0x7F : 0;
    if (length == 126) {
      header = 4;
      length = available >= header ? std::size_t{head[2]} << 8 | head[3] : 0;
    } else if (length == 127) {
      throw std::runtime_error("an event of more than 65,535 octets");
    }
    if (available < header || available < header + length) {
      receiveMore();
      continue;
    }
    const bool isText = (head[0] & 0x0F) == 1;
    const std::string_view payload(buffer_.data() + begin_ + header, length);
    begin_ += header + length;
    if (isText) return payload;  // Pings come minutes apart: no bench runs so long.
  }
}

std::string EventReader::nextNamed(std::string_view name) {
  while (true) {
    const auto event = next();
    if (isNamed(event, name)) return std::string(event);
  }
}

bool EventReader::isNamed(std::string_view event, std::string_view name) {
  constexpr std::string_view kHead = "{\"event\":\"";
  return event.substr(kHead.size(), name.size()) == name;
}

std::int64_t EventReader::number(std::string_view event, std::string_view key) {
  const auto quoted = "\"" + std::string(key) + "\":";
  const auto at = event.find(quoted);
  std::int64_t value = 0;
  if (at == event.npos ||
      std::from_chars(event.data() + at + quoted.size(), event.data() + event.size(), value).ec !=
          std::errc()) {
    throw std::runtime_error("an event without " + quoted);
  }
  return value;
}

void EventReader::sendAll(std::string_view octets) const {
  while (!octets.empty()) {
    const auto sent = ::send(socket_, octets.data(), octets.size(), MSG_NOSIGNAL);
    if (sent < 0) throw std::system_error(errno, std::generic_category(), "to the bridge");
    octets.remove_prefix(static_cast<std::size_t>(sent));
  }
}

void EventReader::receiveMore() {
  if (begin_ > 0) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  const auto received = ::recv(socket_, buffer_.data() + end_, buffer_.size() - end_, 0);
  if (received == 0) throw std::runtime_error("the bridge has closed the connection");
  if (received < 0) throw std::system_error(errno, std::generic_category(), "from the bridge");
  end_ += static_cast<std::size_t>(received);
}

}  // namespace tarnlink::bench
