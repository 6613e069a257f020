#include "RenderOptions.h"

#include <fcntl.h>

#include <cstdlib>
#include <iostream>

namespace KindletControl {

namespace {

bool parsePositive(const std::string& text, long limit, long& value) {
  char* rest = nullptr;
  value = std::strtol(text.c_str(), &rest, 10);
  return !text.empty() && *rest == '\0' && value >= 0 && value <= limit;
}

}  // namespace

std::vector<std::string> registryArguments(const std::string& host, int port) {
  return {"-host", host + ":0", "-serviceRegistryPort", std::to_string(port),
          "-renderMethodType", "liveRender"};
}

std::map<std::string, std::string> registryEnvironment() {
  // The registry, not the legacy TCP channels, whatever this process inherited.
  return {{"SELVANE_DISABLE_PREVANE_PLUS", "0"}};
}

std::vector<std::string> RenderOptions::arguments() const {
  std::vector<std::string> arguments;
  if (registryPort >= 0) arguments = registryArguments(registryHost, registryPort);
  arguments.insert(arguments.end(), kindletOptions.begin(), kindletOptions.end());
  return arguments;
}

std::map<std::string, std::string> RenderOptions::environment() const {
  if (registryPort >= 0) return registryEnvironment();
  return {};
}

bool parseRenderOptions(int argc, char** argv, RenderOptions& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    if (option == "--") {
      options.kindletOptions.assign(argv + i + 1, argv + argc);
      return true;
    }
    const std::string value = i + 1 < argc ? argv[++i] : "";
    long number = 0;
    const size_t colon = value.rfind(':');
    if (option == "--registry" && colon != std::string::npos && colon > 0 &&
        parsePositive(value.substr(colon + 1), 65535, number) && number > 0) {
      options.registryHost = value.substr(0, colon);
      options.registryPort = static_cast<int>(number);
    } else if (option == "--report-fd" && parsePositive(value, 1 << 20, number) && number > 2 &&
               ::fcntl(static_cast<int>(number), F_GETFD) >= 0) {
      options.reportFd = static_cast<int>(number);
    } else {
      std::cerr << "kindlet-control: render: bad option " << option << " " << value << "\n";
      break;
    }
  }
  std::cerr << "usage: kindlet-control render [--registry HOST:PORT] [--report-fd N] -- "
               "kindlet options...\n";
  return false;
}

}  // namespace KindletControl
