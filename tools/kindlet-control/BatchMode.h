// The batch mode: one kindlet run from the root this program belongs to, for
// people and for drivers that run a render per chunk of frames, and (with
// --registry) one live render for a program that serves the registry itself.
#pragma once

namespace KindletControl {

// argv holds "render", the options of RenderOptions.h, "--" and kindlet's
// options. Exits with kindlet's status, 128 + N when signal N ended it,
// kExitFailedToStart when it could not be started, 2 for a usage error, 1
// when the reader of --report-fd went away before kindlet ended.
int runBatchMode(int argc, char** argv);

}  // namespace KindletControl
