// Scene library start and stop. InitializeMinimally brings up what needs no
// plug-ins; Initialize scans the plug-in directories. Both return 0 on success.
#pragma once

extern "C" {
int XoArbolite3InitializeMinimally(int flags);
int XoArbolite3Initialize(int flags);
void XoArbolite3Uninitialize();
// Registers a function that XoArbolite3Uninitialize calls (newest first),
// for libraries that hold state until the scene library goes away.
void XoArbolite3AddUninitializeHook(void (*hook)(void* arg), void* arg);
}
