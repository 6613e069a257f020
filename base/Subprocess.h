// Starting another program so that the parent learns for sure whether it
// started, and can wait for its end together with other descriptors.
//
// The child reports a failure before exec over a close-on-exec error pipe:
// end of file means exec succeeded. A watch pipe whose write end only the
// child (and whatever inherits from it) holds gives `waitFd`, which hangs up
// when the last holder ends; the child is then reaped with `pollExit`.
#pragma once

#include <signal.h>

#include <map>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

namespace Arbolite3 {
namespace Base {

class Subprocess {
 public:
  struct Options {
    Options();
    // The first entry is also the program, looked up on PATH.
    std::vector<std::string> arguments;
    // Carried with the options; nothing here consults it.
    bool inheritParentConsole = false;
    // The child stops itself with SIGSTOP just before exec.
    bool stopAtStart = false;
    // The child leads a new process group.
    bool newProcessGroup = false;
    // The mask the child starts with (empty by default).
    sigset_t signalMask;
    // Close every descriptor from 3 upward except those in keepFds.
    bool closeOtherFds = false;
    std::vector<int> keepFds;
    // Empty: a copy of the current environment.
    std::map<std::string, std::string> environment;
    // Empty: stay in the current directory.
    std::string workingDirectory;
    // Put on 0, 1 and 2 in the child; -1 inherits.
    int stdinFd = -1;
    int stdoutFd = -1;
    int stderrFd = -1;
  };

  enum Status {
    StatusRunning = 0,
    StatusCrashed = 1,
    StatusSucceeded = 2,
    StatusFailed = 3,
    StatusKilled = 4,
    StatusFailedToStart = 5,
  };

  enum SignalTarget {
    TargetDefault = 0,
    TargetProcess = 1,
    TargetProcessGroup = 2,
  };

  // Also returns a handle when the program failed to start (status
  // StatusFailedToStart); only a failure before fork throws
  // boost::system::system_error.
  static Subprocess start(const Options& options);
  // Hands the program over to the system as a daemon (double fork, new
  // session, / as directory, /dev/null on 0-2). Nothing can be learned of it.
  static void startDetached(const std::vector<std::string>& arguments);

  // An empty handle: no operation is allowed on it.
  Subprocess() = default;

  const Options& launchOptions() const;
  // The PID while running, else -1.
  int pid() const;
  // Readable or hung up once the child (and all that inherited its
  // descriptors) ended; -1 when reaped or never started. The hang-up comes as
  // the child closes its files on the way out, a moment before pollExit can
  // reap it.
  int waitFd() const;
  Status status() const;
  // The waitpid status once reaped, else -1.
  int rawStatus() const;
  // -1 until reaped or when a signal ended it; else the 8-bit exit code.
  int exitCode() const;
  // -1 until reaped; 0 when it exited by itself; else the signal.
  int terminationSignal() const;
  // Does nothing unless running (a reaped child's PID may be someone else's
  // by now). Throws boost::system::system_error for failures but ESRCH.
  void sendSignal(int signal, SignalTarget target = TargetDefault);
  // True if this call reaped the child.
  bool pollExit();
  // Blocks until the child ended and reaps it; returns at once if not running.
  void waitExit();

  // The words for a status, for people: "running", "crashed", ...
  static const char* statusName(Status status);

 private:
  struct SubprocessImpl;
  explicit Subprocess(boost::shared_ptr<SubprocessImpl> impl) : impl_(std::move(impl)) {}
  bool reap(int options);

  boost::shared_ptr<SubprocessImpl> impl_;
};

}  // namespace Base
}  // namespace Arbolite3
