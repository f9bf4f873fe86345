// The stack's one error type.
#pragma once

#include <boost/system/result.hpp>
#include <string>
#include <utility>

namespace goosestack {

/// A plain value: which failure, with the text of the layer that reported it where there is one.
class GooseError {
 public:
  enum class Case {
    pcapOpenFailed,     ///< A capture or send handle could not be opened.
    pcapFilterFailed,   ///< A capture filter could not be compiled or installed.
    interfaceNotFound,  ///< Reserved; no operation of the stack reports it.
    sendFailed,         ///< A frame could not be sent, or the sender's MAC is unknown.
    parseError,         ///< A GOOSE PDU could not be decoded.
    notRunning,         ///< Sending without an open handle.
    permissionDenied,   ///< The capture device may not be opened.
  };

  /// What GooseResult::error() gives where there is no error.
  GooseError() = default;

  static GooseError pcapOpenFailed(std::string text) {
    return {Case::pcapOpenFailed, std::move(text)};
  }
  static GooseError pcapFilterFailed(std::string text) {
    return {Case::pcapFilterFailed, std::move(text)};
  }
  static GooseError interfaceNotFound(std::string text) {
    return {Case::interfaceNotFound, std::move(text)};
  }
  static GooseError sendFailed(std::string text) { return {Case::sendFailed, std::move(text)}; }
  static GooseError parseError(std::string text) { return {Case::parseError, std::move(text)}; }
  static GooseError notRunning() { return {Case::notRunning, {}}; }
  static GooseError permissionDenied() { return {Case::permissionDenied, {}}; }

  Case which() const { return case_; }

  /// What a user is told: the payload text where a case has one, else "permission denied" or
  /// "not running".
  std::string description() const;

  bool operator==(const GooseError&) const = default;

 private:
  GooseError(Case which, std::string text) : case_(which), text_(std::move(text)) {}

  Case case_ = Case::notRunning;
  std::string text_;
};

template <class T>
using GooseResult = boost::system::result<T, GooseError>;

/// Lets GooseResult::value() throw; found by Boost through argument-dependent look-up.
[[noreturn]] void throw_exception_from_error(const GooseError& error,
                                             const boost::source_location& location);

}  // namespace goosestack
