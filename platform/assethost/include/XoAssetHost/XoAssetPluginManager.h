// The process-wide names of the default asset plug-in and file sequence
// plug-in. Thread-safe; both names are "" until set.
#pragma once

#include <string>

namespace Arbolite3 {
namespace XoAssetHost {
namespace v1 {

class XoAssetPluginManager {
 public:
  XoAssetPluginManager() = delete;

  static void setDefaultAssetPluginName(const std::string& name);
  static void setDefaultFileSequencePluginName(const std::string& name);
  static std::string getDefaultAssetPluginName();
  static std::string getDefaultFileSequencePluginName();
};

}  // namespace v1
}  // namespace XoAssetHost
}  // namespace Arbolite3
