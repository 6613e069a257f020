// An Op tree file name, or a numbered pattern with "*" and a frame list such
// as "1-3,7,-2", turned into the list of files to render.
#pragma once

#include <string>
#include <vector>

#include "base/FrameList.h"

using Arbolite3::Base::formatFrameNumber;
using Arbolite3::Base::parseFrameList;

// A pattern without "*" comes back alone, unchecked. Otherwise each frame
// replaces every "*", and only names of regular files are kept. A file-system
// error other than a missing file is thrown.
std::vector<std::string> expandOpTreeFiles(const std::string& pattern, const std::string& frames);
