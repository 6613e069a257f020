#include "Task.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "ChunkStatus.h"
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
// frame at each progress line.
class OutputFollower {
 public:
  OutputFollower(int logFd, ChunkStatus& status, const std::string& attemptDir)
      : logFd_(logFd), status_(status), attemptDir_(attemptDir), lastMark_(status.start) {}

  void consume(const char* data, size_t size) {
    Arbolite3::Base::writeRetrying(logFd_, data, size, nullptr);
    pending_.append(data, size);
    size_t newline;
    while ((newline = pending_.find('\n')) != std::string::npos) {
      line(pending_.substr(0, newline));
      pending_.erase(0, newline + 1);
    }
  }

  // Frames that no progress line credited share the rest of the time.
  void finish(bool allRendered) {
    const double now = wallClockSeconds();
    size_t left = 0;
    for (const FrameRecord& record : status_.frames) left += record.rendered ? 0 : 1;
    for (FrameRecord& record : status_.frames) {
      if (record.rendered || !allRendered) continue;
      record.rendered = true;
      record.seconds = (now - lastMark_) / static_cast<double>(left);
    }
  }

 private:
  void line(const std::string& text) {
    int index = 0;
    int count = 0;
    if (!parseProgressLine(text, index, count)) return;
    if (index < 1 || static_cast<size_t>(index) > status_.frames.size()) return;
    const double now = wallClockSeconds();
    FrameRecord& record = status_.frames[static_cast<size_t>(index) - 1];
    record.rendered = true;
    record.seconds = now - lastMark_;
    lastMark_ = now;
    writeChunkStatus(attemptDir_, status_);
  }

  int logFd_;
  ChunkStatus& status_;
  std::string attemptDir_;
  double lastMark_;
  std::string pending_;
};

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
  for (int frame : frames) status.frames.push_back(FrameRecord{frame, false, 0});

  FileDescriptor log(open((dir + "/log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  FileDescriptor input(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!log || !input) {
    std::cerr << "kindlet-farm task: cannot open the log in " << dir << "\n";
    return 2;
  }

  FileDescriptor readEnd, writeEnd;
  Arbolite3::Base::createPipe(readEnd, writeEnd);
  Subprocess control = startKindletControl(job, dir, frameText, input.get(), writeEnd.get());
  writeEnd.reset();
  status.controlPid = control.pid();
  writeChunkStatus(dir, status);

  OutputFollower follower(log.get(), status, dir);
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
  follower.finish(status.exitStatus == 0);
  status.finished = true;
  status.end = wallClockSeconds();
  writeChunkStatus(dir, status);
  return status.exitStatus == 0 ? 0 : 1;
}

}  // namespace Farm
