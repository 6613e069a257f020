#include "BatchMode.h"

#include <unistd.h>

#include <string>

#include "Launcher.h"
#include "RenderOptions.h"
#include "ReportFd.h"
#include "base/WaitForReadable.h"

namespace KindletControl {

namespace {

// Waits for kindlet's end; false when the reader of the report went away
// first.
bool waitForEnd(Launcher& child, const ReportFd& report) {
  while (!child.ended()) {
    if (report.readerGone()) return false;
    const int fds[2] = {child.waitFd(), report.fd()};
    // Short slices: a grandchild that inherited the watch pipe would keep it
    // open after kindlet's own end. After the hang-up the descriptor stays
    // ready: pause until the end can be reaped instead of spinning.
    if (Arbolite3::Base::waitForReadable(fds, report.fd() < 0 ? 1 : 2, 200, nullptr) == fds[0])
      ::usleep(1000);
  }
  return true;
}

}  // namespace

int runBatchMode(int argc, char** argv) {
  RenderOptions options;
  if (!parseRenderOptions(argc, argv, options)) return 2;
  ReportFd report(options.reportFd);
  Launcher child;
  if (child.start(options.arguments(), options.environment())) {
    report.line("kindlet pid " + std::to_string(child.pid()));
    // The program kindlet must not outlive has gone: so does this one, and
    // kindlet's watchdog ends kindlet.
    if (!waitForEnd(child, report)) return 1;
  }
  const int status = child.reportEnd();
  const std::string analytics = child.analyticsWords();
  if (!analytics.empty()) report.line("analytics report " + analytics);
  report.line("kindlet " + child.endWords());
  return status;
}

}  // namespace KindletControl
