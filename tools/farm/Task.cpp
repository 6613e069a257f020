#include "Task.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <iostream>
#include <sstream>

#include "ChunkStatus.h"
#include "FrameOutputs.h"
#include "Clock.h"
#include "Job.h"
#include "base/DescriptorPairs.h"
#include "base/FileDescriptor.h"
#include "base/FrameList.h"
#include "base/ProcessMetrics.h"
#include "base/RetryingIO.h"
#include "base/Subprocess.h"

namespace Farm {

using Arbolite3::Base::FileDescriptor;
using Arbolite3::Base::Subprocess;

bool parseProgressLine(const std::string& line, int& index, int& count) {
  static const char marker[] = "Finished rendering scene from Op tree ";
  const size_t at = line.find(marker);
  if (at == std::string::npos) return false;
  return sscanf(line.c_str() + at + sizeof marker - 1, "%d of %d", &index, &count) == 2;
}

namespace {

std::string hostName() {
  char name[256] = {0};
  if (gethostname(name, sizeof name - 1) != 0) return "?";
  return name;
}

std::string readFirstLine(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

int exitStatusOf(const Subprocess& process) {
  if (process.status() == Subprocess::StatusFailedToStart) return 127;
  if (process.terminationSignal() > 0) return 128 + process.terminationSignal();
  return process.exitCode();
}

// Splits kindlet's output into lines, copies it to the log and credits a
// frame at each progress line. kindlet is given exactly the frames whose Op
// tree file this task saw, so its file i is the i-th of them only while its
// count N is theirs: with any other N no line is evidence of a frame.
class OutputFollower {
 public:
  OutputFollower(int logFd, ChunkStatus& status, const std::string& attemptDir, std::vector<size_t> given,
                 std::function<std::string(int)> checkOutputs)
      : logFd_(logFd), status_(status), attemptDir_(attemptDir), given_(std::move(given)),
        checkOutputs_(std::move(checkOutputs)), lastMark_(status.start) {}

  void consume(const char* data, size_t size) {
    Arbolite3::Base::writeRetrying(logFd_, data, size, nullptr);
    pending_.append(data, size);
    size_t newline;
    while ((newline = pending_.find('\n')) != std::string::npos) {
      line(pending_.substr(0, newline));
      pending_.erase(0, newline + 1);
    }
  }

  // kindlet logs no progress line for a single file: its status 0 is then the
  // evidence, since it ends with 255 when it finds no file. With more files,
  // a frame without its line is not credited.
  void finish(int exitStatus) {
    for (size_t index : given_) {
      FrameRecord& record = status_.frames[index];
      if (record.rendered || !record.note.empty()) continue;
      if (exitStatus == 0 && given_.size() == 1)
        credit(record);
      else if (exitStatus == 0)
        record.note = "kindlet logged no progress line for it";
    }
  }

 private:
  void line(const std::string& text) {
    int index = 0;
    int count = 0;
    if (!parseProgressLine(text, index, count)) return;
    if (count != static_cast<int>(given_.size()) || index < 1 || index > count) {
      note("kindlet-farm task: kindlet rendered " + std::to_string(count) + " files where " +
           std::to_string(given_.size()) + " were given; its progress lines credit no frame\n");
      given_.clear();
      return;
    }
    credit(status_.frames[given_[static_cast<size_t>(index) - 1]]);
    writeChunkStatus(attemptDir_, status_);
  }

  void credit(FrameRecord& record) {
    const double now = wallClockSeconds();
    record.note = checkOutputs_(record.frame);
    record.rendered = record.note.empty();
    record.seconds = now - lastMark_;
    lastMark_ = now;
  }

  void note(const std::string& text) { Arbolite3::Base::writeRetrying(logFd_, text.data(), text.size(), nullptr); }

  int logFd_;
  ChunkStatus& status_;
  std::string attemptDir_;
  std::vector<size_t> given_;  // indices into status_.frames of the frames kindlet was given
  std::function<std::string(int)> checkOutputs_;
  double lastMark_;
  std::string pending_;
};

// The value of kindlet's option `name`, or "".
std::string kindletOption(const Job& job, const std::string& name) {
  for (size_t i = 0; i + 1 < job.kindletOptions.size(); ++i)
    if (job.kindletOptions[i] == name) return job.kindletOptions[i + 1];
  return "";
}

// kindlet-control render with the job's options, this attempt's frames and
// analytics folder; `output` takes both its streams.
Subprocess startKindletControl(const Job& job, const std::string& dir, const std::string& frames, int input,
                               int output) {
  Subprocess::Options options;
  options.arguments = {job.root + "/bin/kindlet-control", "render", "--"};
  options.arguments.insert(options.arguments.end(), job.kindletOptions.begin(), job.kindletOptions.end());
  options.arguments.insert(options.arguments.end(), {"-t", frames, "-threads", std::to_string(job.threads)});
  // Our own end of the driver's watch pipe stays here: the driver then learns
  // of this task's end even if something below it lingers.
  options.closeOtherFds = true;
  options.environment = Arbolite3::Base::getEnvironment();
  options.environment["SELVANE_ANALYTICS_DIR"] = dir + "/analytics";
  // The progress lines are the evidence of each frame: they must reach this
  // task, at info level or below, on kindlet's standard error.
  const std::string level = options.environment["SELVANE_LOG_LEVEL"];
  if (level != "debug" && level != "info") options.environment["SELVANE_LOG_LEVEL"] = "info";
  options.environment.erase("SELVANE_LOG_FILE");
  options.stdinFd = input;
  options.stdoutFd = output;
  options.stderrFd = output;
  return Subprocess::start(options);
}

}  // namespace

int runTask(const std::string& jobDir, int chunk, int attempt) {
  const Job job = readJob(jobDir);
  const std::string dir = chunkAttemptDir(jobDir, chunk, attempt);
  const std::string frameText = readFirstLine(dir + "/frames");
  const std::vector<int> frames = Arbolite3::Base::parseFrameList(frameText);
  if (frames.empty()) {
    std::cerr << "kindlet-farm task: no frames in " << dir << "/frames\n";
    return 2;
  }

  ChunkStatus status;
  status.host = hostName();
  status.pid = getpid();
  status.start = wallClockSeconds();
  // Only frames whose Op tree file is here go to kindlet, which would pass
  // over the others without a word; the outputs are taken as they are now.
  const std::string pattern = kindletOption(job, "-arbolite3OpTree");
  std::vector<size_t> given;
  std::vector<int> present;
  std::map<std::string, OutputSnapshot> before;
  for (int frame : frames) {
    FrameRecord record{frame, false, 0, ""};
    const std::string file = Arbolite3::Base::substituteFrame(pattern, frame);
    struct stat info;
    if (::stat(file.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
      given.push_back(status.frames.size());
      present.push_back(frame);
      for (const std::string& output : job.expectedOutputs) {
        const std::string path = outputPathForFrame(output, frame);
        before[path] = snapshotOutput(path);
      }
    } else {
      record.note = "no Op tree file " + file + " on " + status.host;
    }
    status.frames.push_back(record);
  }
  auto checkOutputs = [&](int frame) {
    for (const std::string& output : job.expectedOutputs) {
      const std::string path = outputPathForFrame(output, frame);
      const std::string problem = checkOutput(path, before[path]);
      if (!problem.empty()) return problem;
    }
    return std::string();
  };

  FileDescriptor log(open((dir + "/log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  FileDescriptor input(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!log || !input) {
    std::cerr << "kindlet-farm task: cannot open the log in " << dir << "\n";
    return 2;
  }
  if (present.empty()) {
    const std::string text = "kindlet-farm task: no frame of this attempt has its Op tree file here\n";
    Arbolite3::Base::writeRetrying(log.get(), text.data(), text.size(), nullptr);
    status.finished = true;
    status.end = wallClockSeconds();
    writeChunkStatus(dir, status);
    return 1;
  }

  FileDescriptor readEnd, writeEnd;
  Arbolite3::Base::createPipe(readEnd, writeEnd);
  Subprocess control = startKindletControl(job, dir, Arbolite3::Base::formatFrameList(present), input.get(),
                                           writeEnd.get());
  writeEnd.reset();
  status.controlPid = control.pid();
  writeChunkStatus(dir, status);

  OutputFollower follower(log.get(), status, dir, given, checkOutputs);
  char buffer[4096];
  ssize_t got;
  while ((got = Arbolite3::Base::readRetrying(readEnd.get(), buffer, sizeof buffer, nullptr)) > 0)
    follower.consume(buffer, static_cast<size_t>(got));
  control.waitExit();

  status.exitStatus = exitStatusOf(control);
  if (control.status() == Subprocess::StatusFailedToStart) {
    const std::string text = "kindlet-farm task: could not start " + job.root + "/bin/kindlet-control\n";
    Arbolite3::Base::writeRetrying(log.get(), text.data(), text.size(), nullptr);
  }
  follower.finish(status.exitStatus);
  status.finished = true;
  status.end = wallClockSeconds();
  writeChunkStatus(dir, status);
  for (const FrameRecord& record : status.frames)
    if (!record.rendered) return 1;
  return 0;
}

}  // namespace Farm
