// The value of __SELVANE_CONTROLLING_PROCESS, which any parent may set. The
// input, up to its first NUL as the environment would hold it, must parse or
// be refused without harm; a value that parses names numbers that this
// process, publishing them as "<pid>;<time>", hands on unchanged.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "UTIL/src/SelvaneBootstrap.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string value(reinterpret_cast<const char*>(data), size);
  int pid = 0;
  long creationTime = 0;
  if (!parseControllingProcessValue(value.c_str(), &pid, &creationTime)) return 0;

  const std::string published = std::to_string(pid) + ";" + std::to_string(creationTime);
  int pidAgain = 0;
  long timeAgain = 0;
  if (!parseControllingProcessValue(published.c_str(), &pidAgain, &timeAgain) ||
      pidAgain != pid || timeAgain != creationTime) {
    std::fprintf(stderr, "fuzz_controlling_process: \"%s\" does not read back\n",
                 published.c_str());
    std::abort();
  }
  return 0;
}
