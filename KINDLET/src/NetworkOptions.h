// The options of a live render's transports: host and the three ports.
#pragma once

#include <cstdint>
#include <string>

#include "OptionMap.h"

struct NetworkOptions {
  std::string host;
  uint16_t portControl = 0;
  uint16_t portData = 0;
  uint16_t serviceRegistryPort = 0;
};

// Reads nothing unless `host` is given. The host is cut at its first ":",
// which must be there (std::length_error otherwise). Ports are strtoul base 0,
// low 16 bits. A given serviceRegistryPort is also copied, as text, to the
// configuration key SELVANE_SERVICE_REGISTRY_PORT.
NetworkOptions readNetworkOptions(const OptionMap& options);
