// Helpers for tests that run the installed kindlet as its parent would, and
// read what the recording renderer wrote.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace kindlettest {

// The install root the tests run from (<build>/root).
std::string testRoot();
// <root>/bin/kindlet
std::string kindletPath();

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
// The installed kindlet.
RunResult runKindlet(const std::vector<std::string>& arguments,
                     const std::map<std::string, std::string>& extraEnvironment = {},
                     std::chrono::milliseconds timeout = std::chrono::seconds(60),
                     const KillCondition& killWhen = nullptr);

std::vector<std::string> splitLines(const std::string& text);

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
