#include "Arguments.h"

#include <cstdio>

int parseArguments(int argc, char** argv, OptionMap& options) {
  if (argc < 3) return -1;
  int index = 0;
  while (index < argc) {
    const char* token = argv[index];
    if (token[0] != '-') {
      ++index;
      continue;
    }
    // A name with nothing after it is dropped.
    if (index + 1 >= argc) break;
    options[std::string(token + 1)] = argv[index + 1];
    index += 2;
  }
  return 0;
}

int requireOptions(const OptionMap& options, const std::vector<std::string>& names) {
  std::vector<std::string> missing;
  for (const std::string& name : names) {
    auto it = options.find(name);
    if (it == options.end() || it->second.empty()) missing.push_back(name);
  }
  for (const std::string& name : missing) printf("Missing %s\n", name.c_str());
  return missing.empty() ? 0 : -1;
}

int32_t getOption(const OptionMap& options, const std::string& name, std::string& out) {
  auto it = options.find(name);
  if (it == options.end()) return 0;
  out = it->second;
  return static_cast<int32_t>(out.size());
}
