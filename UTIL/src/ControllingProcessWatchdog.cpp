// The watchdog that binds this process to the process that controls it, and
// the publication of this process for its own children.
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <exception>
#include <iostream>
#include <sstream>
#include <string>

#include <boost/system/error_code.hpp>
#include <boost/thread/thread.hpp>

#include "UTIL/src/SelvaneBootstrap.h"
#include "base/ExecutablePath.h"
#include "base/ProcessCreationTime.h"

namespace {

boost::once_flag controllingProcessFlag = BOOST_ONCE_INIT;

const char* const kControllingProcessVariable = "__SELVANE_CONTROLLING_PROCESS";

using Microseconds = boost::chrono::duration<long, boost::micro>;

// Writes a whole line at once: other threads log to the same stream, and a
// line put together piece by piece could be split by theirs.
void printLine(const std::ostringstream& line) { std::cerr << line.str() << std::flush; }

std::string executableNameForMessage() {
  try {
    return Arbolite3::Base::getExecutableName();
  } catch (const std::exception&) {
    // The executable may have been deleted or replaced; the exit must still
    // happen, so fall back to the name the process was started with.
    return program_invocation_short_name;
  }
}

void startWatchdog(int pid, long creationTime, const char* value) {
  // The new thread inherits this mask: it must never be picked to run a
  // signal handler.
  sigset_t all;
  sigset_t saved;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &saved);
  try {
    boost::thread watchdog(&watchControllingProcess, pid, Microseconds(creationTime),
                           kControllingProcessVariable, value);
    watchdog.detach();
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    throw;
  }
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
}

void publishThisProcess() {
  boost::system::error_code error;
  const int64_t creationTime = Arbolite3::Base::getProcessCreationTime(getpid(), &error);
  std::ostringstream text;
  text << getpid() << ';' << creationTime;
  if (error) {
    std::ostringstream message;
    message << "[BOOTSTRAP] WARNING: Failed to get process creation time: \""
            << error.message() << "\"\n";
    printLine(message);
    return;
  }
  setenv(kControllingProcessVariable, text.str().c_str(), 1);
}

void controllingProcessBody() {
  // The pointer stays valid after setenv below replaces the variable: the
  // C library keeps old environment strings alive.
  const char* value = getenv(kControllingProcessVariable);
  if (value != nullptr) {
    int pid = 0;
    long creationTime = 0;
    if (!parseControllingProcessValue(value, &pid, &creationTime)) {
      std::ostringstream message;
      message << "[BOOTSTRAP] ERROR: Failed to parse value of internal "
                 "__SELVANE_CONTROLLING_PROCESS environment variable: \""
              << value << "\"\n";
      printLine(message);
    } else {
      startWatchdog(pid, creationTime, value);
    }
  }
  publishThisProcess();
}

}  // namespace

bool parseControllingProcessValue(const char* value, int* pid, long* creationTime) {
  std::istringstream in(value);
  char separator = 0;
  in >> *pid >> separator >> *creationTime;
  return !(in.fail() || in.bad());
}

void bootstrapControllingProcess() {
  runBootstrapStep(controllingProcessFlag, &controllingProcessBody);
}

void watchControllingProcess(int pid, Microseconds creationTime, const char* name,
                             const char* value) {
  boost::system::error_code error;
  for (;;) {
    const int64_t current = Arbolite3::Base::getProcessCreationTime(pid, &error);
    if (error) break;
    // Same PID, another process: the one we watched is gone. Nothing else may
    // run on the way out.
    if (current != creationTime.count()) _exit(1);
    boost::this_thread::sleep_for(boost::chrono::milliseconds(500));
  }

  std::ostringstream failed;
  failed << "[BOOTSTRAP] ERROR: Failed to determine existence of parent process "
            "with the given PID "
         << pid << ": \"" << error.message() << "\"\n";
  printLine(failed);
  std::ostringstream source;
  source << "[BOOTSTRAP] INFO: The PID of the parent process is defined by the "
            "value of the internal "
         << name << " environment variable: \"" << value << "\"\n";
  printLine(source);

  if (error == boost::system::errc::no_such_process) {
    std::ostringstream terminating;
    terminating << "[BOOTSTRAP] WARNING: Parent process not found: PID " << pid
                << ". Terminating this `" << executableNameForMessage() << "` process (PID "
                << getpid() << ")...\n";
    printLine(terminating);
    _exit(1);
  }
  // Any other error: the process goes on without a watchdog.
}
