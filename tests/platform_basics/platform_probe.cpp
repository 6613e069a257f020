// Test helper. Arguments:
//   get:KEY       prints "KEY=<value> has=<0|1>" from the configuration store
//   enabled       prints the four level queries of channel "Probe"
//   log           writes one message per level on channel "Probe"
#include <cstdio>
#include <cstring>
#include <string>

#include "XoConfiguration/Configuration.h"
#include "XoLoggingHost/XoLoggerGlue.h"

int main(int argc, char** argv) {
  auto& config = Arbolite3::XoConfiguration::v1::Config();
  const XoLoggingHost::XoLoggerGlue log("Probe");
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.rfind("get:", 0) == 0) {
      const std::string key = arg.substr(4);
      std::printf("%s=%s has=%d\n", key.c_str(), config.get(key).c_str(), config.has(key) ? 1 : 0);
    } else if (arg == "enabled") {
      std::printf("error=%d warn=%d info=%d debug=%d\n", log.errorEnabled(), log.warnEnabled(),
                  log.infoEnabled(), log.debugEnabled());
    } else if (arg == "log") {
      log.error("first", __FILE__, __LINE__);
      log.warn("second", __FILE__, __LINE__);
      log.info("third with [brackets] and  spaces", __FILE__, __LINE__);
      log.debug("fourth", __FILE__, __LINE__);
    } else {
      std::fprintf(stderr, "unknown argument %s\n", argv[i]);
      return 2;
    }
  }
  return 0;
}
