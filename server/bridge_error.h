// The server's error type.
#pragma once

#include <boost/system/error_code.hpp>
#include <boost/system/result.hpp>
#include <cstdint>
#include <string>

namespace tarnlink {

/// Why a server did not start: one of its own cases, or the transport's error.
class BridgeError {
 public:
  enum class Case {
    invalidPort,  ///< The transport takes no such port.
    portInUse,    ///< Reserved: a taken port reaches the caller as the transport's own error.
    cancelled,    ///< The listener was cancelled before it was ready.
    transport,    ///< The transport's own error.
  };

  BridgeError() = default;  ///< Boost's result needs one; equals cancelled().

  static BridgeError invalidPort(std::uint16_t port) { return {Case::invalidPort, port, {}}; }
  static BridgeError portInUse(std::uint16_t port) { return {Case::portInUse, port, {}}; }
  static BridgeError cancelled() { return {Case::cancelled, 0, {}}; }
  static BridgeError transport(boost::system::error_code error) {
    return {Case::transport, 0, error};
  }

  Case which() const { return case_; }
  /// Whether somebody else listens on that port already.
  bool isAddressInUse() const { return error_ == boost::system::errc::address_in_use; }
  std::string description() const;

 private:
  BridgeError(Case which, std::uint16_t port, boost::system::error_code error)
      : case_(which), port_(port), error_(error) {}

  Case case_ = Case::cancelled;
  std::uint16_t port_ = 0;
  boost::system::error_code error_;
};

template <class T>
using BridgeResult = boost::system::result<T, BridgeError>;

/// Lets BridgeResult::value() throw; found by Boost through argument-dependent look-up.
[[noreturn]] void throw_exception_from_error(const BridgeError& error,
                                             const boost::source_location& location);

}  // namespace tarnlink
