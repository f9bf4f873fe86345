// The server's end of one TLS connection on a TCP socket that does not block.
#pragma once

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>
#include <cstddef>
#include <memory>
#include <span>
#include <string>

struct ssl_st;

namespace tarnlink {

class TlsContext;

/// Reads and writes as a socket does, one strand only. The handshake comes by itself with the first
/// read. An operation that the socket holds up ends in would_block: call it again when the socket
/// is ready for what the channel waits for, which may be writing for a read.
class TlsChannel {
 public:
  using Wait = boost::asio::ip::tcp::socket::wait_type;

  /// The socket stays its owner's, and open as long as the channel is used. The program must ignore
  /// SIGPIPE, which OpenSSL raises by writing where the peer has gone.
  TlsChannel(std::shared_ptr<const TlsContext> context, int socket);
  ~TlsChannel();
  TlsChannel(const TlsChannel&) = delete;
  TlsChannel& operator=(const TlsChannel&) = delete;

  /// At most what fits. The peer's end is eof, whether it has said so (close_notify) or not: the
  /// protocol inside has ends of its own.
  std::size_t read(boost::asio::mutable_buffer room, boost::system::error_code& error);

  /// Takes the first octets of the buffers, as many as one record holds. When it would block, these
  /// octets are encrypted already and have to be offered again, in front of what follows.
  std::size_t write(std::span<const boost::asio::const_buffer> buffers,
                    boost::system::error_code& error);

  /// Octets that a write which would block has encrypted.
  std::size_t committed() const { return record_.size(); }

  /// Sends close_notify. False when that would block.
  bool sendCloseNotify();

  Wait readWaitsFor() const { return readWaitsFor_; }
  Wait writeWaitsFor() const { return writeWaitsFor_; }

 private:
  template <class Operation>
  std::size_t attempt(Operation operation, Wait& waitsFor, boost::system::error_code& error);
  boost::system::error_code errorOf(int result, Wait& waitsFor);

  const std::shared_ptr<const TlsContext> context_;
  ssl_st* const ssl_;  // null when there was no memory; then everything fails
  std::string record_;
  Wait readWaitsFor_ = Wait::wait_read;
  Wait writeWaitsFor_ = Wait::wait_write;
  bool isBroken_ = false;  // OpenSSL allows nothing more, not even close_notify
};

}  // namespace tarnlink
