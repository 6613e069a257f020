// The helpers every test area shares: child processes (run to the end, or
// started and read while they run), the installed kindlet run as its parent
// would, scratch files and the log, a loopback listener, and the record file
// of the recording renderer.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <boost/optional.hpp>

#include "XoAttribute/Attribute.h"
#include "base/FileDescriptor.h"

namespace kindlettest {

// The install root the tests run from (<build>/root).
std::string testRoot();

// What a parent of kindlet puts into a clean environment: PATH, the
// interpreter keys and the default asset and file sequence plug-in names.
std::map<std::string, std::string> parentEnvironment();

struct RunResult {
  std::string out;    // standard output, whole
  std::string err;    // standard error, whole
  int exitStatus = -1;  // 0-255 when the process exited, else -1
  int signal = 0;       // the signal that ended it, else 0
  bool timedOut = false;  // killed by us after the time-out
  bool killedEarly = false;  // killed by us because killWhen said so
  int pid = -1;             // the child's process id (= its main thread's id)
};

// Asked about every 20 ms while the child runs; true kills it with SIGKILL.
using KillCondition = std::function<bool()>;

// Runs `program` with `arguments` (argv[0] is the program path) in
// parentEnvironment() changed by `extraEnvironment` (an empty value removes
// the key). Kills it with SIGKILL after `timeout`, or as soon as `killWhen`
// gives true.
RunResult run(const std::string& program, const std::vector<std::string>& arguments,
              const std::map<std::string, std::string>& extraEnvironment = {},
              std::chrono::milliseconds timeout = std::chrono::seconds(60),
              const KillCondition& killWhen = nullptr);
// The same with exactly `environment` and nothing else.
RunResult runWithEnvironment(const std::vector<std::string>& argv,
                             const std::map<std::string, std::string>& environment,
                             std::chrono::milliseconds timeout = std::chrono::seconds(60));
// The installed kindlet.
RunResult runKindlet(const std::vector<std::string>& arguments,
                     const std::map<std::string, std::string>& extraEnvironment = {},
                     std::chrono::milliseconds timeout = std::chrono::seconds(60),
                     const KillCondition& killWhen = nullptr);

// A child started and left running. Every child starts with no blocked
// signals and standard input on /dev/null.
struct Child {
  pid_t pid = -1;
  int out = -1;  // read end of the child's standard output, or -1
  int err = -1;  // read end of the child's standard error, or -1
};
// Environment changes for a child: a value sets the variable, none removes it.
using EnvironmentChanges = std::map<std::string, boost::optional<std::string>>;
// Starts argv[0] (a path) with this process's environment changed as given.
// With `capture`, standard output and error go to pipes that the caller reads.
Child spawn(const std::vector<std::string>& argv, const EnvironmentChanges& changes = {},
            bool capture = true);
// Everything up to end of file; closes the descriptor.
std::string readToEnd(int& fd);
// One line without its end, or boost::none at end of file. Reads byte by
// byte, so nothing of the next line is consumed.
boost::optional<std::string> readLine(int fd);
// Raw wait status of the child.
int waitFor(pid_t pid);

using Clock = std::chrono::steady_clock;
inline long millisecondsSince(Clock::time_point start) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

std::vector<std::string> splitLines(const std::string& text);
std::string readFile(const std::string& path);
std::vector<std::string> readLines(const std::string& path);

// A fresh directory under TMPDIR (or /tmp), removed with its content.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return directory; }
  // path()/name
  std::string file(const std::string& name) const;
  // Writes `content` to path()/name and returns the full path.
  std::string write(const std::string& name, const std::string& content) const;

 private:
  std::string directory;
};

// One directory for the whole test program, removed when it ends.
const TempDir& scratch();
// Sends this process's log to scratch()/log.txt, at `level` when one is
// given, and returns the path. The destination is fixed at the first
// message: call this before anything logs.
std::string logToScratch(const std::string& level = "");
// Lines of that log written since the previous call.
std::vector<std::string> newLogLines();

// A listening TCP socket on 127.0.0.1 with a free port.
class LocalListener {
 public:
  LocalListener();
  unsigned short port() const { return port_; }
  // Waits for the next connection; an empty descriptor after `limit`.
  Arbolite3::Base::FileDescriptor accept(std::chrono::milliseconds limit = std::chrono::seconds(10));
  // A port on which nobody listens (bound, never listened, then closed).
  static unsigned short unusedPort();

 private:
  Arbolite3::Base::FileDescriptor fd_;
  unsigned short port_ = 0;
};
// Sends everything; throws when the peer is gone.
void sendAll(int fd, const void* data, size_t size);
void sendAll(int fd, const std::string& bytes);
// Closes with a reset instead of an orderly shutdown.
void resetConnection(Arbolite3::Base::FileDescriptor& fd);
// An 8-byte little-endian length and the payload: one data channel frame.
std::string dataFrame(const std::string& payload);
// A 256-byte control record: the text, then NULs.
std::string controlRecord(const std::string& text);

// A group of string children, as kindlet builds the plug-in arguments.
Arbolite3::internal::XoAttribute::GroupAttribute stringGroup(
    const std::vector<std::pair<std::string, std::string>>& children);

// One line of the recording renderer's file: "<slot> <tid>[ <details>]".
struct RecordLine {
  std::string slot;
  long tid = 0;
  std::string details;
};
// The lines of a record file, in file order; empty when it does not exist.
std::vector<RecordLine> readRecordFile(const std::string& path);
// Only the slot names, in order.
std::vector<std::string> recordedSlots(const std::vector<RecordLine>& lines);

}  // namespace kindlettest
