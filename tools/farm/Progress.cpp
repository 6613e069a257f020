#include "Progress.h"

#include <unistd.h>

#include <cstdio>

namespace Farm {

Progress::Progress(int total) : total_(total), terminal_(isatty(STDERR_FILENO) == 1) {}

void Progress::update(int rendered, int running, int waiting) {
  char text[160];
  snprintf(text, sizeof text, "%d of %d frames rendered (%d chunks running, %d waiting)", rendered,
           total_, running, waiting);
  if (last_ == text) return;
  last_ = text;
  if (terminal_) {
    fprintf(stderr, "\r\033[K%s", text);
  } else {
    fprintf(stderr, "%s\n", text);
  }
  fflush(stderr);
}

void Progress::finish() {
  if (terminal_ && !last_.empty()) fputc('\n', stderr);
  last_.clear();
}

}  // namespace Farm
