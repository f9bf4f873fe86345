#include "platform/console_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tarnlink {
namespace {

using namespace std::chrono_literals;

TEST(EscapedControlCharacters, LeaveOneVisibleLine) {
  using namespace std::string_view_literals;
  const struct {
    std::string_view text, escaped;
  } cases[] = {
      {"[BridgeServer] \u2190 subscribe_goose appId=*"sv,
       "[BridgeServer] \u2190 subscribe_goose appId=*"sv},
      {"a\n[BridgeServer] Stopped\r"sv, "a\\n[BridgeServer] Stopped\\r"sv},
      {"\x1B[2J\tx\0y\x7F"sv, "\\x1B[2J\\tx\\x00y\\x7F"sv},
      {"8-bit CSI \u009B, not \u00A0 or \u00DB"sv, "8-bit CSI \\xC2\\x9B, not \u00A0 or \u00DB"sv},
      {"cut \xC2"sv, "cut \xC2"sv},
      {"C:\\n"sv, "C:\\n"sv},
  };
  for (const auto& [text, escaped] : cases) EXPECT_EQ(escapeControlCharacters(text), escaped);
}

/// Standard output is a pipe while this lives; the test reads its other end.
class PipedOutput {
 public:
  PipedOutput() {
    std::signal(SIGPIPE, SIG_IGN);
    std::fflush(stdout);
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    // A full pipe with a non-blocking end makes partial writes, which is where lines would mix.
    EXPECT_EQ(::fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
    ::dup2(ends[1], STDOUT_FILENO);
    ::close(ends[1]);
    reader_ = ::fdopen(ends[0], "r");
  }
  ~PipedOutput() {
    close();
    EXPECT_TRUE(flushConsoleLog(5s));
    ::dup2(saved_, STDOUT_FILENO);
    ::close(saved_);
  }
  void close() {
    if (reader_ != nullptr) std::fclose(std::exchange(reader_, nullptr));
  }
  std::string readLine() {
    char line[kMaxLogLine + 1] = "";
    std::string text = std::fgets(line, sizeof line, reader_) != nullptr ? line : "";
    if (text.ends_with('\n')) text.pop_back();
    return text;
  }

 private:
  const int saved_ = ::dup(STDOUT_FILENO);
  FILE* reader_ = nullptr;
};

TEST(ConsoleLog, LinesOfSeveralThreadsNeverMixAndAClosedPipeEndsNothing) {
  constexpr int kLines = 160;  // Together less than the queue holds.
  const std::string padding(3000, '.');
  PipedOutput output;
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([&padding, t] {
      for (int i = t; i < kLines; i += 4) logToConsole(std::to_string(i) + padding);
    });
  }
  std::set<std::string> lines;
  std::set<std::string> expected;
  for (int i = 0; i < kLines; ++i) {
    lines.insert(output.readLine());
    expected.insert(std::to_string(i) + padding);
  }
  EXPECT_EQ(lines, expected);
  for (auto& writer : writers) writer.join();
  // The second octet of "ä" would be one too many.
  logToConsole(std::string(kMaxLogLine - 5, '.') + "ä\nforged");
  EXPECT_EQ(output.readLine(), std::string(kMaxLogLine - 5, '.') + "…");
  logToConsole(std::string(kMaxLogLine - 1, '.'));
  EXPECT_EQ(output.readLine().size() + 1, kMaxLogLine) << "whole";
  logToConsole(std::string(kMaxLogLine, '\n') + "forged");
  EXPECT_EQ(output.readLine().size() + 1, kMaxLogLine);
  output.close();
  logToConsole("nobody reads this");
}

// A terminal that is scrolled back, or a stopped pager: the bridge must go on, and publish on time.
TEST(ConsoleLog, AReaderThatStopsReadingHoldsUpNobodyAndHearsWhatItMissed) {
  constexpr int kLines = 5000;
  // Short ones would still fit where a long one did not.
  const auto lineOf = [](int i) { return std::to_string(i) + std::string(i % 2 ? 1000 : 1, '.'); };
  PipedOutput output;
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < kLines; ++i) logToConsole(lineOf(i));
  EXPECT_FALSE(flushConsoleLog(1ms));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
  // Losses are told where the lines are missing; there may be two, as the writer began before.
  int next = 0;
  int losses = 0;
  while (next < kLines) {
    const std::string line = output.readLine();
    if (line == lineOf(next)) {
      ++next;
      continue;
    }
    ASSERT_EQ(line.substr(0, 6), "[Log] ") << "after " << next;
    next += std::stoi(line.substr(6));
    ++losses;
  }
  EXPECT_EQ(next, kLines);
  EXPECT_GE(losses, 1);
  logToConsole("all is well again");
  EXPECT_EQ(output.readLine(), "all is well again");
}

TEST(ConsoleLog, TheEndOfTheProgramWritesWhatWaitsButNotForever) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  int nobodyReads[2];
  ASSERT_EQ(::pipe(nobodyReads), 0);
  const auto begin = std::chrono::steady_clock::now();
  const std::pair<int, const char*> cases[] = {{STDERR_FILENO, "the last line"},
                                               {nobodyReads[1], ""}};
  for (const auto& [output, text] : cases) {
    const auto logMuchAndExit = [output = output] {
      std::fflush(stdout);
      ::dup2(output, STDOUT_FILENO);
      for (int i = 0; i < 500; ++i) logToConsole(std::string(1000, '.'));
      logToConsole("the last line");
      std::exit(0);
    };
    EXPECT_EXIT(logMuchAndExit(), ::testing::ExitedWithCode(0), text);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
}

}  // namespace
}  // namespace tarnlink
