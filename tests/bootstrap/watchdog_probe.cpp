// Runs the controlling-process step the way kindlet does and reports what it
// did on standard output:
//   pid=<pid> published=<variable or "-"> threads=<threads the step started>
// then waits until the watchdog (or a signal) ends it. With an argument N > 1
// it first starts a copy of itself with N - 1, which makes a chain of
// processes that each watch the one above.
#include <dirent.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "UTIL/src/SelvaneBootstrap.h"

extern char** environ;

namespace {

int countThreads() {
  int count = 0;
  if (DIR* dir = opendir("/proc/self/task")) {
    while (dirent* entry = readdir(dir)) {
      if (entry->d_name[0] != '.') ++count;
    }
    closedir(dir);
  }
  return count;
}

}  // namespace

// Under the thread sanitizer an exit would otherwise wait a second for other
// threads, which hides the timing of the watchdog.
extern "C" const char* __tsan_default_options() { return "atexit_sleep_ms=0"; }

int main(int argc, char** argv) {
  const int depth = argc > 1 ? atoi(argv[1]) : 1;

  // Sanitizer runtimes start helper threads with the first thread of the
  // process; get that done, then count only what the step adds.
  std::thread([] {}).join();
  const int threadsBefore = countThreads();
  bootstrapControllingProcess();

  const char* published = getenv("__SELVANE_CONTROLLING_PROCESS");
  printf("pid=%d published=%s threads=%d\n", static_cast<int>(getpid()),
         published != nullptr ? published : "-", countThreads() - threadsBefore);
  fflush(stdout);

  if (depth > 1) {
    const std::string next = std::to_string(depth - 1);
    char* childArgs[] = {argv[0], const_cast<char*>(next.c_str()), nullptr};
    pid_t child;
    if (posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, childArgs, environ) != 0) {
      perror("posix_spawn");
      return 2;
    }
  }

  for (;;) pause();
}
