// What the server asks of whoever makes the operating system's VLAN interfaces.
#pragma once

#include <boost/system/result.hpp>
#include <cstdint>
#include <optional>
#include <string>

namespace tarnlink {

/// A failed VLAN set-up: a code and a description for the user.
struct VlanError {
  int code = 0;
  std::string description;

  bool operator==(const VlanError&) const = default;
};

/// Lets VlanResult::value() throw; found by Boost through argument-dependent look-up.
[[noreturn]] void throw_exception_from_error(const VlanError& error,
                                             const boost::source_location& location);

template <class T>
using VlanResult = boost::system::result<T, VlanError>;

class VlanSetup {
 public:
  virtual ~VlanSetup() = default;

  /// The name of the interface that carries VLAN `vid` on `parent`, where it is there and needs
  /// nothing done; else nothing, and ensureVlanInterface() has the last word. Blocks shortly, never
  /// for a person, and is safe from any thread, also while that call blocks another one.
  virtual std::optional<std::string> readyVlanInterface(const std::string& /*parent*/,
                                                        std::uint16_t /*vid*/) {
    return {};
  }

  /// The name of the interface that carries VLAN `vid` on `parent`; reused or made. Blocks while
  /// tools run and while a person answers a prompt: the server calls it on its serial host
  /// executor alone.
  virtual VlanResult<std::string> ensureVlanInterface(const std::string& parent,
                                                      std::uint16_t vid) = 0;

  /// Ends a pending call, prompt included, and fails every later one. Any thread; does not wait.
  virtual void cancel() = 0;
};

}  // namespace tarnlink
