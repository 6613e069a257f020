// The command line as an ordered map from option name to option text. It also
// travels to the renderer plug-in as a group of string attributes.
#pragma once

#include <map>
#include <string>

using OptionMap = std::map<std::string, std::string>;
