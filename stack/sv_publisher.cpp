#include "stack/sv_publisher.h"

#include <string>
#include <utility>

#include "goosestack/ethernet_frame.h"
#include "stack/run_on_strand.h"

namespace goosestack {
namespace {

const SendRules kRules{
    [](const std::string& interface) { return "MAC für '" + interface + "' nicht gefunden"; },
    "pcap_sendpacket failed", false};

}  // namespace

std::shared_ptr<SvPublishing> makeSvPublisher(const boost::asio::any_io_executor& executor) {
  return std::make_shared<SvPublisher>(executor, systemSendHandles());
}

SvPublisher::SvPublisher(const boost::asio::any_io_executor& executor,
                         std::shared_ptr<SendHandleSource> handles)
    : strand_(boost::asio::make_strand(executor)), pcapHandle_(kRules, std::move(handles)) {}

boost::asio::awaitable<GooseResult<void>> SvPublisher::publishApdu(Bytes pdu,
                                                                   SvPublishConfig config) {
  return runOnStrand(strand_, [self = shared_from_this(), pdu = std::move(pdu),
                               config = std::move(config)] { return self->send(pdu, config); });
}

boost::asio::awaitable<void> SvPublisher::stop() {
  return runOnStrand(strand_, [self = shared_from_this()] { self->pcapHandle_.close(); });
}

GooseResult<void> SvPublisher::send(ByteView pdu, const SvPublishConfig& config) {
  if (const auto opened = pcapHandle_.ensureHandle(config.interface); !opened) {
    return opened.error();
  }
  const Bytes frame = EthernetFrame::build(config.dstMac, pcapHandle_.srcMac(), config.vlanId,
                                           config.vlanPriority, pdu, kEtherTypeSv);
  auto sent = pcapHandle_.send(frame, config.vlanPriority);
  if (sent) ++publishedCount_;
  return sent;
}

}  // namespace goosestack
