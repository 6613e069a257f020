#include "Command.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>

#include "base/DescriptorPairs.h"
#include "base/FileDescriptor.h"
#include "base/RetryingIO.h"
#include "base/Subprocess.h"
#include "base/WaitForReadable.h"

namespace Farm {

using Arbolite3::Base::FileDescriptor;
using Arbolite3::Base::Subprocess;

CommandResult runCommand(const std::vector<std::string>& arguments, const CommandLimits& limits) {
  CommandResult result;
  FileDescriptor outRead, outWrite, errRead, errWrite;
  Arbolite3::Base::createPipe(outRead, outWrite);
  Arbolite3::Base::createPipe(errRead, errWrite);
  FileDescriptor input(open("/dev/null", O_RDONLY | O_CLOEXEC));

  Subprocess::Options options;
  options.arguments = arguments;
  options.closeOtherFds = true;
  options.stdinFd = input.get();
  options.stdoutFd = outWrite.get();
  options.stderrFd = errWrite.get();
  Subprocess process = Subprocess::start(options);
  outWrite.reset();
  errWrite.reset();

  // Both pipes are read as they fill, so a chatty command can't block on one.
  std::string* targets[2] = {&result.out, &result.err};
  int fds[3] = {outRead.get(), errRead.get(), limits.stopFd};
  int openPipes = 2;
  const auto deadline = std::chrono::steady_clock::now() + limits.deadline;
  while (openPipes > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    const int ready = Arbolite3::Base::waitForReadable(fds, limits.stopFd >= 0 ? 3 : 2,
                                                       std::max<long>(1, static_cast<long>(left.count())), nullptr);
    if (ready < 0 || ready == limits.stopFd) {
      // Past the deadline, or a stop request: the command's answer no longer matters.
      result.interrupted = ready >= 0;
      process.sendSignal(SIGKILL, Subprocess::TargetProcess);
      result.err += result.interrupted ? "interrupted by a stop request\n"
                                       : "timed out after " + std::to_string(limits.deadline.count() / 1000) + " s\n";
      break;
    }
    const int which = ready == fds[0] ? 0 : 1;
    char buffer[4096];
    const ssize_t got = Arbolite3::Base::readRetrying(ready, buffer, sizeof buffer, nullptr);
    if (got > 0) {
      targets[which]->append(buffer, static_cast<size_t>(got));
    } else {
      (which == 0 ? outRead : errRead).reset();
      fds[which] = -1;
      --openPipes;
    }
  }
  process.waitExit();
  result.started = process.status() != Subprocess::StatusFailedToStart;
  if (!result.started) {
    result.err += "could not start " + arguments[0] + "\n";
  } else if (process.terminationSignal() > 0) {
    result.exitStatus = 128 + process.terminationSignal();
  } else {
    result.exitStatus = process.exitCode();
  }
  return result;
}

bool isTransientFailure(const CommandResult& result) {
  if (!result.started || result.exitStatus == 0) return false;
  std::string text = result.err + result.out;
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  static const char* const transient[] = {
      "timed out", "timeout", "unable to contact", "try again", "busy", "temporarily",
      "connection refused", "connection reset", "communication", "not responding",
  };
  for (const char* phrase : transient)
    if (text.find(phrase) != std::string::npos) return true;
  return false;
}

CommandResult runWithRetries(const std::vector<std::string>& arguments, const RetryPolicy& policy,
                             const std::function<bool(std::chrono::milliseconds)>& sleep,
                             const std::function<CommandResult(const std::vector<std::string>&)>& run) {
  std::chrono::milliseconds delay = policy.firstDelay;
  for (int attempt = 1;; ++attempt) {
    CommandResult result = run(arguments);
    if (result.ok() || !isTransientFailure(result) || attempt >= policy.attempts) return result;
    if (!sleep(delay)) return result;
    delay *= 2;
  }
}

}  // namespace Farm
