// Starting and observing real child processes in the bootstrap tests.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include <boost/optional.hpp>

namespace bootstraptest {

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
// The same with exactly the given environment.
Child spawnWithEnvironment(const std::vector<std::string>& argv,
                           const std::map<std::string, std::string>& environment,
                           bool capture = true);

// Everything up to end of file; closes the descriptor.
std::string readToEnd(int& fd);
// One line without its end, or boost::none at end of file.
boost::optional<std::string> readLine(int fd);

// Raw wait status of the child.
int waitFor(pid_t pid);

std::vector<std::string> splitLines(const std::string& text);

using Clock = std::chrono::steady_clock;
inline long millisecondsSince(Clock::time_point start) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

}  // namespace bootstraptest
