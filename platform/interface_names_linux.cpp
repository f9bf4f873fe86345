// Connection names come from NetworkManager over the system D-Bus, hardware models from udev's
// database.
#include "platform/interface_names.h"

#include <systemd/sd-device.h>

#include <memory>
#include <utility>
#include <vector>

#include "platform/system_bus_linux.h"

namespace tarnlink {
namespace {

using Clock = std::chrono::steady_clock;
using Names = std::map<std::string, std::string>;
using Paths = std::vector<std::string>;

constexpr const char* kService = "org.freedesktop.NetworkManager";
constexpr const char* kManagerPath = "/org/freedesktop/NetworkManager";
constexpr const char* kManager = "org.freedesktop.NetworkManager";
constexpr const char* kActiveConnection = "org.freedesktop.NetworkManager.Connection.Active";
constexpr const char* kDevice = "org.freedesktop.NetworkManager.Device";

struct EnumeratorUnref {
  void operator()(sd_device_enumerator* list) const { ::sd_device_enumerator_unref(list); }
};

void addConnectionNames(Clock::time_point deadline, Names& names) {
  SystemBus bus(deadline);
  const auto manager = bus.getAll(kService, {kManagerPath}, kManager);
  const auto connections =
      bus.getAll(kService, manager.front().get<Paths>("ActiveConnections"), kActiveConnection);
  std::vector<std::string> ids;
  Paths devicePaths;
  for (const auto& connection : connections) {
    const auto id = connection.get<std::string>("Id");
    // A VPN names the device beneath it, which has a connection of its own.
    if (connection.get<bool>("Vpn") || id.empty()) continue;
    for (auto& path : connection.get<Paths>("Devices")) {
      ids.push_back(id);
      devicePaths.push_back(std::move(path));
    }
  }
  const auto devices = bus.getAll(kService, devicePaths, kDevice);
  Names found;
  for (std::size_t i = 0; i < devices.size(); ++i) {
    // They differ where a serial line or modem carries the network interface.
    for (const char* property : {"Interface", "IpInterface"}) {
      const auto name = devices[i].get<std::string>(property);
      if (!name.empty()) found.emplace(name, ids[i]);
    }
  }
  found.merge(names);
  names = std::move(found);
}

std::string modelOf(sd_device* device) {
  for (const char* property : {"ID_MODEL_FROM_DATABASE", "ID_MODEL"}) {
    const char* value = nullptr;
    if (::sd_device_get_property_value(device, property, &value) >= 0 && *value != '\0') {
      return value;
    }
  }
  return {};
}

void addModelNames(Clock::time_point deadline, Names& names) {
  sd_device_enumerator* raw = nullptr;
  if (::sd_device_enumerator_new(&raw) < 0) return;
  const std::unique_ptr<sd_device_enumerator, EnumeratorUnref> list(raw);
  if (::sd_device_enumerator_add_match_subsystem(raw, "net", 1) < 0) return;
  if (::sd_device_enumerator_allow_uninitialized(raw) < 0) return;
  for (sd_device* device = ::sd_device_enumerator_get_device_first(raw); device != nullptr;
       device = ::sd_device_enumerator_get_device_next(raw)) {
    if (Clock::now() >= deadline) return;
    const char* name = nullptr;
    if (::sd_device_get_sysname(device, &name) < 0) continue;
    if (auto model = modelOf(device); !model.empty()) names.emplace(name, std::move(model));
  }
}

}  // namespace

std::map<std::string, std::string> interfaceDisplayNames(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  Names names;
  // The models first: they are a matter of small files, and at hand when the bus takes all the
  // time that is left.
  addModelNames(deadline, names);
  addConnectionNames(deadline, names);
  return names;
}

}  // namespace tarnlink
