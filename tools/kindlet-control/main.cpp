// kindlet-control: the parent of kindlet. `kindlet-control render -- ...` runs
// one batch render; otherwise it plays the controlling application of a live
// render, on the service registry of the live-render client or, with
// --legacy-tcp, over the two TCP channels. See docs/controller.md.
#include <cstring>

#include "BatchMode.h"
#include "LiveMode.h"

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "render") == 0)
    return KindletControl::runBatchMode(argc - 1, argv + 1);
  return KindletControl::runLiveMode(argc, argv);
}
