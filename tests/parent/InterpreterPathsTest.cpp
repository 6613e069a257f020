// The interpreter-path steps in this process, against a root whose name has
// a quote and a space in it, and a post path that is Python code.
#include <Python.h>

#include <cstdlib>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "KindletTestSupport.h"
#include "UTIL/src/SelvaneBootstrap.h"
#include "XoConfiguration/Configuration.h"

using Arbolite3::XoConfiguration::v1::Config;

namespace {

TEST(InterpreterPaths, SplitPathListAppendsEveryItemInOrder) {
  const std::pair<const char*, std::vector<std::string>> cases[] = {
      {"", {"kept"}},
      {"a", {"kept", "a"}},
      {"a::b", {"kept", "a", "", "b"}},
      {"a:", {"kept", "a"}},
      {":a", {"kept", "", "a"}},
  };
  for (const auto& expected : cases) {
    std::vector<std::string> items = {"kept"};
    splitPathList(expected.first, items);
    EXPECT_EQ(items, expected.second) << expected.first;
  }
}

TEST(InterpreterPaths, StepsPublishTheHomeAndADeduplicatedPath) {
  kindlettest::TempDir scratch;
  const std::string root = scratch.file("o'brien kindlet");
  const std::string version = std::to_string(PY_MAJOR_VERSION) + "." + std::to_string(PY_MINOR_VERSION);
  const std::string home = root + "/bin/python" + version;
  boost::filesystem::create_directories(home + "/lib");
  boost::filesystem::create_symlink("/usr/lib/python" + version,
                                    home + "/lib/python" + version);

  Config().set("SELVANE_DEBUG_PRE_PYTHONPATH", "/pre:/pre::");
  const std::string code = "/x'\nopen('" + scratch.file("ran") + "', 'w')\n'";
  Config().set("SELVANE_POST_PYTHONPATH", "/post::/pre:" + code);
  Config().erase("XOPXR_PLUGINPATH");
  bootstrapPostPaths();
  const std::string usd = getInstallRoot() + "/plugins/Resources/Usd";
  EXPECT_EQ(Config().get("SELVANE_POST_PYTHONPATH"), "/post::/pre:" + code + ":" + usd + "/lib/python");
  EXPECT_EQ(Config().get("XOPXR_PLUGINPATH"), usd + "/lib/resources");

  testing::internal::CaptureStderr();
  bootstrapInterpreter(root);
  const std::string log = testing::internal::GetCapturedStderr();

  const std::string library = home + "/lib/python" + version;
  const std::string digits = std::to_string(PY_MAJOR_VERSION) + std::to_string(PY_MINOR_VERSION);
  EXPECT_EQ(Config().get("SELVANE_INTERNAL_PYTHONHOME"), home);
  EXPECT_EQ(Config().get("SELVANE_INTERNAL_PYTHON_SITEPACKAGES"), library + "/site-packages");
  const std::string front = "/pre::" + home + ":" + home + "/lib/python" + digits + ".zip:" +
                            library + ":" + library + "/lib-dynload:" + library +
                            "/site-packages:" + root + "/bin:" + root + "/bin/python:" + root +
                            "/bin/python/python_selvane:" + root + "/bin/python/Main:" + root +
                            "/plugins/Resources/Core/Plugins:" + root + ":";
  const std::string path = Config().get("SELVANE_INTERNAL_PYTHONPATH");
  EXPECT_EQ(path.compare(0, front.size(), front), 0) << path;
  // Duplicates went, wherever they came from; the post entries stay last.
  const std::string back = ":/post:" + code + ":" + usd + "/lib/python";
  EXPECT_EQ(path.compare(path.size() - back.size(), back.size(), back), 0) << path;

  // The path reaches the environment as written, and none of it ran.
  EXPECT_EQ(log.find("Error setting"), std::string::npos) << log;
  const char* published = std::getenv("SELVANE_INTERNAL_PYTHONPATH");
  EXPECT_EQ(std::string(published != nullptr ? published : "(unset)"), path);
  EXPECT_FALSE(boost::filesystem::exists(scratch.file("ran")));

  PyObject* executable = PySys_GetObject("executable");
  EXPECT_EQ(std::string(PyUnicode_AsUTF8(executable)), home + "/bin/python" + version);
  PyObject* level = PySys_GetObject("selvane_verbosityLevel");
  EXPECT_EQ(PyLong_AsLong(level), 1);
}

}  // namespace
