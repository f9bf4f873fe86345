// Prints the GOOSE messages on an interface until that has gone: capture_goose eth0
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <cstdio>

#include "goosestack/goose_receiver.h"

boost::asio::awaitable<void> capture(boost::asio::io_context& io, std::string interface) {
  const auto receiver = goosestack::makeGooseReceiver(io.get_executor());
  goosestack::GooseReceiver::Events events;
  events.onDeath = [&io](const std::string& reason) {  // On the capture's thread.
    std::fprintf(stderr, "%s\n", reason.c_str());
    io.stop();
  };
  auto stream = co_await receiver->start(std::move(interface), std::move(events));
  if (!stream) {
    std::fprintf(stderr, "%s\n", stream.error().description().c_str());
    co_return;
  }
  goosestack::MessageStream<goosestack::GooseMessage>::Batch batch;
  while (co_await stream->next(batch)) {
    for (const auto& message : batch.records()) {
      std::printf("%s stNum %u sqNum %u, %zu values\n", message.goCBRef.c_str(), message.stNum,
                  message.sqNum, message.values.size());
    }
    std::fflush(stdout);
  }
}

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  boost::asio::io_context io;
  boost::asio::co_spawn(io, capture(io, argv[1]), boost::asio::detached);
  io.run();
}
