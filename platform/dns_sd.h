// Port to DNS-SD (RFC 6763) over multicast DNS (RFC 6762): announcing a service on the local
// network, and finding the services that others announce. All is in the domain "local.".
#pragma once

#include <boost/system/result.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tarnlink {

/// A failure, as the system's DNS-SD service numbers and words it.
struct DnsSdError {
  int code = 0;
  std::string text;
};

/// A service that is, or is about to be, announced. Destroying it withdraws the announcement:
/// normally that is done when the call returns, after a few milliseconds; with a service that does
/// not answer it returns all the same, within a fraction of a second. For one thread.
class DnsSdPublication {
 public:
  virtual ~DnsSdPublication() = default;
};

/// The name that the service is announced under, or why it is not, or not any longer.
using DnsSdOutcome = boost::system::result<std::string, DnsSdError>;

/// Starts announcing a service without a TXT record's attributes and returns at once. The name is
/// for people: valid UTF-8, not empty, without U+0000; one longer than the 63 octets of a DNS label
/// is cut, and one that is taken on the network is replaced by a variant. `type` is such as
/// "_http._tcp.". Failures are final, with one exception: while the DNS-SD service does not run,
/// which is reported once, it is waited for, and the running announcement is made again, under the
/// name it had. `name` is asked once, on the publication's own thread, so that it may take its
/// time; `report` is called there, never once the publication is gone, and must not destroy it.
std::unique_ptr<DnsSdPublication> publishDnsSdService(
    std::function<std::string()> name, std::string type, std::uint16_t port,
    std::function<void(const DnsSdOutcome&)> report);

/// An instance that was found on the network. All texts are whatever the network says.
struct DnsSdInstance {
  std::string name;
  std::string host;  ///< Such as "station.local".
  /// IPv4 first, each numeric; IPv6 link-local ones with their scope: "fe80::1%eth0".
  std::vector<std::string> addresses;
  std::uint16_t port = 0;
};

/// The instances of a service type on the network, ordered by name. Blocks until the DNS-SD service
/// knows of no more, up to `wait`; instances that give no address by then are left out. With
/// `onlyName`, ends as soon as an instance of that name is found, and returns that alone. Fails
/// where the DNS-SD service does not run. Safe from any thread.
boost::system::result<std::vector<DnsSdInstance>, DnsSdError> browseDnsSd(
    const std::string& type, std::chrono::milliseconds wait, const std::string& onlyName = {});

}  // namespace tarnlink
