#include "NetworkOptions.h"

#include <cstdlib>

#include "Arguments.h"
#include "XoConfiguration/Configuration.h"

namespace {

uint16_t parsePort(const std::string& text) {
  return static_cast<uint16_t>(std::strtoul(text.c_str(), nullptr, 0));
}

}  // namespace

NetworkOptions readNetworkOptions(const OptionMap& options) {
  NetworkOptions network;
  if (!getOption(options, "host", network.host)) return network;
  // Without a ":" this resizes to npos and throws: the value must be
  // "name:rest", and nothing handles a malformed one.
  network.host.resize(network.host.find(':'));

  std::string text;
  if (getOption(options, "portControl", text)) network.portControl = parsePort(text);
  if (getOption(options, "portData", text)) network.portData = parsePort(text);
  if (getOption(options, "serviceRegistryPort", text)) {
    network.serviceRegistryPort = parsePort(text);
    Arbolite3::XoConfiguration::v1::Config().set("SELVANE_SERVICE_REGISTRY_PORT", text);
  }
  return network;
}
