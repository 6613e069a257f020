// Runs a short-lived program (the scheduler's command-line tools) and keeps
// what it printed.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace Farm {

struct CommandResult {
  bool started = false;
  int exitStatus = -1;  // 128 + N when killed by signal N
  std::string out;
  std::string err;
  bool interrupted = false;  // stopped because `stopFd` became readable
  bool ok() const { return started && exitStatus == 0; }
};

struct CommandLimits {
  // Past it the command is killed and its error ends in "timed out after N s"
  // (a transient failure: the scheduler may still have done what was asked).
  std::chrono::milliseconds deadline{60000};
  // Readable (a stop request): the command is ended at once. -1: none.
  int stopFd = -1;
};

CommandResult runCommand(const std::vector<std::string>& arguments, const CommandLimits& limits = CommandLimits());

// A failure a busy or restarting controller gives, worth trying again.
bool isTransientFailure(const CommandResult& result);

struct RetryPolicy {
  int attempts = 6;
  std::chrono::milliseconds firstDelay{500};  // doubled after each failure
};

// Runs the command until it succeeds, fails for good, or the attempts are
// used up; returns the last result. `sleep` waits between tries and returns
// false to give up early (the user interrupted).
CommandResult runWithRetries(const std::vector<std::string>& arguments, const RetryPolicy& policy,
                             const std::function<bool(std::chrono::milliseconds)>& sleep,
                             const std::function<CommandResult(const std::vector<std::string>&)>& run);

}  // namespace Farm
