#include "goosestack/sv_publisher.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <string>
#include <utility>

#include "goosestack/sv_frame.h"

namespace goosestack {
namespace {

const SendRules kRules{
    [](const std::string& interface) { return "MAC für '" + interface + "' nicht gefunden"; },
    "pcap_sendpacket failed", false};

}  // namespace

SvPublisher::SvPublisher(const boost::asio::any_io_executor& executor,
                         std::shared_ptr<SendHandleSource> handles)
    : strand_(boost::asio::make_strand(executor)), pcapHandle_(kRules, std::move(handles)) {}

boost::asio::awaitable<GooseResult<void>> SvPublisher::publishApdu(Bytes pdu,
                                                                   SvPublishConfig config) {
  constexpr auto onStrand =
      [](std::shared_ptr<SvPublisher> self, Bytes payload,
         SvPublishConfig wanted) -> boost::asio::awaitable<GooseResult<void>> {
    co_return self->send(payload, wanted);
  };
  auto work = onStrand(shared_from_this(), std::move(pdu), std::move(config));
  co_return co_await boost::asio::co_spawn(strand_, std::move(work), boost::asio::use_awaitable);
}

boost::asio::awaitable<void> SvPublisher::stop() {
  constexpr auto onStrand = [](std::shared_ptr<SvPublisher> self) -> boost::asio::awaitable<void> {
    self->pcapHandle_.close();
    co_return;
  };
  auto work = onStrand(shared_from_this());
  co_await boost::asio::co_spawn(strand_, std::move(work), boost::asio::use_awaitable);
}

GooseResult<void> SvPublisher::send(ByteView pdu, const SvPublishConfig& config) {
  if (const auto opened = pcapHandle_.ensureHandle(config.interface); !opened) {
    return opened.error();
  }
  const Bytes frame =
      buildSvFrame(config.dstMac, pcapHandle_.srcMac(), config.vlanId, config.vlanPriority, pdu);
  auto sent = pcapHandle_.send(frame, config.vlanPriority);
  if (sent) ++publishedCount_;
  return sent;
}

}  // namespace goosestack
