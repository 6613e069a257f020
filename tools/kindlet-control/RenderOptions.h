// The options of `kindlet-control render`: one kindlet with this program as
// its parent, a batch render or a live render fed by a registry that another
// program serves (a pipeline script's, for instance).
#pragma once

#include <map>
#include <string>
#include <vector>

namespace KindletControl {

struct RenderOptions {
  // "--registry HOST:PORT": a live render that registers there.
  std::string registryHost;
  int registryPort = -1;
  // "--report-fd N": machine-readable lines for the program that started
  // this one (see ReportFd.h); -1: none.
  int reportFd = -1;
  std::vector<std::string> kindletOptions;  // after "--"

  // kindlet's options: the live-render ones first when a registry is named.
  std::vector<std::string> arguments() const;
  // What goes over the environment handed down.
  std::map<std::string, std::string> environment() const;
};

// What a live render fed by the registry at host:port gets before its own
// options, and over the environment handed down.
std::vector<std::string> registryArguments(const std::string& host, int port);
std::map<std::string, std::string> registryEnvironment();

// argv holds "render", the options above, "--" and kindlet's options. False
// with a line on standard error for anything else.
bool parseRenderOptions(int argc, char** argv, RenderOptions& options);

}  // namespace KindletControl
