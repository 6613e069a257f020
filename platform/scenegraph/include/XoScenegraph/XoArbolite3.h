// Scene library start and stop. InitializeMinimally brings up what needs no
// plug-ins; Initialize scans the plug-in directories (<SELVANE_ROOT>/plugins/Libs
// and each entry of the colon-separated SELVANE_RENDERER_PLUGIN_PATH) and fails,
// with an error on the "Arbolite3" channel, when one cannot be read, or when
// called before InitializeMinimally. Both return 0 on success and may be called
// again. Uninitialize runs the hooks registered so far, newest first, and
// forgets them; a second call runs nothing.
#pragma once

extern "C" {
int XoArbolite3InitializeMinimally(int flags);
int XoArbolite3Initialize(int flags);
void XoArbolite3Uninitialize();
// Registers a function that XoArbolite3Uninitialize calls (newest first),
// for libraries that hold state until the scene library goes away.
void XoArbolite3AddUninitializeHook(void (*hook)(void* arg), void* arg);
}
