#include "XoConfiguration/Configuration.h"

#include <cstring>

extern char** environ;

namespace Arbolite3 {
namespace XoConfiguration {
namespace v1 {

Configuration::Configuration() { reseedFromEnvironment(); }

std::string Configuration::get(const std::string& key) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = values_.find(key);
  return it == values_.end() ? std::string() : it->second;
}

bool Configuration::has(const std::string& key) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return values_.count(key) != 0;
}

void Configuration::set(const std::string& key, const std::string& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  values_[key] = value;
}

void Configuration::erase(const std::string& key) {
  std::lock_guard<std::mutex> lock(mutex_);
  values_.erase(key);
}

void Configuration::reseedFromEnvironment() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const char* text = *entry;
    const char* equals = std::strchr(text, '=');
    if (equals == nullptr) continue;
    values_[std::string(text, equals)] = std::string(equals + 1);
  }
}

Configuration& Config() {
  // Never destroyed: threads that outlive main may still read it.
  static Configuration* store = new Configuration();
  return *store;
}

}  // namespace v1
}  // namespace XoConfiguration
}  // namespace Arbolite3
