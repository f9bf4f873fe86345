#include "platform/console_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace tarnlink {
namespace {

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

TEST(ConsoleLog, LinesOfSeveralThreadsNeverMixAndAClosedPipeEndsNothing) {
  constexpr int kThreads = 4;
  constexpr int kLines = 200;
  const std::string padding(5000, '.');
  std::signal(SIGPIPE, SIG_IGN);
  int pipe[2];
  ASSERT_EQ(::pipe(pipe), 0);
  // A full pipe with a non-blocking end makes partial writes, which is where lines would mix.
  ASSERT_EQ(::fcntl(pipe[1], F_SETFL, O_NONBLOCK), 0);
  std::fflush(stdout);
  const int saved = ::dup(STDOUT_FILENO);
  ::dup2(pipe[1], STDOUT_FILENO);
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([&padding, t] {
      for (int i = 0; i < kLines; ++i) logToConsole(std::to_string(t * kLines + i) + padding);
    });
  }
  std::set<std::string> lines;
  FILE* reader = ::fdopen(pipe[0], "r");
  char* line = nullptr;
  std::size_t room = 0;
  for (int i = 0; i<kThreads * kLines&& ::getline(&line, &room, reader)> 0; ++i) {
    lines.insert(line);
  }
  std::free(line);
  for (auto& writer : writers) writer.join();
  std::fclose(reader);
  logToConsole("nobody reads this");
  ::dup2(saved, STDOUT_FILENO);
  ::close(saved);
  ::close(pipe[1]);
  for (int i = 0; i < kThreads * kLines; ++i) {
    EXPECT_TRUE(lines.contains(std::to_string(i) + padding + "\n")) << i;
  }
}

}  // namespace
}  // namespace tarnlink
