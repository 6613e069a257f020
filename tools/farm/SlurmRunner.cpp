#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <fstream>
#include <iostream>
#include <sstream>

#include <boost/filesystem/operations.hpp>

#include "ChunkStatus.h"
#include "Command.h"
#include "Progress.h"
#include "Runners.h"

namespace Farm {

namespace {

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

std::string shellQuoted(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// The batch script every array task runs: its index is the chunk, $1 the attempt.
std::string writeTaskScript(const std::string& farmProgram, const std::string& jobDir) {
  const std::string dir = jobDir + "/slurm";
  boost::filesystem::create_directories(dir);
  const std::string path = dir + "/task.sh";
  std::ofstream out(path);
  out << "#!/bin/sh\n"
      << "# One chunk of a kindlet-farm job: the array index is the chunk, $1 the attempt.\n"
      << "exec " << shellQuoted(farmProgram) << " task " << shellQuoted(jobDir)
      << " \"$SLURM_ARRAY_TASK_ID\" \"$1\"\n";
  out.close();
  boost::filesystem::permissions(path, boost::filesystem::owner_all | boost::filesystem::group_read |
                                           boost::filesystem::group_exe | boost::filesystem::others_read |
                                           boost::filesystem::others_exe);
  return path;
}

std::string indexList(const std::vector<int>& chunks) {
  std::string text;
  for (int chunk : chunks) text += (text.empty() ? "" : ",") + std::to_string(chunk);
  return text;
}

// One scheduler conversation: retries what a busy controller refuses, and
// stops waiting when the user interrupts.
class Scheduler {
 public:
  explicit Scheduler(SignalWatch& signals) : signals_(signals) {}

  // `beforeRetry`, when given, is asked before each further try; a result it
  // gives is taken instead of running the command again.
  CommandResult run(const std::vector<std::string>& arguments, bool interruptible = true,
                    const std::function<bool(CommandResult&)>& beforeRetry = nullptr) {
    CommandResult last;
    CommandLimits limits;
    if (interruptible) limits.stopFd = signals_.fd();
    int tries = 0;
    CommandResult result = runWithRetries(
        arguments, RetryPolicy(),
        [&](std::chrono::milliseconds delay) {
          std::cerr << "kindlet-farm: " << arguments[0] << " failed (" << firstLine(last.err)
                    << "), trying again in " << delay.count() << " ms\n";
          return signals_.sleep(delay);
        },
        [&](const std::vector<std::string>& command) {
          if (tries++ > 0 && beforeRetry && beforeRetry(last)) return last;
          return last = runCommand(command, limits);
        });
    if (result.interrupted) signals_.take();
    return result;
  }

  // Submits an array job under a name no other submission uses. A try that
  // failed transiently (a time-out above all) may have been accepted all the
  // same: before each further try the name is looked up, and a job found
  // under it is taken instead of submitting a second one.
  CommandResult submit(const std::vector<std::string>& sbatch, const std::string& name) {
    return run(sbatch, true, [&](CommandResult& found) {
      const std::string id = jobNamed(name);
      if (id.empty()) return false;
      std::cerr << "kindlet-farm: Slurm job " << id << " (" << name
                << ") was accepted after all; it is not submitted again\n";
      found = CommandResult{true, 0, id + "\n", "", false};
      return true;
    });
  }

  // Tasks of the job still queued or running, as "state" words; false when
  // the queue could not be asked.
  bool queuedTasks(const std::string& jobId, std::vector<std::string>& states) {
    states.clear();
    const CommandResult result = run({"squeue", "-h", "-r", "-j", jobId, "-o", "%T"});
    // A job that has left the controller's memory is no longer known at all.
    if (!result.ok()) return result.err.find("Invalid job id") != std::string::npos;
    std::istringstream lines(result.out);
    std::string line;
    while (std::getline(lines, line))
      if (!line.empty()) states.push_back(line);
    return true;
  }

  // How the scheduler saw an array task end, e.g. "FAILED, exit code 0:9";
  // empty when it no longer knows.
  std::string taskOutcome(const std::string& jobId, int index) {
    const std::string task = jobId + "_" + std::to_string(index);
    const CommandResult shown = run({"scontrol", "-o", "show", "job", task});
    if (shown.ok()) {
      const std::string state = field(shown.out, "JobState=");
      const std::string exit = field(shown.out, "ExitCode=");
      if (!state.empty()) return state + (exit.empty() ? "" : ", exit code " + exit);
    }
    // Accounting answers only where a database keeps it.
    const CommandResult accounted = run({"sacct", "-n", "-P", "-X", "-j", task, "-o", "State,ExitCode"});
    if (accounted.ok() && !accounted.out.empty()) {
      std::string line = accounted.out.substr(0, accounted.out.find('\n'));
      const size_t bar = line.find('|');
      if (bar != std::string::npos) return line.substr(0, bar) + ", exit code " + line.substr(bar + 1);
    }
    return "";
  }

  void cancel(const std::string& jobId) {
    const CommandResult result = run({"scancel", jobId}, false);
    if (!result.ok()) std::cerr << "kindlet-farm: scancel " << jobId << " failed: " << result.err;
    // Only return when no task of it is left on any node.
    std::vector<std::string> states;
    for (int tick = 0; tick < 60; ++tick) {
      if (queuedTasks(jobId, states) && states.empty()) return;
      sleepIgnoringSignals(std::chrono::milliseconds(500));
    }
    std::cerr << "kindlet-farm: tasks of job " << jobId << " are still listed after scancel\n";
  }

 private:
  // The id of the job with this name, queued or (where accounting is kept)
  // already ended; empty when there is none or nobody could say.
  std::string jobNamed(const std::string& name) {
    const CommandResult queued = runCommand({"squeue", "-h", "--name=" + name, "-o", "%F"});
    std::string id = queued.ok() ? firstLine(queued.out) : "";
    if (id.empty()) {
      const CommandResult accounted = runCommand({"sacct", "-n", "-X", "-P", "--name=" + name, "-o", "JobID"});
      if (accounted.ok()) id = firstLine(accounted.out).substr(0, firstLine(accounted.out).find_first_of("_["));
    }
    return id;
  }

  static std::string field(const std::string& text, const std::string& key) {
    const size_t at = text.find(key);
    if (at == std::string::npos) return "";
    const size_t start = at + key.size();
    return text.substr(start, text.find_first_of(" \n", start) - start);
  }

  // A second stop request only shortens the wait.
  void sleepIgnoringSignals(std::chrono::milliseconds delay) { signals_.sleep(delay); }

  SignalWatch& signals_;
};

}  // namespace

int runSlurm(const FarmOptions& options, const std::string& farmProgram, JobState& state,
             SignalWatch& signals) {
  Scheduler scheduler(signals);
  const std::string script = writeTaskScript(farmProgram, state.jobDir());
  // Job names unique to this run of the driver and to each attempt.
  char token[32];
  snprintf(token, sizeof token, "%zx", std::hash<std::string>()(state.jobDir() + " " + std::to_string(getpid()) +
                                                               " " + std::to_string(time(nullptr))));
  Progress progress(state.total());

  for (std::vector<int> chunks = state.chunksToRun(); !chunks.empty(); chunks = state.chunksToRun()) {
    // Every chunk of a round is at the same attempt: each round resubmits
    // exactly the chunks that failed the round before.
    int attempt = 0;
    for (int chunk : chunks) attempt = state.startAttempt(chunk);

    const std::string name = "kindlet-farm-" + std::string(token) + "-" + std::to_string(attempt);
    std::vector<std::string> sbatch{
        "sbatch", "--parsable", "--job-name=" + name,
        "--array=" + indexList(chunks) + (options.maxRunning > 0 ? "%" + std::to_string(options.maxRunning) : ""),
        "--output=" + state.jobDir() + "/slurm/%A_%a.out",
        "--cpus-per-task=" + std::to_string(options.cpusPerTask)};
    if (!options.memory.empty()) sbatch.push_back("--mem=" + options.memory);
    if (!options.timeLimit.empty()) sbatch.push_back("--time=" + options.timeLimit);
    if (!options.partition.empty()) sbatch.push_back("--partition=" + options.partition);
    sbatch.insert(sbatch.end(), options.sbatchOptions.begin(), options.sbatchOptions.end());
    sbatch.push_back(script);
    sbatch.push_back(std::to_string(attempt));

    const CommandResult submitted = scheduler.submit(sbatch, name);
    const std::string jobId = submitted.out.substr(0, submitted.out.find_first_of(";\n"));
    if (!submitted.ok() || jobId.empty()) {
      progress.finish();
      std::cerr << "kindlet-farm: sbatch failed: " << submitted.err;
      // Nothing ran: the attempt is taken back, so that no kindlet run is
      // counted and no log is cited that was never written.
      for (int chunk : chunks) state.abandonAttempt(chunk, attempt, "sbatch failed: " + firstLine(submitted.err));
      if (signals.received() != 0) return signals.received();
      break;
    }
    progress.finish();
    std::cerr << "kindlet-farm: attempt " << attempt << ": Slurm job " << jobId << ", " << chunks.size()
              << " tasks\n";

    std::vector<std::pair<int, int>> attempts;
    for (int chunk : chunks) attempts.emplace_back(chunk, attempt);
    for (;;) {
      // A stop request may also have cut a scheduler command's back-off short.
      if (signals.received() != 0 ||
          !signals.sleep(std::chrono::milliseconds(static_cast<long>(options.pollSeconds * 1000)))) {
        progress.finish();
        std::cerr << "kindlet-farm: cancelling Slurm job " << jobId << "\n";
        scheduler.cancel(jobId);
        return signals.received();
      }
      std::vector<std::string> queued;
      if (!scheduler.queuedTasks(jobId, queued)) {
        std::cerr << "kindlet-farm: squeue keeps failing; still waiting for job " << jobId << "\n";
        continue;
      }
      const int runningTasks = static_cast<int>(std::count(queued.begin(), queued.end(), "RUNNING"));
      progress.update(state.renderedSoFar(attempts), runningTasks,
                      static_cast<int>(queued.size()) - runningTasks);
      if (queued.empty()) break;
    }

    for (int chunk : chunks) {
      ChunkStatus status;
      const bool finished =
          readChunkStatus(chunkAttemptDir(state.jobDir(), chunk, attempt), status) && status.finished;
      const std::string outcome = finished ? "" : scheduler.taskOutcome(jobId, chunk);
      state.finishAttempt(chunk, attempt, -1, outcome.empty() ? "" : "Slurm: " + outcome);
    }
  }
  progress.finish();
  return 0;
}

}  // namespace Farm
