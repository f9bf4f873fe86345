#include "stack/sv_publisher.h"

#include <gmock/gmock.h>

#include <boost/asio/thread_pool.hpp>
#include <optional>

#include "goosestack/ethernet_frame.h"
#include "tests/stack/publishing_fixtures.h"
#include "tests/support/run_awaitable.h"

namespace tarnlink {
using namespace goosestack;
namespace {

using Status = SendOutcome::Status;

const Bytes kPdu{0x40, 0x00, 0x00, 0x0A, 0, 0, 0, 0, 0x60, 0x00};

SvPublishConfig to(const std::string& interface) {
  return {interface, {0x01, 0x0C, 0xCD, 0x04, 0x00, 0x01}, 100, 4};
}

TEST(SvPublisher, KeepsOneHandleAndCountsWhatWasSent) {
  boost::asio::thread_pool pool(1);
  auto wire = std::make_shared<test::FakeWire>();
  auto publisher = std::make_shared<SvPublisher>(pool.get_executor(), wire);
  const struct {
    std::string interface;
    std::deque<SendOutcome> outcomes;
    std::optional<GooseError> error;
    int opened;          // Handles so far.
    std::int64_t stats;  // Afterwards.
  } steps[] = {
      {"bus0", {}, {}, 1, 1},
      {"bus0", {}, {}, 1, 2},
      {"bus1", {}, {}, 2, 3},
      // Never tried again by another call of libpcap, and the handle stays.
      {"bus1", {{Status::failed, "down"}}, GooseError::sendFailed("down"), 2, 3},
      {"bus1", {{Status::failed, ""}}, GooseError::sendFailed("pcap_sendpacket failed"), 2, 3},
      {"bus1", {{Status::interfaceGone, "gone"}}, GooseError::sendFailed("gone"), 2, 3},
      {"bus1", {}, {}, 3, 4},
      {"nomac0", {}, GooseError::sendFailed("MAC für 'nomac0' nicht gefunden"), 4, 4},
      {"absent0", {}, GooseError::pcapOpenFailed("no device"), 4, 4},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(&step - steps);
    wire->outcomesOf(step.outcomes);
    const auto result = test::runAwaitable(publisher->publishApdu(kPdu, to(step.interface)));
    EXPECT_EQ(result.has_error() ? std::optional(result.error()) : std::nullopt, step.error);
    EXPECT_EQ(wire->opened, step.opened);
    EXPECT_LE(wire->open, 1);
    EXPECT_EQ(publisher->stats(), step.stats);
  }
  const auto frames = wire->sent();
  ASSERT_EQ(frames.size(), 4U);
  for (std::size_t i = 0; i < frames.size(); ++i) {
    const auto frame = EthernetFrame::parse(frames[i].octets, kEtherTypeSv).value();
    EXPECT_EQ(frame.srcMac, i < 2 ? test::kBusMac : test::kOtherMac);
    EXPECT_EQ(frame.vlanId, 100);
    EXPECT_EQ(Bytes(frame.payload.begin(), frame.payload.end()), kPdu);
    EXPECT_EQ(frames[i].priority, 4);
  }
  test::runAwaitable(publisher->stop());
  EXPECT_EQ(wire->open, 0);
}

}  // namespace
}  // namespace tarnlink
