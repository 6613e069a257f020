#include "base/Subprocess.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/DescriptorFlags.h"
#include "base/DescriptorPairs.h"
#include "base/FileDescriptor.h"
#include "base/ProcessMetrics.h"
#include "base/RetryingIO.h"
#include "base/SystemError.h"

extern char** environ;

namespace Arbolite3 {
namespace Base {

struct Subprocess::SubprocessImpl {
  Options options;
  bool failedToStart = false;
  int failureStatus = 0;
  bool running = false;
  int pid = -1;
  bool finished = false;
  int waitStatus = 0;
  int waitDescriptor = -1;

  ~SubprocessImpl() {
    if (waitDescriptor >= 0) ::close(waitDescriptor);
  }
};

Subprocess::Options::Options() { sigemptyset(&signalMask); }

namespace {

// Between fork and exec: only write and _exit, with fixed texts.
template <size_t N>
void writeFixed(const char (&text)[N]) {
  ssize_t ignored = ::write(2, text, N - 1);
  (void)ignored;
}

template <size_t N>
[[noreturn]] void childFailed(int errorPipe, int code, const char (&text)[N]) {
  if (errorPipe >= 0) {
    ssize_t ignored = ::write(errorPipe, &code, sizeof code);
    (void)ignored;
  }
  writeFixed("XoArboliteBase::Subprocess - ");
  writeFixed(text);
  ::_exit(code);
}

// Closes the descriptors from `first` up to, not including, `end` (child
// side). One system call where the kernel has it; older kernels get a walk
// up to the descriptor limit, which costs a close per slot.
void closeRange(unsigned first, unsigned end, long openMax) {
  if (first >= end) return;
  if (::close_range(first, end - 1, 0) == 0 || errno != ENOSYS) return;
  for (long fd = first; fd < openMax && fd < static_cast<long>(end); ++fd)
    ::close(static_cast<int>(fd));
}

void resetSignalDispositions() {
  for (int signalNumber = 1; signalNumber <= 64; ++signalNumber) ::signal(signalNumber, SIG_DFL);
}

// Null-terminated char* arrays over strings that outlive the fork.
std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(&text[0]);
  pointers.push_back(nullptr);
  return pointers;
}

// Blocks every signal in the calling thread for its life, so that no handler
// runs in the child before it resets them, nor in the parent while it waits.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &saved_);
  }
  void restore() {
    if (!restored_) pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
    restored_ = true;
  }
  void keepBlocked() { restored_ = true; }
  ~AllSignalsBlocked() { restore(); }

 private:
  sigset_t saved_;
  bool restored_ = false;
};

}  // namespace

Subprocess Subprocess::start(const Options& options) {
  FileDescriptor watchRead, watchWrite, errorRead, errorWrite;
  createPipe(watchRead, watchWrite);
  setNonBlocking(watchRead.get(), true);
  createPipe(errorRead, errorWrite);

  std::vector<std::string> arguments = options.arguments;
  std::vector<int> keep = options.keepFds;
  keep.push_back(watchWrite.get());
  keep.push_back(errorWrite.get());
  std::sort(keep.begin(), keep.end());
  keep.erase(std::unique(keep.begin(), keep.end()), keep.end());
  const long openMax = ::sysconf(_SC_OPEN_MAX);
  std::vector<char*> argv = pointersTo(arguments);

  // One buffer of "key=value\0" entries in key order, and pointers into it.
  const std::map<std::string, std::string> environment =
      options.environment.empty() ? getEnvironment() : options.environment;
  std::string environmentBuffer;
  for (const auto& entry : environment) {
    environmentBuffer += entry.first;
    environmentBuffer += '=';
    environmentBuffer += entry.second;
    environmentBuffer += '\0';
  }
  std::vector<char*> envp;
  for (size_t at = 0; at < environmentBuffer.size(); at += std::strlen(&environmentBuffer[at]) + 1)
    envp.push_back(&environmentBuffer[at]);
  envp.push_back(nullptr);
  const char* directory =
      options.workingDirectory.empty() ? nullptr : options.workingDirectory.c_str();
  const int* keepBegin = keep.data();
  const int* keepEnd = keep.data() + keep.size();
  const int errorPipe = errorWrite.get();
  const int watchPipe = watchWrite.get();

  AllSignalsBlocked blocked;
  const pid_t pid = ::fork();
  // A handle with PID -1 would make kill and waitpid address every process.
  if (pid < 0) throwErrno();
  if (pid == 0) {
    ::close(errorRead.get());
    resetSignalDispositions();
    pthread_sigmask(SIG_SETMASK, &options.signalMask, nullptr);
    const int flags = ::fcntl(watchPipe, F_GETFD);
    if (flags < 0 || ::fcntl(watchPipe, F_SETFD, flags & ~FD_CLOEXEC) != 0)
      childFailed(errorPipe, 1, "fcntl() failed\n");
    if ((options.stdoutFd != -1 && ::dup2(options.stdoutFd, 1) < 0) ||
        (options.stderrFd != -1 && ::dup2(options.stderrFd, 2) < 0) ||
        (options.stdinFd != -1 && ::dup2(options.stdinFd, 0) < 0))
      childFailed(errorPipe, 1, "dup2() failed\n");
    if (options.newProcessGroup && ::setpgid(0, 0) != 0)
      childFailed(errorPipe, 1, "setpgid() failed\n");
    if (options.closeOtherFds) {
      unsigned first = 3;
      for (const int* kept = keepBegin; kept != keepEnd; ++kept) {
        if (*kept < static_cast<int>(first)) continue;
        closeRange(first, static_cast<unsigned>(*kept), openMax);
        first = static_cast<unsigned>(*kept) + 1;
      }
      closeRange(first, ~0U, openMax);
    }
    if (directory != nullptr && ::chdir(directory) != 0)
      childFailed(errorPipe, 1, "chdir() failed\n");
    if (options.stopAtStart && ::raise(SIGSTOP) != 0)
      childFailed(errorPipe, 1, "raise(SIGSTOP) failed\n");
    environ = envp.data();
    if (::execvp(argv[0], argv.data()) == 0) std::abort();
    childFailed(errorPipe, 127, "execvp() failed\n");
  }

  errorWrite.reset();
  int reported = 0;
  const ssize_t got = readRetrying(errorRead.get(), &reported, sizeof reported, nullptr);
  blocked.restore();

  boost::shared_ptr<SubprocessImpl> impl(new SubprocessImpl);
  impl->options = options;
  if (got == 0) {
    impl->running = true;
    impl->pid = pid;
    impl->waitDescriptor = watchRead.release();
  } else {
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    impl->failedToStart = true;
    impl->failureStatus = StatusFailedToStart;
  }
  return Subprocess(impl);
}

