#include "StrictFrameList.h"

#include <cctype>
#include <climits>

namespace Farm {

namespace {

// An optional "-" and digits, the whole of `text`, within int.
bool readInt(const std::string& text, long long& value) {
  size_t at = text.size() > 1 && text[0] == '-' ? 1 : 0;
  if (at == text.size() || text.size() - at > 10) return false;
  value = 0;
  for (; at < text.size(); ++at) {
    if (!std::isdigit(static_cast<unsigned char>(text[at]))) return false;
    value = value * 10 + (text[at] - '0');
  }
  if (text[0] == '-') value = -value;
  return value >= INT_MIN && value <= INT_MAX;
}

}  // namespace

bool parseStrictFrameList(const std::string& text, std::vector<int>& frames, std::string& error) {
  struct Range {
    long long first, last;
  };
  std::vector<Range> ranges;
  long long count = 0;
  size_t start = 0;
  for (;;) {
    const size_t comma = text.find(',', start);
    const std::string token = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    Range range{0, 0};
    // A dash after the first character separates a range: "-2" is a frame.
    const size_t dash = token.find('-', 1);
    const bool read = dash == std::string::npos
                          ? readInt(token, range.first) && (range.last = range.first, true)
                          : readInt(token.substr(0, dash), range.first) &&
                                readInt(token.substr(dash + 1), range.last) && range.first >= 0 &&
                                range.last >= range.first;
    if (!read) {
      error = "the frame list \"" + text + "\" has a token that is no frame or ascending range: \"" +
              token + "\"";
      return false;
    }
    count += range.last - range.first + 1;
    if (count > kMostFrames) {
      error = "the frame list \"" + text + "\" names more than " + std::to_string(kMostFrames) +
              " frames (at \"" + token + "\")";
      return false;
    }
    ranges.push_back(range);
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  frames.clear();
  frames.reserve(static_cast<size_t>(count));
  for (const Range& range : ranges)
    for (long long frame = range.first; frame <= range.last; ++frame) frames.push_back(static_cast<int>(frame));
  return true;
}

}  // namespace Farm
