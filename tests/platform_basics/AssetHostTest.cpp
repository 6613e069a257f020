#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "XoAssetHost/XoAssetPluginManager.h"

using Arbolite3::XoAssetHost::v1::XoAssetPluginManager;

namespace {

TEST(AssetHost, KeepsBothNamesApart) {
  XoAssetPluginManager::setDefaultAssetPluginName("FileAsset");
  XoAssetPluginManager::setDefaultFileSequencePluginName("FileSequence");
  EXPECT_EQ(XoAssetPluginManager::getDefaultAssetPluginName(), "FileAsset");
  EXPECT_EQ(XoAssetPluginManager::getDefaultFileSequencePluginName(), "FileSequence");
  // The bootstrap passes "" when the name came from the configuration alone.
  XoAssetPluginManager::setDefaultAssetPluginName("");
  EXPECT_EQ(XoAssetPluginManager::getDefaultAssetPluginName(), "");
  EXPECT_EQ(XoAssetPluginManager::getDefaultFileSequencePluginName(), "FileSequence");
}

TEST(AssetHost, ConcurrentSettersAndGetters) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      const std::string name = "Plugin" + std::to_string(t);
      for (int i = 0; i < 500; ++i) {
        XoAssetPluginManager::setDefaultAssetPluginName(name);
        XoAssetPluginManager::setDefaultFileSequencePluginName(name);
        EXPECT_EQ(XoAssetPluginManager::getDefaultAssetPluginName().rfind("Plugin", 0), 0u);
        EXPECT_EQ(XoAssetPluginManager::getDefaultFileSequencePluginName().size(), 7u);
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

}  // namespace
