// The batch mode: one kindlet run from the root this program belongs to, for
// people and for drivers that run a render per chunk of frames.
#pragma once

namespace KindletControl {

// argv holds "render", "--" and kindlet's options. Exits with kindlet's
// status, 128 + N when signal N ended it, kExitFailedToStart when it could
// not be started, 2 for a usage error.
int runBatchMode(int argc, char** argv);

}  // namespace KindletControl
