// kindlet-farm: renders a sequence of Op tree files as chunks of frames, each
// an ordinary batch render through kindlet-control, on this machine or as a
// Slurm array job; retries failed chunks and reports every frame. See
// docs/farm.md.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <set>

#include <boost/filesystem/operations.hpp>

#include "FarmOptions.h"
#include "Job.h"
#include "JobState.h"
#include "Report.h"
#include "Runners.h"
#include "SignalWatch.h"
#include "Task.h"
#include "base/ExecutablePath.h"
#include "base/FrameList.h"

namespace fs = boost::filesystem;
using namespace Farm;

namespace {

int usageError(const std::string& reason) {
  std::cerr << "kindlet-farm: " << reason << "\n" << farmUsage;
  return 2;
}

int taskMain(int argc, char** argv) {
  if (argc != 5) return usageError("task needs JOBDIR CHUNK ATTEMPT");
  try {
    return runTask(argv[2], atoi(argv[3]), atoi(argv[4]));
  } catch (const std::exception& error) {
    // The driver then takes the outcome from the scheduler or the exit status.
    std::cerr << "kindlet-farm task: " << error.what() << "\n";
    return 2;
  }
}

std::string defaultJobDir() {
  char stamp[32];
  const time_t now = time(nullptr);
  strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", localtime(&now));
  return "kindlet-farm-" + std::string(stamp) + "-" + std::to_string(getpid());
}

// Each frame once, in the order first given.
std::vector<int> distinctFrames(const std::vector<int>& frames) {
  std::set<int> seen;
  std::vector<int> result;
  for (int frame : frames)
    if (seen.insert(frame).second) result.push_back(frame);
  return result;
}

bool isRegularFile(const std::string& path) {
  boost::system::error_code error;
  return fs::status(path, error).type() == fs::regular_file;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && std::string(argv[1]) == "task") return taskMain(argc, argv);
  if (argc == 2 && (std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h")) {
    std::cout << farmUsage;
    return 0;
  }

  FarmOptions options;
  std::string error;
  if (!parseFarmOptions(std::vector<std::string>(argv + 1, argv + argc), options, error))
    return usageError(error);

  const std::string self = Arbolite3::Base::getExecutablePath();
  if (options.root.empty()) options.root = fs::path(self).parent_path().parent_path().string();
  options.root = fs::absolute(options.root).string();
  if (access((options.root + "/bin/kindlet-control").c_str(), X_OK) != 0)
    return usageError("no kindlet-control in " + options.root + "/bin");

  // Tasks may start in another directory, or on another machine.
  const std::string pattern = fs::absolute(options.pattern).string();
  std::replace(options.kindletOptions.begin(), options.kindletOptions.end(), options.pattern, pattern);

  const std::vector<int> frames = distinctFrames(options.frameNumbers);
  std::vector<int> present, missing;
  for (int frame : frames)
    (isRegularFile(Arbolite3::Base::substituteFrame(pattern, frame)) ? present : missing).push_back(frame);

  const std::string jobDir = fs::absolute(options.jobDir.empty() ? defaultJobDir() : options.jobDir).string();
  if (fs::exists(jobDir + "/job.json")) return usageError("job directory " + jobDir + " holds a job already");
  Job job;
  job.root = options.root;
  job.kindletOptions = options.kindletOptions;
  job.threads = options.threads;
  for (const std::string& output : options.expectedOutputs)
    job.expectedOutputs.push_back(fs::absolute(output).string());
  job.chunks = splitIntoChunks(present, options.chunkSize);
  try {
    fs::create_directories(jobDir);
    writeJob(jobDir, job);
  } catch (const std::exception& failure) {
    std::cerr << "kindlet-farm: " << failure.what() << "\n";
    return 2;
  }

  std::cerr << "kindlet-farm: job " << jobDir << ": " << present.size() << " frames in " << job.chunks.size()
            << " chunks, "
            << (options.mode == Mode::Slurm ? "on Slurm"
                                            : "on this machine, " + std::to_string(options.parallel) + " at once")
            << ", -threads " << options.threads << "\n";
  if (!missing.empty())
    std::cerr << "kindlet-farm: " << missing.size() << " frames have no Op tree file and are skipped\n";

  JobState state(jobDir, job, missing, 1 + options.retries);
  SignalWatch signals;
  const int stoppedBy = options.mode == Mode::Slurm ? runSlurm(options, self, state, signals)
                                                    : runLocal(options, self, state, signals);
  state.close();

  const JobCost cost = collectJobCost(jobDir);
  std::ofstream report(jobDir + "/report.txt");
  for (std::ostream* out : {static_cast<std::ostream*>(&std::cout), static_cast<std::ostream*>(&report)}) {
    printFrameTable(*out, state);
    printSummary(*out, state, cost);
  }
  if (stoppedBy != 0) {
    std::cerr << "kindlet-farm: stopped by signal " << stoppedBy << "\n";
    return 128 + stoppedBy;
  }
  return state.allRendered() ? 0 : 1;
}
