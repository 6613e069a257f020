#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "XoAttribute/Attribute.h"
#include "XoConfiguration/Configuration.h"
#include "XoRendererPlugin/XoRendererPluginManager.h"

using namespace Arbolite3::internal::XoAttribute;
using Rendering::XoRendererPluginManager;
using testing::IsSupersetOf;

namespace {

class SdkPlugin : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    auto& config = Arbolite3::XoConfiguration::v1::Config();
    config.set("SELVANE_ROOT", KINDLET_TEST_ROOT);
    config.set("SELVANE_RENDERER_PLUGIN_PATH", SDK_PLUGIN_DIR);
  }
  void TearDown() override { XoRendererPluginManager::destroyInstances(); }
};

GroupAttribute valueUpdate(int value) {
  return GroupBuilder().set("value", IntAttribute(value)).build();
}

TEST_F(SdkPlugin, OutsideBuiltPluginWorksBesideTheInstalledOnes) {
  EXPECT_THAT(XoRendererPluginManager::getRegisteredNames(),
              IsSupersetOf({"recording", "null", "sdkexample"}));
  auto info =
      Rendering::XoRendererInfoPluginManager::getRendererInfoPluginByRegisteredName("sdkexample");
  ASSERT_TRUE(info.isValid());
  EXPECT_STREQ(info.suite->getRendererName(), "SDK Example");

  GroupAttribute args = GroupBuilder()
                            .set("renderer", StringAttribute("sdkexample"))
                            .set("tempDir", StringAttribute("/tmp"))
                            .build();
  auto plugin = XoRendererPluginManager::getRendererPlugin("sdkexample", nullptr, args.getHandle());
  XoRendererPluginSuite& s = *plugin.suite;
  EXPECT_EQ(s.setup(plugin.handle), 2);
  EXPECT_EQ(s.hasQueuedUpdates(plugin.handle) & 0xff, 0);
  std::thread a([&] { s.submitUpdate(plugin.handle, valueUpdate(2).getHandle()); });
  std::thread b([&] { s.submitUpdate(plugin.handle, valueUpdate(5).getHandle()); });
  a.join();
  b.join();
  EXPECT_EQ(s.hasQueuedUpdates(plugin.handle) & 0xff, 1);
  EXPECT_EQ(s.applyQueuedUpdates(plugin.handle), 7);
  EXPECT_EQ(s.hasQueuedUpdates(plugin.handle) & 0xff, 0);
  EXPECT_EQ(s.start(plugin.handle), 0);
  EXPECT_EQ(s.stop(plugin.handle), 0);
  EXPECT_EQ(s.teardown(plugin.handle), 0);
}

}  // namespace
