// The command line: single-dash names with separate values.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "OptionMap.h"

// Walks argv (the program name included) and stores "-name value" pairs; the
// last of several values wins. Returns -1, storing nothing, when argc < 3.
int parseArguments(int argc, char** argv, OptionMap& options);

// Prints "Missing <name>" on standard output for each name that is absent or
// empty, in the order given, after checking all. Returns -1 if any was missing.
int requireOptions(const OptionMap& options, const std::vector<std::string>& names);

// Length of the value of `name`; 0 when absent (leaving `out` untouched) or
// empty. A present value is assigned to `out`.
int32_t getOption(const OptionMap& options, const std::string& name, std::string& out);
