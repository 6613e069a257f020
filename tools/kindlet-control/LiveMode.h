// The live mode over the two TCP channels: listen, start kindlet (or wait for
// one started elsewhere), accept its connections, then send what a script says.
#pragma once

namespace KindletControl {

// argv[0] is the program; the options follow. Returns the exit status.
int runLiveMode(int argc, char** argv);

}  // namespace KindletControl
