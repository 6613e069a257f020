// Starts the kindlet of the install root this program belongs to, the way
// its parent should: the interpreter keys worked out against that root, this
// process published as the one kindlet must not outlive, the keys handed down
// in the child's environment. Then watches the child through its wait
// descriptor and says how it ended.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "base/Subprocess.h"

namespace KindletControl {

// Exit status of kindlet-control when kindlet could not be started.
const int kExitFailedToStart = 125;

class Launcher {
 public:
  // `kindlet` empty: <root>/bin/kindlet.
  explicit Launcher(std::string kindlet = std::string());

  // Starts kindlet with `options` (without the program), preceded by
  // -selvaneRoot <root> unless they name a root. `extraEnvironment`
  // goes over what this process hands down. False when it did not start,
  // with the reason on standard error.
  bool start(const std::vector<std::string>& options,
             const std::map<std::string, std::string>& extraEnvironment = {});

  bool started() const { return started_; }
  // Readable or hung up once kindlet has ended; -1 when not running.
  int waitFd() const;
  // Reaps kindlet if it has ended.
  bool ended();
  // Waits up to `seconds` (0: no limit) for the end; false on time-out.
  bool waitFor(double seconds);
  // SIGKILL and reap, if still running.
  void kill();
  int pid() const { return pid_; }
  // Once ended: the signal that ended kindlet, or 0.
  int terminationSignal() const { return started_ ? child_.terminationSignal() : 0; }

  // One line on standard error when kindlet wrote an analytics report (its
  // path and cost record), and one when kindlet did not exit 0, in the words of
  // the status table ("killed", "crashed", ...). The status this program
  // should exit with: kindlet's own, 128 + N for signal N, or
  // kExitFailedToStart.
  int reportEnd();
  // How kindlet ended in the words of that line, without "kindlet ": e.g.
  // "succeeded: exit status 0", "killed: signal 15 (Terminated)", "failed to
  // start: <why>". Empty while running.
  std::string endWords() const;
  // "<report path> <cost record>" once kindlet wrote its analytics report,
  // else empty.
  std::string analyticsWords() const;

  // The install root this program belongs to (<root>/bin/kindlet-control).
  static std::string installRoot();

 private:
  std::map<std::string, std::string> childEnvironment();

  std::string kindlet_;
  Arbolite3::Base::Subprocess child_;
  bool started_ = false;
  bool failedToStart_ = false;
  std::string whyNotStarted_;
  int pid_ = -1;
  long long created_ = -1;  // kindlet's creation time, as its report's name has it
};

// kindlet's end on standard output (once): "kindlet exited with status N" or
// "kindlet killed by signal N"; then the status to exit with.
class EndReport {
 public:
  explicit EndReport(Launcher& child) : child_(child) {}
  int operator()();

 private:
  Launcher& child_;
  bool printed_ = false;
  int status_ = 0;
};

}  // namespace KindletControl
