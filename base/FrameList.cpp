#include "base/FrameList.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

namespace Arbolite3 {
namespace Base {

namespace {

bool parseInt(const std::string& text, int& value) {
  try {
    value = std::stoi(text);
    return true;
  } catch (const std::invalid_argument&) {
  } catch (const std::out_of_range&) {
  }
  return false;
}

std::vector<std::string> splitKeepingEmpty(const std::string& text, const char* separators) {
  std::vector<std::string> parts;
  boost::algorithm::split(parts, text, boost::is_any_of(separators),
                          boost::algorithm::token_compress_off);
  return parts;
}

}  // namespace

std::vector<int> parseFrameList(const std::string& frames) {
  std::vector<int> result;
  for (const std::string& token : splitKeepingEmpty(frames, ",")) {
    std::vector<std::string> bounds = splitKeepingEmpty(token, "-");
    int first = 0;
    int last = 0;
    if (bounds.size() == 2 && parseInt(bounds[0], first) && parseInt(bounds[1], last)) {
      for (long frame = first; frame <= last; ++frame) result.push_back(static_cast<int>(frame));
      continue;
    }
    // Not a range: "-5" and "5-" land here and parse as single numbers.
    int single = 0;
    if (parseInt(token, single)) result.push_back(single);
  }
  return result;
}

std::string formatFrameNumber(int frame) {
  char digits[24];
  snprintf(digits, sizeof digits, "%lld", std::llabs(static_cast<long long>(frame)));
  std::string text(digits);
  if (text.size() < 6) text.insert(0, 6 - text.size(), '0');
  if (frame < 0) text += 'n';
  return text;
}

std::string formatFrameList(const std::vector<int>& frames) {
  std::string text;
  for (size_t i = 0; i < frames.size();) {
    size_t end = i + 1;
    while (frames[i] >= 0 && end < frames.size() &&
           static_cast<long>(frames[end]) == static_cast<long>(frames[end - 1]) + 1) {
      ++end;
    }
    if (!text.empty()) text += ',';
    if (end - i >= 3) {
      text += std::to_string(frames[i]) + '-' + std::to_string(frames[end - 1]);
      i = end;
    } else {
      text += std::to_string(frames[i]);
      ++i;
    }
  }
  return text;
}

std::string substituteFrame(const std::string& pattern, int frame) {
  const std::string number = formatFrameNumber(frame);
  std::string name;
  for (char c : pattern) {
    if (c == '*') {
      name += number;
    } else {
      name += c;
    }
  }
  return name;
}

}  // namespace Base
}  // namespace Arbolite3
