// The analytics report of one process: named records, kept in order, written
// as one JSON file under a directory. The file name never collides with
// another process's, and the file appears whole or not at all.
#pragma once

#include <mutex>
#include <string>

#include <rapidjson/document.h>

namespace Arbolite3 {
namespace XoRenderServices {
namespace v1 {

class AnalyticsManager {
 public:
  // `directory` empty: the configuration key SELVANE_ANALYTICS_DIR.
  explicit AnalyticsManager(const std::string& directory);
  AnalyticsManager(const AnalyticsManager&) = delete;
  AnalyticsManager& operator=(const AnalyticsManager&) = delete;

  // The manager of the process, once analytics is active.
  static AnalyticsManager* g_instance;

  // Copies `value`. Ignored after close.
  void addRecord(const std::string& name, const rapidjson::Value& value);
  // Where the report goes (or went).
  const std::string& getPath() const;
  // Adds the record of the process's cost ("selvane.process.cost") and writes
  // the file: a temporary file beside it, renamed over it. Only the first
  // call writes. Failures go to standard error.
  void close();
  // Makes the written file durable (fsync of it and of its directory).
  void flush();

 private:
  std::mutex mutex_;
  std::string directory_;
  std::string path_;
  rapidjson::Document records_;
  bool closed_ = false;
};

}  // namespace v1
}  // namespace XoRenderServices
}  // namespace Arbolite3
