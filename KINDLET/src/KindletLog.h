// The "Kindlet" log channel, made once on first use.
#pragma once

#include <sstream>

#include "XoLoggingHost/XoLoggerGlue.h"

XoLoggingHost::XoLoggerGlue& kindletLog();
