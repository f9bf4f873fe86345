// Publishes a breaker that opens and closes, each state for a second: publish_goose eth0
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cstdio>

#include "goosestack/publishing.h"
#include "goosestack/real_time_thread.h"

namespace asio = boost::asio;

asio::awaitable<void> publish(goosestack::RealTimeThread& thread, std::string interface) {
  const auto publisher = goosestack::makeGoosePublisher(
      thread.executor(), [](std::string_view line) { std::puts(std::string(line).c_str()); });
  goosestack::GoosePublishConfig config{};
  config.interface = interface;
  config.dstMac = {0x01, 0x0C, 0xCD, 0x01, 0x00, 0x01};
  config.appId = 0x1000;
  config.goCBRef = "IED1LD0/LLN0$GO$gcb1";
  config.dataSetRef = "IED1LD0/LLN0$ds1";
  config.goId = "breaker";
  config.confRev = 1;
  config.timeAllowedToLive = 8000;
  config.retransmissionProfile = goosestack::RetransmissionProfile::standard();
  asio::steady_timer second(co_await asio::this_coro::executor);
  for (const bool isClosed : {false, true, false}) {
    config.values = {goosestack::GooseDataValue::boolean(isClosed)};
    const auto sent = co_await publisher->publishStateChange(config);
    if (!sent) std::fprintf(stderr, "%s\n", sent.error().description().c_str());
    second.expires_after(std::chrono::seconds(1));  // Meanwhile it is retransmitted.
    co_await second.async_wait(asio::use_awaitable);
  }
  co_await publisher->stop();
}

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  goosestack::RealTimeThread thread;
  asio::io_context io;
  asio::co_spawn(io, publish(thread, argv[1]), asio::detached);
  io.run();
}
