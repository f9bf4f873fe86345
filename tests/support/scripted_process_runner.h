// Stands in for the system's tools: each case says which commands it expects and what they answer.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "platform/child_process.h"

namespace tarnlink::test {

inline ProcessOutcome outcome(int exitStatus, std::string out = {}, std::string err = {}) {
  return {exitStatus, 0, std::move(out), std::move(err), false};
}

struct ScriptedCommand {
  std::vector<std::string> argv;
  boost::system::result<ProcessOutcome> answer;
};

/// Fails the test for a command that the script does not have next, and for one that was not run.
class ScriptedProcessRunner final : public ProcessRunner {
 public:
  explicit ScriptedProcessRunner(std::vector<ScriptedCommand> script)
      : script_(std::move(script)) {}
  ~ScriptedProcessRunner() override { EXPECT_EQ(next_, script_.size()) << "commands run"; }

  boost::system::result<ProcessOutcome> run(const std::vector<std::string>& argv) override {
    if (isCancelled_) return make_error_code(boost::system::errc::operation_canceled);
    const auto* step = next_ < script_.size() ? &script_[next_++] : nullptr;
    EXPECT_EQ(argv, step != nullptr ? step->argv : std::vector<std::string>{});
    return step != nullptr ? step->answer : outcome(0);
  }
  void cancel() override { isCancelled_ = true; }

 private:
  std::vector<ScriptedCommand> script_;
  std::size_t next_ = 0;
  bool isCancelled_ = false;
};

}  // namespace tarnlink::test
