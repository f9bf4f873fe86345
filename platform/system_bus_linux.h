// What services on the system D-Bus tell of their objects.
#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tarnlink {

/// The properties of one object that are texts, flags or lists of object paths.
class BusProperties {
 public:
  using Value = std::variant<std::string, bool, std::vector<std::string>>;

  /// An empty value where there is none of this type.
  template <class T>
  T get(std::string_view name) const {
    const auto found = values.find(name);
    const auto* value = found != values.end() ? std::get_if<T>(&found->second) : nullptr;
    return value != nullptr ? *value : T();
  }

  std::map<std::string, Value, std::less<>> values;
};

/// Questions that are asked together; every wait ends at the one deadline. One thread.
class SystemBus {
 public:
  /// Without a bus all answers are empty.
  explicit SystemBus(std::chrono::steady_clock::time_point deadline);

  /// The properties that each of the objects has by this interface, in their order; empty for those
  /// that failed or did not answer in time. No service is started for that.
  std::vector<BusProperties> getAll(const char* service, const std::vector<std::string>& paths,
                                    const char* interface);

 private:
  struct Close {
    // Not flushing: nothing left in the queue is worth waiting for.
    void operator()(sd_bus* bus) const { ::sd_bus_close_unref(bus); }
  };

  bool proceed();

  std::unique_ptr<sd_bus, Close> bus_;
  std::chrono::steady_clock::time_point deadline_;
};

}  // namespace tarnlink
