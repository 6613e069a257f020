// A kindlet started by kindlet-control as its watched child.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace KindletControl {

// `path`, or the kindlet installed beside this program when it is empty.
std::string kindletExecutable(const std::string& path);

class Child {
 public:
  // Runs arguments[0] with `arguments` in this program's environment, without
  // the variables named in `unset`, plus `extra` ("NAME=value") and
  // __SELVANE_CONTROLLING_PROCESS naming this program, so that kindlet ends
  // itself when kindlet-control goes away. Prints "kindlet pid N".
  bool start(const std::vector<std::string>& arguments, const std::vector<std::string>& unset,
             const std::vector<std::string>& extra);

  pid_t pid() const { return pid_; }
  bool started() const { return pid_ > 0; }
  bool ended() { return poll(0); }
  // Waits up to `seconds` (0: no limit) for the end; false on time-out.
  bool waitFor(double seconds);
  void kill();
  // Prints the end once; the status this program then exits with.
  int report();

 private:
  // Reaps the child if it has ended, waiting up to `milliseconds` (-1: no
  // limit, 0: not at all).
  bool poll(int milliseconds);

  pid_t pid_ = -1;
  int status_ = 0;
  bool done_ = false;
  bool reported_ = false;
};

}  // namespace KindletControl
