// Computers with a system message bus and an mDNS daemon of their own, on a network of the test's.
// Needs the packages dbus-daemon, avahi-daemon and avahi-utils.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "tests/support/program.h"

namespace tarnlink::test {

/// Its files go with it. All functions throw std::runtime_error.
class DnsSdHost {
 public:
  /// Nothing runs there yet.
  DnsSdHost();
  virtual ~DnsSdHost();
  DnsSdHost(const DnsSdHost&) = delete;
  DnsSdHost& operator=(const DnsSdHost&) = delete;

  void startBus();
  /// Returns when the daemon serves.
  void startDaemon(const std::string& hostName);
  void stopDaemon() { daemon_.reset(); }
  pid_t daemonPid() const { return daemon_->pid(); }

  /// A program that uses this host's bus.
  std::unique_ptr<Program> run(std::vector<std::string> argv) const;

  /// What an independent client finds, one resolved instance a line, fields between semicolons.
  std::string browse() const;

  /// Makes the test's own process use this host's bus.
  void use() const;
  std::string busSocket() const { return folder_ / "bus"; }

 protected:
  /// Put before every program; enters the host's network.
  std::vector<std::string> prefix_;

 private:
  std::filesystem::path folder_;
  std::unique_ptr<Program> bus_;
  std::unique_ptr<Program> daemon_;
};

/// Another computer, on a cable from the test's network namespace, which must have been entered.
/// The near end is the interface lan0.
class DistantDnsSdHost : public DnsSdHost {
 public:
  DistantDnsSdHost();
  ~DistantDnsSdHost() override;

 private:
  std::unique_ptr<Program> network_;
};

}  // namespace tarnlink::test
