#include "BatchMode.h"

#include <iostream>
#include <string>
#include <vector>

#include "Launcher.h"

namespace KindletControl {

int runBatchMode(int argc, char** argv) {
  if (argc < 2 || std::string(argv[1]) != "--") {
    std::cerr << "usage: kindlet-control render -- kindlet options...\n";
    return 2;
  }
  const std::vector<std::string> options(argv + 2, argv + argc);
  Launcher child;
  if (!child.start(options)) return child.reportEnd();
  child.waitFor(0);
  return child.reportEnd();
}

}  // namespace KindletControl
