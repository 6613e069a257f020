// The listening side of the two TCP channels of a live render.
#pragma once

#include "Launcher.h"
#include "base/FileDescriptor.h"

namespace KindletControl {

// Listens on 127.0.0.1:`port` (0: a free port, written back). Empty on
// failure, with the reason on standard error.
Arbolite3::Base::FileDescriptor listenOn(unsigned short& port);

// Accepts one connection on each listener, in whatever order they come,
// watching kindlet's end (when `child` started it) in the same wait. False
// when kindlet ended first or nothing came within `seconds`.
bool acceptBoth(Arbolite3::Base::FileDescriptor& controlListener,
                Arbolite3::Base::FileDescriptor& dataListener,
                Arbolite3::Base::FileDescriptor& control, Arbolite3::Base::FileDescriptor& data,
                Launcher& child, double seconds);

}  // namespace KindletControl
