#include "websocket/write_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace tarnlink::test {
namespace {

using Kind = WriteQueue::Kind;
using Push = WriteQueue::Push;

constexpr std::size_t kSize = 10;  // octets of a frame on the wire, each
const std::size_t kMemory = TextFrame::copyOf("12345678")->footprint();

Push push(WriteQueue& queue, Kind kind, char fill, int count = 1) {
  std::vector<SharedTextFrame> frames(count, TextFrame::copyOf(std::string(kSize - 2, fill)));
  return queue.push(frames, kind);
}

// What comes next, of each frame its last octet; "-" for what the protocol sends.
std::string next(WriteQueue& queue, std::size_t written = std::string::npos) {
  WriteQueue::Buffers buffers;
  const auto gathered = queue.gather(buffers);
  std::string all;
  for (const auto& buffer : gathered) {
    all += static_cast<const char*>(buffer.data())[buffer.size() - 1];
  }
  queue.written(std::min(written, boost::asio::buffer_size(gathered)));
  return all;
}

TEST(WriteQueue, HoldsMemoryUpToItsLimitAndSaysSoOnce) {
  WriteQueue queue(3 * kMemory);
  queue.open();
  EXPECT_EQ(push(queue, Kind::answer, 'a', 2), Push::accepted);
  EXPECT_EQ(queue.unsentAnswers(), 2 * kMemory);
  EXPECT_EQ(push(queue, Kind::event, 'e'), Push::accepted);
  EXPECT_EQ(next(queue, kSize + 1), "aae");
  EXPECT_EQ(queue.unsentAnswers(), kMemory);
  EXPECT_EQ(push(queue, Kind::event, 'f'), Push::accepted);
  EXPECT_EQ(push(queue, Kind::event, 'g'), Push::overflow);
  EXPECT_EQ(push(queue, Kind::event, 'h'), Push::dropped);
}

TEST(WriteQueue, NoTextGoesBeforeTheHandshakeOrAfterTheLastControlFrame) {
  WriteQueue queue(3 * kMemory);
  push(queue, Kind::event, 'e');
  EXPECT_TRUE(queue.pushProtocol("HTTP-", false));
  EXPECT_EQ(next(queue) + next(queue), "-");
  queue.open();
  EXPECT_FALSE(queue.pushProtocol("close-", true));
  EXPECT_EQ(push(queue, Kind::event, 'f'), Push::dropped);
  EXPECT_EQ(next(queue) + next(queue), "e-");
  EXPECT_TRUE(queue.pushProtocol("again-", false)) << "it was idle";
}

TEST(WriteQueue, ForgetsTextThatIsNotBegun) {
  const struct {
    const char* name;
    std::size_t written, committed;
    std::string left;
    std::size_t answers;
  } cases[] = {
      {"nothing begun", 0, 0, "--", 0},
      {"inside the first", 1, 0, "a--", 1},
      {"first sent", kSize, 0, "--", 0},
      {"a record up to the second", 1, kSize, "ab--", 2},
      {"a record up to the event", 1, 2 * kSize + 5, "ab-e-", 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    WriteQueue queue(100 * kMemory);
    queue.open();
    push(queue, Kind::answer, 'a');
    push(queue, Kind::answer, 'b');
    queue.pushProtocol("pong-", false);
    push(queue, Kind::event, 'e');
    next(queue, c.written);
    push(queue, Kind::answer, 'l');
    queue.pushProtocol("pong-", false);
    queue.refuseText(c.committed);
    EXPECT_EQ(queue.unsentAnswers(), c.answers * kMemory);
    std::string left;
    for (std::string part; !(part = next(queue)).empty();) left += part;
    EXPECT_EQ(left, c.left);
    EXPECT_EQ(push(queue, Kind::event, 'x'), Push::dropped);
  }
}

}  // namespace
}  // namespace tarnlink::test
