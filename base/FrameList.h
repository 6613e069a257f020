// Frame lists such as "1-3,7,-2" and the six-digit numbering of frames in
// file names. kindlet and the farm driver share this, so a frame list means
// the same to both.
#pragma once

#include <string>
#include <vector>

namespace Arbolite3 {
namespace Base {

// Frames of a list text: comma-separated integers and "a-b" ranges, in order,
// duplicates kept; tokens that do not parse are dropped.
std::vector<int> parseFrameList(const std::string& frames);

// Frame 7 gives "000007", -3 gives "000003n", 1234567 gives "1234567".
std::string formatFrameNumber(int frame);

// The inverse of parseFrameList: runs of three or more ascending
// non-negative frames become "a-b" (a negative range can't be written).
std::string formatFrameList(const std::vector<int>& frames);

// Every "*" of the pattern replaced by the frame's number.
std::string substituteFrame(const std::string& pattern, int frame);

}  // namespace Base
}  // namespace Arbolite3
