// Without the library's blocking calls: they wait for the bus's greeting without a limit of ours.
#include "platform/system_bus_linux.h"

#include <cstdint>
#include <utility>

namespace tarnlink {
namespace {

struct MessageUnref {
  void operator()(sd_bus_message* message) const { ::sd_bus_message_unref(message); }
};
struct SlotUnref {
  void operator()(sd_bus_slot* slot) const { ::sd_bus_slot_unref(slot); }
};
using Slot = std::unique_ptr<sd_bus_slot, SlotUnref>;

/// One object's, on its way; where it is must not change.
struct Answer {
  BusProperties properties;
  bool isOpen = false;
};

// One value of the a{sv} dictionary; false ends the reading.
bool readVariant(sd_bus_message* message, const char* name, BusProperties& properties) {
  const char* type = nullptr;
  if (::sd_bus_message_peek_type(message, nullptr, &type) <= 0) return false;
  const std::string_view signature = type;
  const char* text = nullptr;
  if (signature == "s") {
    if (::sd_bus_message_read(message, "v", "s", &text) < 0) return false;
    properties.values[name] = text;
  } else if (signature == "b") {
    int flag = 0;
    if (::sd_bus_message_read(message, "v", "b", &flag) < 0) return false;
    properties.values[name] = flag != 0;
  } else if (signature == "ao") {
    if (::sd_bus_message_enter_container(message, 'v', "ao") < 0) return false;
    if (::sd_bus_message_enter_container(message, 'a', "o") < 0) return false;
    std::vector<std::string> paths;
    while (::sd_bus_message_read_basic(message, 'o', &text) > 0) paths.emplace_back(text);
    properties.values[name] = std::move(paths);
    if (::sd_bus_message_exit_container(message) < 0) return false;
    if (::sd_bus_message_exit_container(message) < 0) return false;
  } else if (::sd_bus_message_skip(message, "v") < 0) {
    return false;
  }
  return true;
}

int onReply(sd_bus_message* reply, void* context, sd_bus_error*) {
  auto& answer = *static_cast<Answer*>(context);
  answer.isOpen = false;
  if (::sd_bus_message_is_method_error(reply, nullptr) != 0) return 0;
  if (::sd_bus_message_enter_container(reply, 'a', "{sv}") <= 0) return 0;
  while (::sd_bus_message_enter_container(reply, 'e', "sv") > 0) {
    const char* name = nullptr;
    if (::sd_bus_message_read_basic(reply, 's', &name) <= 0) break;
    if (!readVariant(reply, name, answer.properties)) break;
    if (::sd_bus_message_exit_container(reply) < 0) break;
  }
  return 0;
}

Slot ask(sd_bus* bus, const char* service, const char* path, const char* interface,
         Answer& answer) {
  sd_bus_message* raw = nullptr;
  if (::sd_bus_message_new_method_call(bus, &raw, service, path, "org.freedesktop.DBus.Properties",
                                       "GetAll") < 0) {
    return {};
  }
  const std::unique_ptr<sd_bus_message, MessageUnref> call(raw);
  ::sd_bus_message_set_auto_start(raw, 0);
  sd_bus_slot* slot = nullptr;
  if (::sd_bus_message_append(raw, "s", interface) < 0 ||
      ::sd_bus_call_async(bus, &slot, raw, &onReply, &answer, UINT64_MAX) < 0) {
    return {};
  }
  answer.isOpen = true;
  return Slot(slot);
}

}  // namespace

SystemBus::SystemBus(std::chrono::steady_clock::time_point deadline) : deadline_(deadline) {
  sd_bus* bus = nullptr;
  if (::sd_bus_open_system(&bus) >= 0) bus_.reset(bus);
}

std::vector<BusProperties> SystemBus::getAll(const char* service,
                                             const std::vector<std::string>& paths,
                                             const char* interface) {
  std::vector<Answer> answers(paths.size());
  std::vector<Slot> slots;  // Gone before `answers`: then no answer comes any more.
  for (std::size_t i = 0; bus_ && i < paths.size(); ++i) {
    slots.push_back(ask(bus_.get(), service, paths[i].c_str(), interface, answers[i]));
  }
  std::vector<BusProperties> all;
  all.reserve(answers.size());
  for (Answer& answer : answers) {
    while (answer.isOpen && proceed()) {
    }
  }
  for (Answer& answer : answers) all.push_back(std::move(answer.properties));
  return all;
}

// False when the time is over or the bus is gone.
bool SystemBus::proceed() {
  const int processed = ::sd_bus_process(bus_.get(), nullptr);
  const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
      deadline_ - std::chrono::steady_clock::now());
  if (processed < 0 || left.count() <= 0) return false;
  return processed > 0 || ::sd_bus_wait(bus_.get(), static_cast<std::uint64_t>(left.count())) >= 0;
}

}  // namespace tarnlink
