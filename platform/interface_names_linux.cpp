// Connection names come from NetworkManager over the system D-Bus, hardware models from udev's
// database.
#include "platform/interface_names.h"

#include <systemd/sd-bus.h>
#include <systemd/sd-device.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace tarnlink {
namespace {

using Clock = std::chrono::steady_clock;
using Names = std::map<std::string, std::string>;

constexpr const char* kService = "org.freedesktop.NetworkManager";
constexpr const char* kManagerPath = "/org/freedesktop/NetworkManager";
constexpr const char* kManager = "org.freedesktop.NetworkManager";
constexpr const char* kActiveConnection = "org.freedesktop.NetworkManager.Connection.Active";
constexpr const char* kDevice = "org.freedesktop.NetworkManager.Device";

struct BusClose {
  // Not flushing: nothing left in the queue is worth waiting for.
  void operator()(sd_bus* bus) const { ::sd_bus_close_unref(bus); }
};
struct MessageUnref {
  void operator()(sd_bus_message* message) const { ::sd_bus_message_unref(message); }
};
struct EnumeratorUnref {
  void operator()(sd_device_enumerator* list) const { ::sd_device_enumerator_unref(list); }
};
using Bus = std::unique_ptr<sd_bus, BusClose>;
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

/// The properties of one object, as far as their types are of use here.
struct Properties {
  std::map<std::string, std::string, std::less<>> texts;
  std::map<std::string, std::vector<std::string>, std::less<>> paths;
  std::map<std::string, bool, std::less<>> flags;

  std::string text(std::string_view name) const {
    const auto found = texts.find(name);
    return found != texts.end() ? found->second : std::string();
  }
  std::vector<std::string> pathList(std::string_view name) const {
    const auto found = paths.find(name);
    return found != paths.end() ? found->second : std::vector<std::string>();
  }
  bool flag(std::string_view name) const {
    const auto found = flags.find(name);
    return found != flags.end() && found->second;
  }
};

// One value of the a{sv} dictionary; false ends the reading.
bool readVariant(sd_bus_message* message, const char* name, Properties& properties) {
  const char* type = nullptr;
  if (::sd_bus_message_peek_type(message, nullptr, &type) <= 0) return false;
  const std::string_view signature = type;
  if (signature == "s") {
    const char* text = nullptr;
    if (::sd_bus_message_read(message, "v", "s", &text) < 0) return false;
    properties.texts[name] = text;
  } else if (signature == "b") {
    int flag = 0;
    if (::sd_bus_message_read(message, "v", "b", &flag) < 0) return false;
    properties.flags[name] = flag != 0;
  } else if (signature == "ao") {
    if (::sd_bus_message_enter_container(message, 'v', "ao") < 0) return false;
    if (::sd_bus_message_enter_container(message, 'a', "o") < 0) return false;
    auto& list = properties.paths[name];
    const char* path = nullptr;
    while (::sd_bus_message_read_basic(message, 'o', &path) > 0) list.emplace_back(path);
    if (::sd_bus_message_exit_container(message) < 0) return false;
    if (::sd_bus_message_exit_container(message) < 0) return false;
  } else if (::sd_bus_message_skip(message, "v") < 0) {
    return false;
  }
  return true;
}

Properties readProperties(sd_bus_message* message) {
  Properties properties;
  if (::sd_bus_message_enter_container(message, 'a', "{sv}") <= 0) return properties;
  while (::sd_bus_message_enter_container(message, 'e', "sv") > 0) {
    const char* name = nullptr;
    if (::sd_bus_message_read_basic(message, 's', &name) <= 0) break;
    if (!readVariant(message, name, properties)) break;
    if (::sd_bus_message_exit_container(message) < 0) break;
  }
  return properties;
}

// Questions to the bus that are asked together; every wait ends at the one deadline. The library's
// blocking calls are of no use here: they wait for the bus's greeting without a limit of ours.
class PropertyQueries {
 public:
  PropertyQueries(sd_bus* bus, Clock::time_point deadline) : bus_(bus), deadline_(deadline) {}

