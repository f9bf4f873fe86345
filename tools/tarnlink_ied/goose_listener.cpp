#include "tools/tarnlink_ied/goose_listener.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/use_future.hpp>
#include <utility>

#include "goosestack/interface_discovery.h"
#include "protocol/json.h"
#include "protocol/to_bridge_json.h"
#include "tools/common/printing.h"

namespace tarnlink {
namespace {

using Stream = goosestack::MessageStream<goosestack::GooseMessage>;
using OnMessage = std::function<void(std::string_view)>;

std::string lineOf(const goosestack::GooseMessage& message) {
  JsonWriter writer;
  toBridgeJson(message, writer);
  const std::string from = "Heard from " + message.srcMac.value_or("?") + ": ";
  if (writer.failed()) return from + "a message that has no text form";
  return from + gooseLine(parseJson(writer.text()).value());
}

boost::asio::awaitable<void> showAll(Stream stream, std::optional<std::string> ownMac,
                                     OnMessage onMessage) {
  Stream::Batch batch;
  while (co_await stream.next(batch)) {
    for (const goosestack::GooseMessage& message : batch.records()) {
      if (!ownMac || message.srcMac != ownMac) onMessage(lineOf(message));
    }
  }
}

}  // namespace

GooseListener::GooseListener()
    : receiver_(goosestack::makeGooseReceiver(thread_.get_executor(),
                                              goosestack::CaptureMode::lowLatency)) {}

GooseListener::~GooseListener() {
  boost::asio::co_spawn(thread_, receiver_->stop(), boost::asio::use_future).get();
  thread_.join();
}

IedResult<std::unique_ptr<GooseListener>> GooseListener::start(const std::string& interface,
                                                               Handlers handlers) {
  std::unique_ptr<GooseListener> listener(new GooseListener);
  auto work = listener->receiver_->start(interface, {std::move(handlers.onDeath), {}});
  auto stream =
      boost::asio::co_spawn(listener->thread_, std::move(work), boost::asio::use_future).get();
  if (!stream)
    return IedError{"cannot listen on " + interface + ": " + stream.error().description()};
  const auto own = goosestack::InterfaceDiscovery::macAddressBytes(interface);
  auto ownMac = own ? std::optional(goosestack::formatMac(*own)) : std::nullopt;
  auto showing = showAll(std::move(*stream), std::move(ownMac), std::move(handlers.onMessage));
  boost::asio::co_spawn(listener->thread_, std::move(showing), boost::asio::detached);
  return listener;
}

}  // namespace tarnlink