void Subprocess::startDetached(const std::vector<std::string>& arguments) {
  std::vector<std::string> texts = arguments;
  std::vector<char*> argv = pointersTo(texts);
  const long openMax = ::sysconf(_SC_OPEN_MAX);

  AllSignalsBlocked blocked;
  const pid_t pid = ::fork();
  if (pid < 0) throwErrno();
  if (pid == 0) {
    for (long fd = 3; fd < openMax; ++fd) ::close(static_cast<int>(fd));
    resetSignalDispositions();
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    pid_t next = ::fork();
    if (next < 0) childFailed(-1, 1, "fork() failed\n");
    if (next > 0) ::_exit(0);
    if (::setsid() < 0) childFailed(-1, 1, "setsid() failed\n");
    next = ::fork();
    if (next < 0) childFailed(-1, 1, "fork() failed\n");
    if (next > 0) ::_exit(0);
    if (::chdir("/") != 0) childFailed(-1, 1, "chdir() failed\n");
    const int null = ::open("/dev/null", O_RDWR);
    if (null < 0) childFailed(-1, 1, "open(\"/dev/null\") failed\n");
    ::dup2(null, 0);
    ::dup2(null, 1);
    ::dup2(null, 2);
    if (null > 2) ::close(null);
    ::umask(0);
    ::execvp(argv[0], argv.data());
    childFailed(-1, 127, "execvp() failed\n");
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno == EINTR) continue;
    if (errno == ECHILD) break;
    // Only the normal path gives the mask back.
    blocked.keepBlocked();
    throwErrno();
  }
}

const Subprocess::Options& Subprocess::launchOptions() const { return impl_->options; }

int Subprocess::pid() const { return impl_->running ? impl_->pid : -1; }

int Subprocess::waitFd() const { return impl_->waitDescriptor; }

Subprocess::Status Subprocess::status() const {
  if (impl_->failedToStart) return static_cast<Status>(impl_->failureStatus);
  if (!impl_->finished) return StatusRunning;
  const int status = impl_->waitStatus;
  const int low = status & 0x7f;
  if (low == 0) return ((status >> 8) & 0xff) == 0 ? StatusSucceeded : StatusFailed;
  if (low == 0x7f) return StatusFailed;
  if (low < 16 && ((0x8204 >> low) & 1)) return StatusKilled;
  return StatusCrashed;
}

int Subprocess::rawStatus() const { return impl_->finished ? impl_->waitStatus : -1; }

int Subprocess::exitCode() const {
  if (!impl_->finished || !WIFEXITED(impl_->waitStatus)) return -1;
  return WEXITSTATUS(impl_->waitStatus);
}

int Subprocess::terminationSignal() const {
  if (!impl_->finished) return -1;
  return WIFSIGNALED(impl_->waitStatus) ? WTERMSIG(impl_->waitStatus) : 0;
}

void Subprocess::sendSignal(int signal, SignalTarget target) {
  if (!impl_->running) return;
  const bool toGroup = target == TargetProcessGroup ||
                       (target == TargetDefault && impl_->options.newProcessGroup);
  const int result =
      toGroup ? ::killpg(::getpgid(impl_->pid), signal) : ::kill(impl_->pid, signal);
  if (result != 0 && errno != ESRCH) throwErrno();
}

bool Subprocess::reap(int options) {
  if (!impl_->running) return false;
  int status = 0;
  pid_t result;
  do {
    result = ::waitpid(impl_->pid, &status, options);
  } while (result < 0 && errno == EINTR);
  if (result < 0) throwErrno();
  if (result == 0) return false;
  impl_->waitStatus = status;
  impl_->finished = true;
  if (impl_->waitDescriptor >= 0) ::close(impl_->waitDescriptor);
  impl_->waitDescriptor = -1;
  impl_->running = false;
  return true;
}

bool Subprocess::pollExit() { return reap(WNOHANG); }

void Subprocess::waitExit() { reap(0); }

const char* Subprocess::statusName(Status status) {
  switch (status) {
    case StatusRunning:
      return "running";
    case StatusCrashed:
      return "crashed";
    case StatusSucceeded:
      return "succeeded";
    case StatusFailed:
      return "failed";
    case StatusKilled:
      return "killed";
    case StatusFailedToStart:
      return "failed to start";
  }
  return "unknown";
}

}  // namespace Base
}  // namespace Arbolite3
