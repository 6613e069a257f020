// Brings up everything the render process needs before a renderer plug-in is
// loaded: the one-shot process steps (path locale, install root, watchdog on
// the controlling process), the scene library in its two stages, the
// configuration keys derived from the options, the default asset plug-ins and
// the embedded Python interpreter.
#pragma once

#include "OptionMap.h"

// Called once from the entry function while the start-up signals are blocked.
// Returns false on any failure; the error has been reported by then (standard
// error for the first scene library stage, the log otherwise). Once the first
// stage succeeded, the scene library's uninitialise call sits in the
// ShutdownRegistry, also after a false result. On success the interpreter is
// running and its global lock is free: every later user has to take it.
bool bootstrapSceneEngine(OptionMap& options);
