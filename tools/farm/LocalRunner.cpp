#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <iostream>

#include "Progress.h"
#include "Runners.h"
#include "base/FileDescriptor.h"
#include "base/Subprocess.h"
#include "base/WaitForReadable.h"

namespace Farm {

using Arbolite3::Base::Subprocess;

namespace {

struct Running {
  int chunk;
  int attempt;
  Subprocess task;
};

Subprocess startTask(const std::string& farmProgram, const std::string& jobDir, int chunk, int attempt,
                     int input) {
  Subprocess::Options options;
  options.arguments = {farmProgram, "task", jobDir, std::to_string(chunk), std::to_string(attempt)};
  options.closeOtherFds = true;
  // Its own group, so that a stop reaches kindlet-control and kindlet too.
  options.newProcessGroup = true;
  options.stdinFd = input;
  return Subprocess::start(options);
}

std::string endNote(const Subprocess& task) {
  if (task.status() == Subprocess::StatusFailedToStart) return "task could not start";
  if (task.terminationSignal() > 0) return "task killed by signal " + std::to_string(task.terminationSignal());
  return "";
}

// SIGTERM to every task's group, SIGKILL after a grace period. Returns when
// the groups are empty: kindlet may hold the signal back while it boots, and
// would otherwise outlive the driver.
void stopAll(std::vector<Running>& running) {
  std::vector<pid_t> groups;
  for (Running& entry : running) {
    if (entry.task.pid() > 0) groups.push_back(entry.task.pid());  // each task leads its group
    entry.task.sendSignal(SIGTERM, Subprocess::TargetProcessGroup);
  }
  for (int tick = 0;; ++tick) {
    bool left = false;
    for (Running& entry : running) {
      entry.task.pollExit();
      left = left || entry.task.status() == Subprocess::StatusRunning;
    }
    for (pid_t group : groups) left = left || killpg(group, 0) == 0;
    if (!left) return;
    if (tick == 100) {
      for (pid_t group : groups) killpg(group, SIGKILL);
    }
    usleep(100 * 1000);
  }
}

}  // namespace

int runLocal(const FarmOptions& options, const std::string& farmProgram, JobState& state,
             SignalWatch& signals) {
  Arbolite3::Base::FileDescriptor input(open("/dev/null", O_RDONLY | O_CLOEXEC));
  std::vector<int> first = state.chunksToRun();
  std::deque<int> waiting(first.begin(), first.end());
  std::vector<Running> running;
  Progress progress(state.total());

  for (;;) {
    while (static_cast<int>(running.size()) < options.parallel && !waiting.empty()) {
      const int chunk = waiting.front();
      waiting.pop_front();
      const int attempt = state.startAttempt(chunk);
      running.push_back(Running{chunk, attempt, startTask(farmProgram, state.jobDir(), chunk, attempt,
                                                          input.get())});
    }
    if (running.empty()) break;

    std::vector<int> fds{signals.fd()};
    for (Running& entry : running)
      if (entry.task.waitFd() >= 0) fds.push_back(entry.task.waitFd());
    Arbolite3::Base::waitForReadable(fds.data(), static_cast<int>(fds.size()), 1000, nullptr);
    if (const int signal = signals.take()) {
      progress.finish();
      std::cerr << "kindlet-farm: stopping " << running.size() << " running chunks\n";
      stopAll(running);
      return signal;
    }

    for (size_t i = 0; i < running.size();) {
      Running& entry = running[i];
      entry.task.pollExit();
      if (entry.task.status() == Subprocess::StatusRunning) {
        ++i;
        continue;
      }
      state.finishAttempt(entry.chunk, entry.attempt, -1, endNote(entry.task));
      const std::vector<int> again = state.chunksToRun();
      if (std::find(again.begin(), again.end(), entry.chunk) != again.end()) waiting.push_back(entry.chunk);
      running.erase(running.begin() + static_cast<long>(i));
    }

    std::vector<std::pair<int, int>> attempts;
    for (const Running& entry : running) attempts.emplace_back(entry.chunk, entry.attempt);
    progress.update(state.renderedSoFar(attempts), static_cast<int>(running.size()),
                    static_cast<int>(waiting.size()));
  }
  progress.finish();
  return 0;
}

}  // namespace Farm
