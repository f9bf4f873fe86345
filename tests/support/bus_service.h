// A stand-in for a service on the bus of DBUS_SYSTEM_BUS_ADDRESS.
#pragma once

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <functional>
#include <thread>
#include <utility>

namespace tarnlink::test {

/// Gives each call of the method to `answer`, on a thread of its own.
class BusService {
 public:
  using Answer = std::function<void(sd_bus_message* call)>;

  BusService(const char* name, const char* method, Answer answer)
      : method_(method), answer_(std::move(answer)) {
    EXPECT_GE(::sd_bus_open_system(&bus_), 0);
    EXPECT_GE(::sd_bus_add_filter(bus_, nullptr, &onMessage, this), 0);
    EXPECT_GE(::sd_bus_request_name(bus_, name, 0), 0);
    thread_ = std::thread([this] {
      while (!stopped_ && ::sd_bus_process(bus_, nullptr) >= 0) ::sd_bus_wait(bus_, 10'000);
    });
  }
  ~BusService() {
    stopped_ = true;
    thread_.join();
    ::sd_bus_flush_close_unref(bus_);
  }
  BusService(const BusService&) = delete;
  BusService& operator=(const BusService&) = delete;

 private:
  static int onMessage(sd_bus_message* message, void* context, sd_bus_error*) {
    const auto& self = *static_cast<BusService*>(context);
    if (::sd_bus_message_is_method_call(message, nullptr, self.method_) <= 0) return 0;
    // Whoever only looks something up must not have the bus start a service for it.
    EXPECT_EQ(::sd_bus_message_get_auto_start(message), 0);
    self.answer_(message);
    return 1;
  }

  const char* const method_;
  const Answer answer_;
  sd_bus* bus_ = nullptr;
  std::atomic<bool> stopped_ = false;
  std::thread thread_;
};

}  // namespace tarnlink::test
