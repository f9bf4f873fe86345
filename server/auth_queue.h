// Clients that wait until their pairing code may be compared.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <map>
#include <memory>
#include <string>

#include "goosestack/log_sink.h"
#include "server/auth_gate.h"
#include "stack/async_mutex.h"

namespace tarnlink {

/// The gate with its clock. All calls on the strand.
class AuthQueue : public std::enable_shared_from_this<AuthQueue> {
 public:
  using Strand = boost::asio::strand<boost::asio::any_io_executor>;

  /// Says in one line when attempts begin to wait, and again only after a quiet time.
  AuthQueue(const Strand& strand, AuthDelay delay, goosestack::LogSink log)
      : strand_(strand), gate_(delay), log_(std::move(log)), timer_(strand) {}

  enum class Outcome {
    yours,    ///< Compare, then tell().
    tooMany,  ///< More wait than may.
    gone,     ///< withdraw() was called meanwhile, which a client's mere leaving does not.
  };
  boost::asio::awaitable<Outcome> wait(ClientId client, std::string peer);

  void tell(const ClientId& client, bool isRight);

  /// The client has been removed; it waits no longer.
  void withdraw(const ClientId& client);
  void withdrawAll();

 private:
  struct Place {
    explicit Place(const Strand& strand) : called(strand) {}
    goosestack::AsyncEvent called;
    Outcome outcome = Outcome::gone;
  };

  void callNext();
  void call(const ClientId& client, Outcome outcome);

  const Strand strand_;
  AuthGate gate_;
  const goosestack::LogSink log_;
  boost::asio::steady_timer timer_;
  std::map<ClientId, std::shared_ptr<Place>> places_;
  bool hasSaidSo_ = false;
};

}  // namespace tarnlink
