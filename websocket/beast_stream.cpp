#include "websocket/beast_stream.h"

#include <algorithm>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <string>
#include <tuple>

namespace tarnlink {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
namespace websocket = boost::beast::websocket;
using boost::system::error_code;

constexpr auto kWait = asio::as_tuple(asio::use_awaitable);

// An upgrade request may carry a browser's cookies; more is refused with status 431. Octets.
constexpr std::uint32_t kMaxRequestHeader = 16 * 1024;
// What is read of a message at a time: as much as has come of it, within these bounds. Octets.
constexpr std::size_t kLeastRead = 4096;
constexpr std::size_t kMostRead = 64 * 1024;

using Request = http::request<http::empty_body>;

UpgradeRequest::Lines linesOf(const Request& request, http::field field) {
  UpgradeRequest::Lines lines;
  const auto [begin, end] = request.equal_range(field);
  for (auto line = begin; line != end; ++line) {
    lines.emplace_back(line->value().data(), line->value().size());
  }
  return lines;
}

UpgradeRequest asUpgrade(const Request& request) {
  const auto lines = [&](http::field field) { return linesOf(request, field); };
  return {lines(http::field::host),
          lines(http::field::origin),
          lines(http::field::sec_websocket_key),
          lines(http::field::sec_websocket_version),
          lines(http::field::transfer_encoding),
          lines(http::field::content_length)};
}

// The answer to what cannot be read as a request; 0: none.
unsigned statusFor(const error_code& error) {
  const bool isTooLong =
      error == http::error::header_limit || error == http::error::buffer_overflow;
  if (isTooLong) return static_cast<unsigned>(http::status::request_header_fields_too_large);
  const bool isBad = error.category() == error_code(http::error::bad_method).category();
  return isBad ? static_cast<unsigned>(http::status::bad_request) : 0;
}

void decorate(websocket::response_type& response) {
  response.set(http::field::server, "tarnlink");
  if (response.result() == http::status::switching_protocols) return;
  response.insert(http::field::connection, "close");
  if (response.result() != http::status::upgrade_required) return;
  response.set(http::field::upgrade, "websocket");  // RFC 7231, 6.5.15
  response.insert(http::field::connection, "Upgrade");
}

// Of text that is UTF-8 so far: whether its last code point lacks octets (RFC 3629, section 3).
bool endsInsideCodePoint(std::string_view text) {
  for (std::size_t octets = 1; octets <= 3 && octets <= text.size(); ++octets) {
    const auto octet = static_cast<unsigned char>(text[text.size() - octets]);
    if (octet < 0x80) return false;
    if (octet >= 0xC0) return octets < (octet >= 0xF0 ? 4u : octet >= 0xE0 ? 3u : 2u);
  }
  return false;
}

}  // namespace

struct BeastStream::Library {
  template <class... Arguments>
  explicit Library(Arguments&&... arguments) : websocket(std::forward<Arguments>(arguments)...) {}

  websocket::stream<ConnectionStream, false> websocket;
};

BeastStream::BeastStream(ConnectionStream::Socket socket, std::size_t queueLimit,
                         std::shared_ptr<const TlsContext> tls, ConnectionStream::Owner& owner)
    : library_(std::make_unique<Library>(std::move(socket), queueLimit, std::move(tls), owner)) {
  library_->websocket.set_option(websocket::stream_base::decorator(decorate));
  // RFC 6455, 5.5.1: after the peer's close frame nothing but our own may follow.
  library_->websocket.control_callback([this](websocket::frame_type kind, const auto&) {
    if (kind == websocket::frame_type::close) stream().refuseText();
  });
}

BeastStream::~BeastStream() = default;

ConnectionStream& BeastStream::stream() {
  return library_->websocket.next_layer();
}

void BeastStream::setLongestMessage(std::size_t octets) {
  library_->websocket.read_message_max(octets);
}

asio::awaitable<UpgradeVerdict> BeastStream::upgrade(const UpgradeRules* rules) {
  boost::beast::flat_buffer buffer(kMaxRequestHeader);
  http::request_parser<http::empty_body> parser;
  parser.header_limit(kMaxRequestHeader);
  auto [error, octets] = co_await http::async_read_header(stream(), buffer, parser, kWait);
  auto& request = parser.get();
  auto verdict =
      error ? UpgradeVerdict{error, {}, statusFor(error)} : judge(asUpgrade(request), rules);
  if (verdict.status != 0) {
    const auto reason = http::obsolete_reason(static_cast<http::status>(verdict.status));
    const auto answer = "HTTP/1.1 " + std::to_string(verdict.status) + " " + std::string(reason) +
                        "\r\nServer: tarnlink\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
    const auto answerOctets = asio::buffer(answer);
    co_await asio::async_write(stream(), answerOctets, kWait);
  }
  if (verdict.error) co_return verdict;
  for (const auto field : {http::field::connection, http::field::upgrade}) {
    if (request.count(field) > 1) request.set(field, asList(linesOf(request, field)));
  }
  stream().putBack({static_cast<const char*>(buffer.data().data()), buffer.size()});
  std::tie(verdict.error) = co_await library_->websocket.async_accept(request, kWait);
  co_return verdict;
}

// The buffer grows with what arrives: a header promises as much as it likes.
asio::awaitable<boost::system::result<WebSocketMessage>> BeastStream::readMessage() {
  auto& websocket = library_->websocket;
  WebSocketMessage message;
  auto buffer = asio::dynamic_buffer(message.data);
  do {
    const auto most = std::clamp(message.data.size(), kLeastRead, kMostRead);
    const auto [error, octets] = co_await websocket.async_read_some(buffer, most, kWait);
    if (error == websocket::error::closed) co_return WebSocketError::peerClosed;
    if (error) co_return error;
  } while (!websocket.is_message_done());
  message.isText = websocket.got_text();
  // The library looks for the end of a code point with the last octets of a message only: an empty
  // last fragment goes past it.
  if (message.isText && endsInsideCodePoint(message.data)) {
    co_return websocket::error::bad_frame_payload;
  }
  co_return message;
}

asio::awaitable<void> BeastStream::close(std::uint16_t code) {
  const websocket::close_reason reason(static_cast<websocket::close_code>(code));
  co_await library_->websocket.async_close(reason, kWait);
}

asio::awaitable<void> BeastStream::ping() {
  const websocket::ping_data payload;
  co_await library_->websocket.async_ping(payload, kWait);
}

}  // namespace tarnlink
