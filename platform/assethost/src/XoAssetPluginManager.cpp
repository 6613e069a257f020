#include "XoAssetHost/XoAssetPluginManager.h"

#include <mutex>

namespace Arbolite3 {
namespace XoAssetHost {
namespace v1 {

namespace {

struct Names {
  std::mutex mutex;
  std::string asset;
  std::string fileSequence;
};

Names& names() {
  // Never destroyed: readers may run during static destruction.
  static Names* n = new Names();
  return *n;
}

void store(std::string Names::*field, const std::string& value) {
  Names& n = names();
  std::lock_guard<std::mutex> lock(n.mutex);
  n.*field = value;
}

std::string load(std::string Names::*field) {
  Names& n = names();
  std::lock_guard<std::mutex> lock(n.mutex);
  return n.*field;
}

}  // namespace

void XoAssetPluginManager::setDefaultAssetPluginName(const std::string& name) {
  store(&Names::asset, name);
}

void XoAssetPluginManager::setDefaultFileSequencePluginName(const std::string& name) {
  store(&Names::fileSequence, name);
}

std::string XoAssetPluginManager::getDefaultAssetPluginName() { return load(&Names::asset); }

std::string XoAssetPluginManager::getDefaultFileSequencePluginName() {
  return load(&Names::fileSequence);
}

}  // namespace v1
}  // namespace XoAssetHost
}  // namespace Arbolite3
