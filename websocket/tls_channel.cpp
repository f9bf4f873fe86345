#include "websocket/tls_channel.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/error.hpp>
#include <boost/asio/ssl/error.hpp>
#include <cerrno>
#include <cstdint>

#include "websocket/tls_context.h"

namespace tarnlink {
namespace {

using boost::system::error_code;

constexpr std::size_t kRecord = SSL3_RT_MAX_PLAIN_LENGTH;  // RFC 8446, 5.1. Octets.

int socketOf(BIO* bio) {
  return *static_cast<const int*>(BIO_get_data(bio));
}

bool isTemporary(ssize_t result) {
  return result < 0 && (errno == EAGAIN || errno == EINTR);
}

// OpenSSL's own way to a socket would raise SIGPIPE where the peer has gone.
int writeSocket(BIO* bio, const char* octets, int size) {
  BIO_clear_retry_flags(bio);
  const auto result = ::send(socketOf(bio), octets, static_cast<std::size_t>(size), MSG_NOSIGNAL);
  if (isTemporary(result)) BIO_set_retry_write(bio);
  return static_cast<int>(result);
}

int readSocket(BIO* bio, char* octets, int size) {
  BIO_clear_retry_flags(bio);
  const auto result = ::recv(socketOf(bio), octets, static_cast<std::size_t>(size), 0);
  if (isTemporary(result)) BIO_set_retry_read(bio);
  return static_cast<int>(result);
}

long control(BIO*, int command, long, void*) {
  return command == BIO_CTRL_FLUSH ? 1 : 0;  // Nothing is held back.
}

const BIO_METHOD* socketMethod() {
  static BIO_METHOD* const method = [] {
    BIO_METHOD* const made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "socket");
    if (made == nullptr) return made;
    BIO_meth_set_write(made, writeSocket);
    BIO_meth_set_read(made, readSocket);
    BIO_meth_set_ctrl(made, control);
    return made;
  }();
  return method;
}

// The BIO refers to the socket's number, which has to stay where it is.
SSL* makeSsl(SSL_CTX* context, int& socket) {
  BIO* const bio = BIO_new(socketMethod());
  SSL* const ssl = bio != nullptr ? SSL_new(context) : nullptr;
  if (ssl == nullptr) {
    BIO_free(bio);
    return nullptr;
  }
  BIO_set_data(bio, &socket);
  BIO_set_init(bio, 1);
  SSL_set_bio(ssl, bio, bio);
  SSL_set_accept_state(ssl);
  return ssl;
}

}  // namespace

TlsChannel::TlsChannel(std::shared_ptr<const TlsContext> context, int socket)
    : context_(std::move(context)), socket_(socket), ssl_(makeSsl(context_->native(), socket_)) {}

TlsChannel::~TlsChannel() {
  SSL_free(ssl_);
}

std::size_t TlsChannel::read(boost::asio::mutable_buffer room, error_code& error) {
  error.clear();
  if (room.size() == 0) return 0;
  const auto size = static_cast<int>(std::min(room.size(), kRecord));
  ERR_clear_error();
  errno = 0;
  const int result = ssl_ != nullptr ? SSL_read(ssl_, room.data(), size) : -1;
  if (result > 0) return static_cast<std::size_t>(result);
  error = errorOf(result, readWaitsFor_);
  return 0;
}

std::size_t TlsChannel::write(std::span<const boost::asio::const_buffer> buffers,
                              error_code& error) {
  error.clear();
  for (const auto& buffer : record_.empty() ? buffers : buffers.first(0)) {
    const auto part = std::min(buffer.size(), kRecord - record_.size());
    record_.append(static_cast<const char*>(buffer.data()), part);
  }
  if (record_.empty()) return 0;
  const auto size = static_cast<int>(record_.size());
  ERR_clear_error();
  errno = 0;
  const int result = ssl_ != nullptr ? SSL_write(ssl_, record_.data(), size) : -1;
  if (result <= 0) {
    error = errorOf(result, writeWaitsFor_);
    return 0;
  }
  record_.clear();
  return static_cast<std::size_t>(result);
}

bool TlsChannel::sayGoodbye() {
  if (ssl_ == nullptr || isBroken_) return true;
  ERR_clear_error();
  errno = 0;
  const int result = SSL_shutdown(ssl_);
  return result >= 0 || errorOf(result, writeWaitsFor_) != boost::asio::error::would_block;
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
