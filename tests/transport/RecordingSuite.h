// A renderer plug-in suite that records its calls, for driving the real
// Rendering::Manager in-process. One recording per process: the slots are
// plain C functions.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "XoRendererPlugin/XoRendererPluginSuite.h"

namespace recording {

XoRendererPluginSuite* suite();
XoRendererPluginHandle handle();

// Clears the calls and the queue of pending updates.
void reset();
// Each call as "<slot>" or "<slot> <detail>": handleControlCommand gives the
// text, submitUpdate the update's XML.
std::vector<std::string> calls();
// Waits up to five seconds for `done` over the calls so far; `done` runs
// under the recording's lock and must not call back into this namespace.
bool waitFor(const std::function<bool(const std::vector<std::string>&)>& done,
             std::chrono::milliseconds limit = std::chrono::seconds(5));
// Calls whose slot name is `slot`.
std::vector<std::string> callsOf(const std::string& slot);

}  // namespace recording
