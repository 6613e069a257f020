// Process-wide configuration store: text keys to text values, seeded from the
// process environment at first use. Thread-safe. `set` never touches the
// process environment.
#pragma once

#include <map>
#include <mutex>
#include <string>

namespace Arbolite3 {
namespace XoConfiguration {
namespace v1 {

class Configuration {
 public:
  Configuration();
  Configuration(const Configuration&) = delete;
  Configuration& operator=(const Configuration&) = delete;

  // Empty text for an unknown key.
  std::string get(const std::string& key) const;
  bool has(const std::string& key) const;
  void set(const std::string& key, const std::string& value);
  // Removes a key; for tests and tools, kindlet itself never erases.
  void erase(const std::string& key);

  // Re-reads the process environment over the current table. For tests that
  // change the environment after the store was first used.
  void reseedFromEnvironment();

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::string> values_;
};

// The one store of the process, created and seeded on first use.
Configuration& Config();

}  // namespace v1
}  // namespace XoConfiguration
}  // namespace Arbolite3
