#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "KindletTestSupport.h"
#include "XoConfiguration/Configuration.h"
#include "XoRendererPlugin/XoRendererPluginManager.h"
#include "XoScenegraph/XoArbolite3.h"

using Rendering::RendererPluginError;
using Rendering::XoRendererInfoPluginManager;
using Rendering::XoRendererPluginManager;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

// Discovery reads these once, and its first message fixes the log's
// destination: set before any test runs. Info level, whatever the caller's:
// the error lines are read back.
const std::string logPath = [] {
  auto& config = Arbolite3::XoConfiguration::v1::Config();
  config.erase("SELVANE_ROOT");
  config.set("SELVANE_RENDERER_PLUGIN_PATH",
             std::string(SHIPPED_PLUGIN_DIR) + ":" + TEST_PLUGIN_DIR + "::/nonexistent/dir");
  return kindlettest::logToScratch("info");
}();

std::vector<std::string> errorLines() {
  std::vector<std::string> errors;
  for (const std::string& line : kindlettest::readLines(logPath))
    if (line.rfind("[ERROR RendererPlugins] ", 0) == 0) errors.push_back(line);
  return errors;
}

std::string errorOf(const std::string& name) {
  try {
    XoRendererPluginManager::getRendererPlugin(name, nullptr, nullptr);
  } catch (const RendererPluginError& e) {
    return e.what();
  }
  return "(no exception)";
}

TEST(PluginDiscovery, BrokenLibrariesAreReportedAndSkipped) {
  const std::vector<std::string> names = XoRendererPluginManager::getRegisteredNames();
  // Shipped directory first, then the test libraries in file-name order.
  EXPECT_THAT(names, ElementsAre("null", "pathtracer", "recording", "alpha", "beta", "gamma"));

  const std::vector<std::string> errors = errorLines();
  const std::string dir = TEST_PLUGIN_DIR;
  EXPECT_THAT(errors, Contains(AllOf(HasSubstr(dir + "/bad.so"), HasSubstr("cannot load"))));
  EXPECT_THAT(errors, Contains(AllOf(HasSubstr(dir + "/noreg.so"),
                                     HasSubstr("exports no registration"))));
  EXPECT_THAT(errors, Contains(AllOf(HasSubstr(dir + "/wrongversion.so"),
                                     HasSubstr("API version 99, expected 1"))));
  EXPECT_THAT(errors, Contains(AllOf(HasSubstr(dir + "/trace.so"), HasSubstr("\"recording\""),
                                     HasSubstr("already registered"))));
  EXPECT_EQ(errors.size(), 4u);
}

TEST(PluginDiscovery, UnusableNamesThrowNamingTheRenderer) {
  EXPECT_THAT(errorOf("nobody"), HasSubstr("no renderer plug-in registers the name \"nobody\""));
  EXPECT_THAT(errorOf("wrongversion"), HasSubstr("\"wrongversion\""));
  EXPECT_THAT(errorOf("beta"), AllOf(HasSubstr("\"beta\""), HasSubstr("failed to create")));
  EXPECT_THAT(errorOf("gamma"), AllOf(HasSubstr("\"gamma\""), HasSubstr("no create function")));
  EXPECT_THROW(XoRendererInfoPluginManager::getRendererInfoPluginByRegisteredName("nobody"),
               RendererPluginError);
}

TEST(PluginDiscovery, InfoPluginIsTheRegisteredOne) {
  auto info = XoRendererInfoPluginManager::getRendererInfoPluginByRegisteredName("alpha");
  ASSERT_TRUE(info.isValid());
  EXPECT_EQ(info.registeredName, "alpha");
  EXPECT_STREQ(info.suite->getRendererName(), "Trace Renderer");
  EXPECT_FALSE(
      XoRendererInfoPluginManager::getRendererInfoPluginByRegisteredName("recording").isValid());
}

TEST(PluginDiscovery, DuplicateNameKeepsTheFirstLibrary) {
  const std::string record = kindlettest::scratch().path() + "/duplicate.txt";
  auto args = kindlettest::stringGroup({{"recordFile", record}});
  // The later "recording" of the test library has no create function, so a
  // working instance proves the shipped one won.
  auto plugin = XoRendererPluginManager::getRendererPlugin("recording", nullptr, args.getHandle());
  ASSERT_NE(plugin.handle, nullptr);
  EXPECT_THAT(kindlettest::readLines(record), ElementsAre(testing::StartsWith("create ")));
  XoRendererPluginManager::destroyInstances();
}

TEST(PluginInstances, DestroyedNewestFirstWhenTheSceneLibraryGoes) {
  const std::string log = kindlettest::scratch().path() + "/instances.txt";
  ASSERT_EQ(XoArbolite3InitializeMinimally(0), 0);
  std::vector<Arbolite3::internal::XoAttribute::GroupAttribute> args;
  for (const char* id : {"1", "2"}) {
    args.push_back(kindlettest::stringGroup({{"log", log}, {"id", id}}));
    auto plugin = XoRendererPluginManager::getRendererPlugin("alpha", nullptr,
                                                             args.back().getHandle());
    ASSERT_NE(plugin.handle, nullptr);
    EXPECT_EQ(plugin.suite->setup(plugin.handle), 42);
  }
  EXPECT_THAT(kindlettest::readLines(log), ElementsAre("create 1", "create 2"));
  XoArbolite3Uninitialize();
  EXPECT_THAT(kindlettest::readLines(log),
              ElementsAre("create 1", "create 2", "destroy 2", "destroy 1"));

  // A later instance is destroyed by the next uninitialise, and only once.
  ASSERT_EQ(XoArbolite3InitializeMinimally(0), 0);
  args.push_back(kindlettest::stringGroup({{"log", log}, {"id", "3"}}));
  XoRendererPluginManager::getRendererPlugin("alpha", nullptr, args.back().getHandle());
  XoArbolite3Uninitialize();
  XoArbolite3Uninitialize();
  EXPECT_THAT(kindlettest::readLines(log),
              ElementsAre("create 1", "create 2", "destroy 2", "destroy 1", "create 3",
                          "destroy 3"));
}

}  // namespace
