// The farm's own reading of a frame list: the same language as kindlet's
// ("1-3,7,-2"), but nothing it cannot read is passed over, and a list too long
// to be meant is refused before anything is allocated for it.
#pragma once

#include <string>
#include <vector>

namespace Farm {

// Most frames one list may name.
constexpr long long kMostFrames = 1000000;

// Tokens are separated by ","; each is a frame ("7", "-2") or an ascending
// range "a-b" of frames that are not negative. Returns false with a reason
// that names the offending token in `error`.
bool parseStrictFrameList(const std::string& text, std::vector<int>& frames, std::string& error);

}  // namespace Farm
