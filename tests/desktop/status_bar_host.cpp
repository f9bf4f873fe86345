#include "tests/desktop/status_bar_host.h"

#include <chrono>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace tarnlink::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kLimit = 10s;
constexpr const char* kMenuInterface = "com.canonical.dbusmenu";

int check(int result, const char* what) {
  if (result < 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(-result));
  return result;
}

bool isType(sd_bus_message* message, const char* signature) {
  return sd_bus_message_verify_type(message, 'v', signature) > 0;
}

// One property of an item, as a variant.
void readProperty(sd_bus_message* message, ShownItem& item) {
  const char* key = nullptr;
  check(sd_bus_message_read(message, "s", &key), "property");
  const std::string name = key;
  int number = 0;
  const char* text = nullptr;
  if (name == "label" && isType(message, "s")) {
    check(sd_bus_message_read(message, "v", "s", &text), "label");
    item.label = text;
  } else if (name == "enabled" && isType(message, "b")) {
    check(sd_bus_message_read(message, "v", "b", &number), "enabled");
    item.isEnabled = number != 0;
  } else if (name == "toggle-state" && isType(message, "i")) {
    check(sd_bus_message_read(message, "v", "i", &number), "toggle-state");
    item.isChecked = number == 1;
  } else {
    check(sd_bus_message_skip(message, "v"), "property");
  }
}

// (ia{sv}av); the children, which are the items, at the top alone.
ShownItem readNode(sd_bus_message* message, std::vector<ShownItem>* children) {
  ShownItem item;
  check(sd_bus_message_enter_container(message, 'r', "ia{sv}av"), "node");
  check(sd_bus_message_read(message, "i", &item.id), "id");
  check(sd_bus_message_enter_container(message, 'a', "{sv}"), "properties");
  while (check(sd_bus_message_enter_container(message, 'e', "sv"), "property") > 0) {
    readProperty(message, item);
    check(sd_bus_message_exit_container(message), "property");
  }
  check(sd_bus_message_exit_container(message), "properties");
  check(sd_bus_message_enter_container(message, 'a', "v"), "children");
  while (children != nullptr &&
         check(sd_bus_message_enter_container(message, 'v', "(ia{sv}av)"), "child") > 0) {
    children->push_back(readNode(message, nullptr));
    check(sd_bus_message_exit_container(message), "child");
  }
  check(sd_bus_message_exit_container(message), "children");
  check(sd_bus_message_exit_container(message), "node");
  return item;
}

}  // namespace

ShownItem ShownMenu::find(const std::string& text) const {
  for (const auto& item : items) {
    if (item.label.find(text) != std::string::npos) return item;
  }
  return {};
}

const sd_bus_vtable StatusBarHost::kWatcher[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("RegisterStatusNotifierItem", "s", "", &StatusBarHost::registerItem, 0),
    SD_BUS_METHOD("RegisterStatusNotifierHost", "s", "", &StatusBarHost::registerHost, 0),
    SD_BUS_PROPERTY("IsStatusNotifierHostRegistered", "b", nullptr,
                    offsetof(StatusBarHost, isHostRegistered_), 0),
    SD_BUS_PROPERTY("ProtocolVersion", "i", nullptr, offsetof(StatusBarHost, protocolVersion_), 0),
    SD_BUS_VTABLE_END,
};

StatusBarHost::StatusBarHost(Host host) : isHostRegistered_(host == Host::present ? 1 : 0) {
  check(sd_bus_open_user(&bus_), "session bus");
  check(sd_bus_add_object_vtable(bus_, nullptr, "/StatusNotifierWatcher",
                                 "org.kde.StatusNotifierWatcher", kWatcher, this),
        "watcher");
  check(sd_bus_request_name(bus_, "org.kde.StatusNotifierWatcher", 0), "name");
}

StatusBarHost::~StatusBarHost() {
  sd_bus_flush_close_unref(bus_);
}

int StatusBarHost::registerItem(sd_bus_message* message, void* self, sd_bus_error*) {
  static_cast<StatusBarHost*>(self)->item_ = sd_bus_message_get_sender(message);
  return sd_bus_reply_method_return(message, "");
}

int StatusBarHost::registerHost(sd_bus_message* message, void*, sd_bus_error*) {
  return sd_bus_reply_method_return(message, "");
}

void StatusBarHost::serve() {
  while (check(sd_bus_process(bus_, nullptr), "process") > 0) {
  }
}

void StatusBarHost::awaitItem() {
  const auto deadline = Clock::now() + kLimit;
  while (item_.empty()) {
    if (Clock::now() > deadline) throw std::runtime_error("no item registers");
    serve();
    if (item_.empty()) check(sd_bus_wait(bus_, 100'000), "wait");
  }
  serve();  // The answer goes out.
  sd_bus_message* reply = nullptr;
  check(sd_bus_get_property(bus_, item_.c_str(), "/StatusNotifierItem",
                            "org.kde.StatusNotifierItem", "Menu", nullptr, &reply, "o"),
        "menu path");
  const char* path = nullptr;
  check(sd_bus_message_read(reply, "o", &path), "menu path");
  menuPath_ = path;
  sd_bus_message_unref(reply);
}

ShownMenu StatusBarHost::menu() {
  sd_bus_message* reply = nullptr;
  check(sd_bus_call_method(bus_, item_.c_str(), menuPath_.c_str(), kMenuInterface, "GetLayout",
                           nullptr, &reply, "iias", 0, -1, 0),
        "GetLayout");
  ShownMenu menu;
  check(sd_bus_message_skip(reply, "u"), "revision");
  readNode(reply, &menu.items);
  sd_bus_message_unref(reply);
  return menu;
}

ShownMenu StatusBarHost::awaitMenu(const std::string& text, bool isChecked) {
  const auto deadline = Clock::now() + kLimit;
  while (true) {
    auto shown = menu();
    const auto item = shown.find(text);
    if (item.id != 0 && item.isChecked == isChecked) return shown;
    if (Clock::now() > deadline) throw std::runtime_error("the menu does not show " + text);
    std::this_thread::sleep_for(50ms);
  }
}

void StatusBarHost::openMenu() {
  check(sd_bus_call_method(bus_, item_.c_str(), menuPath_.c_str(), kMenuInterface, "AboutToShow",
                           nullptr, nullptr, "i", 0),
        "AboutToShow");
}

void StatusBarHost::sendEvent(std::int32_t item, const char* event) {
  check(sd_bus_call_method(bus_, item_.c_str(), menuPath_.c_str(), kMenuInterface, "Event", nullptr,
                           nullptr, "isvu", item, event, "i", 0, 0),
        "Event");
}

}  // namespace tarnlink::test
