#include "websocket/tls_channel.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <boost/asio/error.hpp>
#include <boost/asio/ssl/error.hpp>
#include <cerrno>

#include "websocket/tls_context.h"

namespace tarnlink {
namespace {

using boost::system::error_code;

constexpr std::size_t kRecord = SSL3_RT_MAX_PLAIN_LENGTH;  // RFC 8446, 5.1. Octets.

SSL* makeSsl(SSL_CTX* context, int socket) {
  SSL* const ssl = SSL_new(context);
  if (ssl != nullptr && SSL_set_fd(ssl, socket) != 1) {
    SSL_free(ssl);
    return nullptr;
  }
  if (ssl != nullptr) SSL_set_accept_state(ssl);
  return ssl;
}

}  // namespace

TlsChannel::TlsChannel(std::shared_ptr<const TlsContext> context, int socket)
    : context_(std::move(context)), ssl_(makeSsl(context_->native(), socket)) {}

TlsChannel::~TlsChannel() {
  SSL_free(ssl_);
}

template <class Operation>
std::size_t TlsChannel::attempt(Operation operation, Wait& waitsFor, error_code& error) {
  ERR_clear_error();
  errno = 0;
  const int result = ssl_ != nullptr ? operation() : -1;
  error = result > 0 ? error_code() : errorOf(result, waitsFor);
  return static_cast<std::size_t>(std::max(result, 0));
}

std::size_t TlsChannel::read(boost::asio::mutable_buffer room, error_code& error) {
  if (room.size() == 0) return 0;
  const auto size = static_cast<int>(std::min(room.size(), kRecord));
  return attempt([&] { return SSL_read(ssl_, room.data(), size); }, readWaitsFor_, error);
}

std::size_t TlsChannel::write(std::span<const boost::asio::const_buffer> buffers,
                              error_code& error) {
  for (const auto& buffer : record_.empty() ? buffers : buffers.first(0)) {
    const auto part = std::min(buffer.size(), kRecord - record_.size());
    record_.append(static_cast<const char*>(buffer.data()), part);
  }
  const auto size = static_cast<int>(record_.size());
  const auto write = [&] { return SSL_write(ssl_, record_.data(), size); };
  const auto taken = attempt(write, writeWaitsFor_, error);
  if (taken > 0) record_.clear();
  return taken;
}

bool TlsChannel::sendCloseNotify() {
  if (isBroken_) return true;
  error_code error;
  attempt([this] { return SSL_shutdown(ssl_) >= 0 ? 1 : -1; }, writeWaitsFor_, error);
  return error != boost::asio::error::would_block;
}

error_code TlsChannel::errorOf(int result, Wait& waitsFor) {
  if (ssl_ == nullptr) return boost::asio::error::no_memory;
  const int systemError = errno;
  const int reason = SSL_get_error(ssl_, result);
  if (reason == SSL_ERROR_WANT_READ || reason == SSL_ERROR_WANT_WRITE) {
    waitsFor = reason == SSL_ERROR_WANT_READ ? Wait::wait_read : Wait::wait_write;
    return boost::asio::error::would_block;
  }
  if (reason == SSL_ERROR_ZERO_RETURN) return boost::asio::error::eof;
  isBroken_ = true;
  if (reason == SSL_ERROR_SYSCALL) {
    if (systemError == 0) return boost::asio::error::eof;
    return {systemError, boost::system::system_category()};
  }
  return {static_cast<int>(ERR_get_error()), boost::asio::error::get_ssl_category()};
}

}  // namespace tarnlink