  /// The properties of each path, in the order of the paths; empty for those that failed or did
  /// not answer in time.
  std::vector<Properties> getAll(const std::vector<std::string>& paths, const char* interface) {
    std::vector<Answer> answers(paths.size());
    std::vector<Slot> slots;
    for (std::size_t i = 0; i < paths.size(); ++i) {
      answers[i].open = &open_;
      if (auto slot = ask(paths[i].c_str(), interface, answers[i])) {
        slots.push_back(std::move(slot));
        ++open_;
      }
    }
    while (open_ > 0 && turn()) {
    }
    slots.clear();  // Questions without an answer let go of `answers`.
    open_ = 0;
    std::vector<Properties> all;
    all.reserve(answers.size());
    for (Answer& answer : answers) all.push_back(std::move(answer.properties));
    return all;
  }

 private:
  struct SlotUnref {
    void operator()(sd_bus_slot* slot) const { ::sd_bus_slot_unref(slot); }
  };
  using Slot = std::unique_ptr<sd_bus_slot, SlotUnref>;

  struct Answer {
    std::size_t* open = nullptr;
    Properties properties;
  };

  static int onReply(sd_bus_message* reply, void* context, sd_bus_error*) {
    auto& answer = *static_cast<Answer*>(context);
    --*answer.open;
    if (::sd_bus_message_is_method_error(reply, nullptr) == 0) {
      answer.properties = readProperties(reply);
    }
    return 0;
  }

  Slot ask(const char* path, const char* interface, Answer& answer) {
    sd_bus_message* raw = nullptr;
    if (::sd_bus_message_new_method_call(bus_, &raw, kService, path,
                                         "org.freedesktop.DBus.Properties", "GetAll") < 0) {
      return {};
    }
    const Message call(raw);
    // Where NetworkManager does not run, asking for names must not start it.
    ::sd_bus_message_set_auto_start(call.get(), 0);
    sd_bus_slot* slot = nullptr;
    if (::sd_bus_message_append(call.get(), "s", interface) < 0 ||
        ::sd_bus_call_async(bus_, &slot, call.get(), &onReply, &answer, kNoTimeout) < 0) {
      return {};
    }
    return Slot(slot);
  }

  // False when the time is over or the bus is gone.
  bool turn() {
    const int processed = ::sd_bus_process(bus_, nullptr);
    if (processed < 0) return false;
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(deadline_ - Clock::now());
    if (left.count() <= 0) return false;
    if (processed > 0) return true;
    return ::sd_bus_wait(bus_, static_cast<std::uint64_t>(left.count())) >= 0;
  }

  static constexpr std::uint64_t kNoTimeout = UINT64_MAX;  // turn() keeps the deadline.

  sd_bus* bus_;
  Clock::time_point deadline_;
  std::size_t open_ = 0;
};

void addConnectionNames(Clock::time_point deadline, Names& names) {
  sd_bus* raw = nullptr;
  if (::sd_bus_open_system(&raw) < 0) return;
  const Bus bus(raw);
  PropertyQueries queries(bus.get(), deadline);

  const auto manager = queries.getAll({kManagerPath}, kManager);
  const auto connections =
      queries.getAll(manager.front().pathList("ActiveConnections"), kActiveConnection);

  std::vector<std::string> ids;
  std::vector<std::string> devicePaths;
  for (const Properties& connection : connections) {
    // A VPN names the device beneath it, which has a connection of its own.
    if (connection.flag("Vpn") || connection.text("Id").empty()) continue;
    for (auto& path : connection.pathList("Devices")) {
      ids.push_back(connection.text("Id"));
      devicePaths.push_back(std::move(path));
    }
  }
  const auto devices = queries.getAll(devicePaths, kDevice);
  Names found;
  for (std::size_t i = 0; i < devices.size(); ++i) {
    // They differ where a serial line or modem carries the network interface.
    for (const char* property : {"Interface", "IpInterface"}) {
      if (auto name = devices[i].text(property); !name.empty()) found.emplace(name, ids[i]);
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
