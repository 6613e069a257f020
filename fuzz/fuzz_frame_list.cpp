// The frame list of an Op tree sequence, as a parent passes it on the
// command line. Every input must give a list without harm, and the list of a
// text is the lists of its comma-separated pieces one after the other.
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "KINDLET/src/OpTreeFiles.h"

namespace {

// A range is expanded in full ("0-2000000000" is two billion frames, by
// design), so numbers of more than four digits are left out of the search.
bool hasLongNumber(const std::string& text) {
  size_t run = 0;
  for (char c : text) {
    run = std::isdigit(static_cast<unsigned char>(c)) ? run + 1 : 0;
    if (run > 4) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (hasLongNumber(text)) return 0;
  const std::vector<int> frames = parseFrameList(text);
  for (int frame : frames) {
    if (frame < -9999 || frame > 9999) {
      std::fprintf(stderr, "fuzz_frame_list: frame %d from digits of at most four\n", frame);
      std::abort();
    }
  }
  const size_t comma = text.find(',');
  if (comma == std::string::npos) return 0;
  std::vector<int> joined = parseFrameList(text.substr(0, comma));
  const std::vector<int> rest = parseFrameList(text.substr(comma + 1));
  joined.insert(joined.end(), rest.begin(), rest.end());
  if (joined != frames) {
    std::fprintf(stderr, "fuzz_frame_list: the list is not the lists of its pieces\n");
    std::abort();
  }
  return 0;
}
