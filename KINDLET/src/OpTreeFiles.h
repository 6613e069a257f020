// An Op tree file name, or a numbered pattern with "*" and a frame list such
// as "1-3,7,-2", turned into the list of files to render.
#pragma once

#include <string>
#include <vector>

// Frames of a list text: comma-separated integers and "a-b" ranges, in order,
// duplicates kept; tokens that do not parse are dropped.
std::vector<int> parseFrameList(const std::string& frames);

// Frame 7 gives "000007", -3 gives "000003n", 1234567 gives "1234567".
std::string formatFrameNumber(int frame);

// A pattern without "*" comes back alone, unchecked. Otherwise each frame
// replaces every "*", and only names of regular files are kept. A file-system
// error other than a missing file is thrown.
std::vector<std::string> expandOpTreeFiles(const std::string& pattern, const std::string& frames);
