#include <gtest/gtest.h>

#include "tests/supervision/watching.h"

namespace tarnlink::test {
namespace {

/// A stream of so many samples a second, and what is told of it.
struct Flow {
  StreamWatch watch;
  StreamWatch::Events events;
  double rate = 4000;
  double ms = 0;

  void send(Sv sv) {
    sv.ms = ms;
    sv.content = static_cast<std::uint8_t>(sv.smpCnt);
    ms += 1000 / rate;
    show(watch, sv, events);
    watch.advance(atMs(sv.ms), events);
  }
  /// Numbers from `from` on, the wrap of `wrap` included.
  void run(int from, int count, int wrap) {
    for (int i = 0; i < count; ++i) send({.smpCnt = (from + i) % wrap});
  }
};

TEST(SvStreams, AWrapIsLearntAndIsNoFault) {
  struct Case {
    double rate;  // Frames a second.
    int wrap;
  };
  // The last three: recorded and sent slowly, an unusual rate, a counter that uses all its octets.
  for (const auto& [rate, wrap] :
       {Case{4000, 4000}, {4800, 4800}, {14400, 14400}, {20, 4000}, {1000, 1000}, {96000, 65536}}) {
    Flow flow;
    flow.rate = rate;
    flow.run(wrap - 700, 2 * wrap + 1000, wrap);
    EXPECT_EQ(told(flow.events), "appeared") << wrap;
    const StreamRow& row = *flow.watch.find(1);
    EXPECT_EQ(row.smpCntWrap, wrap == 65536 ? 0 : wrap);
    EXPECT_NEAR(row.samplesPerSecond(), rate, rate / 1000);
  }
}

TEST(SvStreams, WrapOfTheSaidRateIsLearntBeforeAnythingIsMeasured) {
  for (const auto& [rate, mod, top] : {std::tuple{80, 0, 3999}, {256, 0, 12799}, {1000, 1, 999}}) {
    StreamWatch watch;
    StreamWatch::Events events;
    goosestack::SvPdu pdu;
    const goosestack::Bytes samples(8);
    for (const int smpCnt : {top, 0}) {
      pdu.asdus = {{.svId = "MU",
                    .smpCnt = static_cast<std::uint16_t>(smpCnt),
                    .smpRate = rate,
                    .smpMod = mod,
                    .samples = samples}};
      watch.see({.at = atMs(smpCnt == 0 ? 1 : 0)}, pdu, events);
    }
    EXPECT_EQ(told(events), "appeared") << rate;
  }
}

TEST(SvStreams, Histories) {
  struct Case {
    const char* name;
    std::vector<Sv> history;  // Behind 5,000 samples at 4,000 a second, the last one 999.
    std::string expected;
  };
  const Case cases[] = {
      {"gap", {{.smpCnt = 1003}, {.smpCnt = 1004}}, "lost 3"},
      {"gap, perhaps by us",
       {{.smpCnt = 1003, .drops = 5}, {.smpCnt = 1004, .drops = 5}},
       "lost 3?"},
      {"duplicate", {{.smpCnt = 999}, {.smpCnt = 1000}}, "duplicate"},
      {"copies", {{.smpCnt = 981}, {.smpCnt = 982}, {.smpCnt = 1000}}, "duplicate, duplicate"},
      {"too late for a copy", {{.smpCnt = 978}, {.smpCnt = 1000}}, "outOfOrder 0 0 978"},
      {"swapped",
       {{.smpCnt = 1001}, {.smpCnt = 1000}, {.smpCnt = 1002}},
       "lost 1, outOfOrder 0 0 1000"},
      {"swapped, with copies",
       {{.smpCnt = 1001}, {.smpCnt = 1000}, {.smpCnt = 1000}},
       "lost 1, outOfOrder 0 0 1000, duplicate"},
      {"other synchronisation",
       {{.smpCnt = 1000, .smpSynch = 0}, {.smpCnt = 1001, .smpSynch = 0}},
       "smpSynchChanged 2 0"},
      {"other configuration", {{.smpCnt = 1000, .confRev = 3}}, "confRevChanged 1 3"},
      {"other layout", {{.smpCnt = 1000, .octets = 56}}, "datasetChanged"},
      {"other source",
       {{.smpCnt = 1000, .source = 3}, {.smpCnt = 1001, .source = 3}},
       "sourceChanged 1 3"},
      {"another count",
       {{.smpCnt = 3000}, {.smpCnt = 3001}, {.smpCnt = 3002}, {.smpCnt = 3003}, {.smpCnt = 3004}},
       "outOfOrder 0 0 3000, outOfOrder 0 0 3001, outOfOrder 0 0 3002, outOfOrder 0 0 3003"},
  };
  for (const auto& [name, history, expected] : cases) {
    SCOPED_TRACE(name);
    Flow flow;
    flow.run(0, 5000, 4000);
    flow.events.clear();
    for (const Sv& sv : history) flow.send(sv);
    EXPECT_EQ(told(flow.events), expected);
  }
}

TEST(SvStreams, LostAroundTheWrap) {
  for (const int learnt : {0, 4000}) {
    Flow flow;
    flow.run(3900 - learnt / 2, learnt + 90, 4000);  // Up to 3989, or 1989 of the next second.
    flow.events.clear();
    if (learnt != 0) flow.run(1990, 2000, 4000);
    flow.send({.smpCnt = 5});
    EXPECT_EQ(told(flow.events), "lost 15");
  }
}

TEST(SvStreams, ExpiresAfterTwentyPeriodsButTwentyMilliseconds) {
  struct Case {
    double rate;
    int samples;
    double silenceMs;  // None told until then.
  };
  for (const auto& [rate, samples, silence] :
       {Case{4000, 30, 20}, {4000, 9000, 20}, {250, 600, 80}, {1, 10, 20000}}) {
    Flow flow;
    flow.rate = rate;
    flow.run(0, samples, 4000);
    const double last = flow.ms - 1000 / rate;
    flow.watch.advance(atMs(last + silence), flow.events);
    EXPECT_EQ(told(flow.events), "appeared") << rate;
    flow.watch.advance(atMs(last + silence + 9), flow.events);
    EXPECT_EQ(told(flow.events).substr(0, 17), "appeared, expired") << rate;
    flow.ms = last + silence + 50;
    flow.send({.smpCnt = samples % 4000});
    EXPECT_EQ(std::get<happening::Recovered>(flow.events.back().what).downtime.count() / 1000, 50);
  }
}

TEST(SvStreams, AsdusOfOneFrameAreStreamsByTheirNames) {
  StreamWatch watch;
  StreamWatch::Events events;
  goosestack::SvPdu pdu;
  const goosestack::Bytes samples(12);
  std::vector<std::uint32_t> ids;
  for (std::uint16_t frame = 0; frame < 5; ++frame) {
    const auto next = static_cast<std::uint16_t>(2 * frame);
    pdu.asdus = {{.svId = "a", .smpCnt = next, .samples = samples},
                 {.svId = "a", .smpCnt = static_cast<std::uint16_t>(next + 1), .samples = samples},
                 {.svId = "b", .smpCnt = frame, .samples = samples},
                 {.svId = "b", .smpCnt = frame, .confRev = 0, .samples = samples}};
    const auto seen = watch.see({.at = atMs(frame)}, pdu, events);
    ids.assign(seen.begin(), seen.end());
  }
  EXPECT_EQ(ids, (std::vector<std::uint32_t>{1, 1, 2, 2}));
  EXPECT_EQ(watch.find(1)->messages, 5U);
  EXPECT_EQ(watch.find(1)->asdus, 4U);
  EXPECT_EQ(faultsOf(*watch.find(1), "duplicate"), 0U);
  EXPECT_EQ(faultsOf(*watch.find(2), "duplicate"), 5U);
}

}  // namespace
}  // namespace tarnlink::test
