// Runs the controlling-process step the way kindlet does and reports what it
// did on standard output:
//   pid=<pid> published=<variable or "-"> threads=<threads the step started>
// then waits until the watchdog (or a signal) ends it.
#include <dirent.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <thread>

#include "UTIL/src/SelvaneBootstrap.h"

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

int main() {
  // Sanitizer runtimes start helper threads with the first thread of the
  // process; get that done, then count only what the step adds.
  std::thread([] {}).join();
  const int threadsBefore = countThreads();
  bootstrapControllingProcess();

  const char* published = getenv("__SELVANE_CONTROLLING_PROCESS");
  printf("pid=%d published=%s threads=%d\n", static_cast<int>(getpid()),
         published != nullptr ? published : "-", countThreads() - threadsBefore);
  fflush(stdout);

  for (;;) pause();
}
