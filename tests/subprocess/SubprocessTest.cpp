#include "base/Subprocess.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "base/DescriptorPairs.h"
#include "base/WaitForReadable.h"

using Arbolite3::Base::FileDescriptor;
using Arbolite3::Base::Subprocess;

namespace {

Subprocess::Options launch(std::vector<std::string> arguments) {
  Subprocess::Options options;
  options.arguments = std::move(arguments);
  return options;
}

// Waits on the watch descriptor as a parent would, then reaps. The hang-up
// comes when the child closes its files on the way out, a moment before it
// can be reaped.
void waitThroughFd(Subprocess& child) {
  const int fd = child.waitFd();
  ASSERT_GE(fd, 0);
  ASSERT_EQ(Arbolite3::Base::waitForReadable(&fd, 1, 10000, nullptr), fd);
  for (int attempt = 0; attempt < 1000 && !child.pollExit(); ++attempt)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_NE(child.status(), Subprocess::StatusRunning);
}

// Everything the child writes on `fd` until all writers are gone.
std::string readAll(FileDescriptor& fd) {
  std::string text;
  char buffer[512];
  ssize_t n;
  while ((n = ::read(fd.get(), buffer, sizeof buffer)) > 0) text.append(buffer, n);
  return text;
}

// Runs a child with its standard output or error captured, to its end.
std::string outputOf(const Subprocess::Options& launchOptions, Subprocess* started = nullptr,
                     bool fromStderr = false) {
  Subprocess::Options options = launchOptions;
  FileDescriptor readEnd, writeEnd;
  Arbolite3::Base::createPipe(readEnd, writeEnd);
  (fromStderr ? options.stderrFd : options.stdoutFd) = writeEnd.get();
  Subprocess child = Subprocess::start(options);
  writeEnd.reset();
  const std::string text = readAll(readEnd);
  child.waitExit();
  if (started != nullptr) *started = child;
  return text;
}

struct EndCase {
  std::vector<std::string> arguments;
  Subprocess::Status status;
  int exitCode;
  int signal;
};

TEST(Subprocess, HowAChildEndedFollowsTheStatusTable) {
  const EndCase cases[] = {
      {{"true"}, Subprocess::StatusSucceeded, 0, 0},
      {{"sh", "-c", "exit 3"}, Subprocess::StatusFailed, 3, 0},
      // Indistinguishable from a failed exec by its status, not by its state.
      {{"sh", "-c", "exit 127"}, Subprocess::StatusFailed, 127, 0},
      {{"sh", "-c", "kill -TERM $$"}, Subprocess::StatusKilled, -1, SIGTERM},
      {{"sh", "-c", "kill -INT $$"}, Subprocess::StatusKilled, -1, SIGINT},
      {{"sh", "-c", "kill -SEGV $$"}, Subprocess::StatusCrashed, -1, SIGSEGV},
  };
  for (const EndCase& expected : cases) {
    SCOPED_TRACE(expected.arguments.back());
    Subprocess child = Subprocess::start(launch(expected.arguments));
    EXPECT_EQ(child.status(), Subprocess::StatusRunning);
    EXPECT_GT(child.pid(), 0);
    EXPECT_EQ(child.exitCode(), -1);
    EXPECT_EQ(child.terminationSignal(), -1);
    waitThroughFd(child);
    EXPECT_EQ(child.status(), expected.status);
    EXPECT_EQ(child.exitCode(), expected.exitCode);
    EXPECT_EQ(child.terminationSignal(), expected.signal);
    EXPECT_EQ(child.pid(), -1);
    EXPECT_EQ(child.waitFd(), -1);
    EXPECT_FALSE(child.pollExit());
    // Reaped: its PID may be someone else's by now, so nothing is sent.
    EXPECT_NO_THROW(child.sendSignal(SIGKILL));
  }
}

TEST(Subprocess, AChildThatCannotReachExecFailsToStartAndSaysSo) {
  const std::pair<Subprocess::Options, const char*> cases[] = {
      {launch({"/nonexistent/program"}), "execvp() failed\n"},
      {launch({"true"}), "chdir() failed\n"},
  };
  for (auto entry : cases) {
    if (entry.first.arguments[0] == "true") entry.first.workingDirectory = "/nonexistent";
    Subprocess child;
    EXPECT_EQ(outputOf(entry.first, &child, true),
              std::string("XoArboliteBase::Subprocess - ") + entry.second);
    EXPECT_EQ(child.status(), Subprocess::StatusFailedToStart);
    EXPECT_EQ(child.pid(), -1);
    EXPECT_EQ(child.exitCode(), -1);
    EXPECT_EQ(child.waitFd(), -1);
    EXPECT_FALSE(child.pollExit());
  }
}

TEST(Subprocess, LaunchOptionsReachTheChild) {
  Subprocess::Options options = launch({"sh", "-c", "pwd; echo \"$A|$B|$PATH\"; cat"});
  options.environment = {{"A", "1"}, {"B", ""}, {"PATH", "/usr/bin:/bin"}};
  options.workingDirectory = "/";
  FileDescriptor input(::open("/etc/hostname", O_RDONLY | O_CLOEXEC));
  std::ifstream hostname("/etc/hostname");
  std::stringstream expectedInput;
  expectedInput << hostname.rdbuf();
  options.stdinFd = input.get();
  EXPECT_EQ(outputOf(options), "/\n1||/usr/bin:/bin\n" + expectedInput.str());
}

TEST(Subprocess, CloseOtherFdsRunsAfterTheRedirections) {
  FileDescriptor kept(::open("/dev/null", O_RDONLY));
  FileDescriptor unlisted(::open("/dev/null", O_RDONLY));
  FileDescriptor readEnd, writeEnd;
  Arbolite3::Base::createPipe(readEnd, writeEnd);
  const std::string probe = "for fd in " + std::to_string(kept.get()) + " " +
                            std::to_string(unlisted.get()) + " " +
                            std::to_string(writeEnd.get()) +
                            "; do test -e /proc/self/fd/$fd && echo open || echo closed; done";
  Subprocess::Options options = launch({"sh", "-c", probe});
  options.closeOtherFds = true;
  options.keepFds = {kept.get(), 2};
  options.stdoutFd = writeEnd.get();
  Subprocess child = Subprocess::start(options);
  writeEnd.reset();
  // The copy on 1 carries the output; the original number was closed.
  EXPECT_EQ(readAll(readEnd), "open\nclosed\nclosed\n");
  child.waitExit();
  EXPECT_EQ(child.status(), Subprocess::StatusSucceeded);
}

TEST(Subprocess, StartWaitsForAChildStoppedAtStartUntilItIsContinued) {
  Subprocess::Options options = launch({"true"});
  options.stopAtStart = true;
  std::atomic<bool> returned(false);
  Subprocess child;
  std::thread starter([&] {
    child = Subprocess::start(options);
    returned = true;
  });
  // The stopped child is the only one of this process in state T.
  int stopped = -1;
  for (int attempt = 0; attempt < 1000 && stopped < 0; ++attempt) {
    for (boost::filesystem::directory_iterator entry("/proc"), end; entry != end; ++entry) {
      std::ifstream stat((entry->path() / "stat").string());
      std::string line;
      if (!std::getline(stat, line) || line.rfind(')') == std::string::npos) continue;
      char state = 0;
      int parent = 0;
      std::istringstream(line.substr(line.rfind(')') + 2)) >> state >> parent;
      if (parent == ::getpid() && state == 'T') stopped = std::stoi(entry->path().filename().string());
    }
    if (stopped < 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_GT(stopped, 0);
  EXPECT_FALSE(returned);
  ::kill(stopped, SIGCONT);
  starter.join();
  EXPECT_EQ(child.pid(), stopped);
  child.waitExit();
  EXPECT_EQ(child.status(), Subprocess::StatusSucceeded);
}

TEST(Subprocess, ADaemonHoldingTheWatchPipeHidesTheEndFromWaitFdButNotFromPollExit) {
  Subprocess::Options options = launch({"sh", "-c", "sleep 30 & exit 0"});
  options.newProcessGroup = true;
  Subprocess child = Subprocess::start(options);
  const int group = child.pid();
  const int fd = child.waitFd();
  bool reaped = false;
  for (int attempt = 0; attempt < 500 && !reaped; ++attempt) {
    boost::system::error_code error;
    EXPECT_EQ(Arbolite3::Base::waitForReadable(&fd, 1, 10, &error), -1);
    reaped = child.pollExit();
  }
  EXPECT_TRUE(reaped);
  EXPECT_EQ(child.status(), Subprocess::StatusSucceeded);
  ::killpg(group, SIGKILL);
}

TEST(Subprocess, SignalsReachTheWholeGroupOfANewGroupLeader) {
  Subprocess::Options options = launch({"sh", "-c", "sleep 30 & wait"});
  options.newProcessGroup = true;
  Subprocess child = Subprocess::start(options);
  child.sendSignal(SIGTERM);
  // The watch pipe hangs up only when the sleep, which holds it too, has gone.
  waitThroughFd(child);
  EXPECT_EQ(child.status(), Subprocess::StatusKilled);
}

TEST(Subprocess, StartDetachedHandsTheProgramToTheSystem) {
  const std::string file =
      (boost::filesystem::temp_directory_path() / boost::filesystem::unique_path()).string();
  Subprocess::startDetached(
      {"sh", "-c", "{ pwd; ls /proc/self/fd | wc -l; } > " + file + ".tmp; mv " + file + ".tmp " + file});
  std::string text;
  for (int attempt = 0; attempt < 500 && text.empty(); ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::ifstream in(file);
    std::getline(in, text, '\0');
  }
  // In /, with 0-2 on the null device and the listing's own descriptor.
  EXPECT_EQ(text, "/\n4\n");
  boost::filesystem::remove(file);
}

}  // namespace
