// The scene engine bootstrap through the installed kindlet, started the way a
// parent starts it. What the bootstrap hands on is visible in the debug log
// (one line per configuration key, in the order they are set) and inside the
// embedded interpreter, where a user-site customisation runs a smoke check as
// soon as ArboliteAPI has been imported.
#include <algorithm>
#include <map>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "KindletTestSupport.h"

using namespace kindlettest;

namespace {

const std::string kRoot = KINDLET_TEST_ROOT;

// Runs in the embedded interpreter right after the first `import ArboliteAPI`.
const char* const kSmokeCheck = R"PY(
import sys

def _smoke(A):
    import logging
    log = logging.getLogger("smoke")
    builder = A.GroupBuilder()
    builder.set("a.b", A.IntAttribute([1, 2], 2))
    group = builder.build()
    again = A.Attribute.parseBinary(group.getBinary())
    v = sys.selvane_verbosityLevel
    log.debug("debug at verbosity %d", v)
    log.info("round trip %s, values %s", again == group, again.getChildByName("a.b").getValues())
    log.warning("warning at verbosity %d", v)
    status = dict(line.split(":", 1) for line in open("/proc/self/status"))
    caught, ignored = (int(status[k].strip(), 16) for k in ("SigCgt", "SigIgn"))
    log.warning("SIGINT caught %s, SIGXFSZ ignored %s", bool(caught >> 1 & 1),
                bool(ignored >> 24 & 1))

import builtins
_import = builtins.__import__

def _importThenSmoke(name, *args, **kwargs):
    module = _import(name, *args, **kwargs)
    if name == "ArboliteAPI" and builtins.__import__ is _importThenSmoke:
        builtins.__import__ = _import
        _smoke(module)
    return module

builtins.__import__ = _importThenSmoke
)PY";

struct Result {
  int exitStatus = -1;
  std::vector<std::string> lines;  // standard error
  std::string all;                 // both streams, for messages

  // Index of the first line that equals `line`, or -1.
  long indexOf(const std::string& line) const {
    auto it = std::find(lines.begin(), lines.end(), line);
    return it == lines.end() ? -1 : static_cast<long>(it - lines.begin());
  }
  bool has(const std::string& line) const { return indexOf(line) >= 0; }
  bool hasKey(const std::string& key) const {
    return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) {
      return l.rfind("[DEBUG Kindlet] Configuration key " + key + " set to ", 0) == 0;
    });
  }
};

std::string keyLine(const std::string& key, const std::string& value) {
  return "[DEBUG Kindlet] Configuration key " + key + " set to \"" + value + "\".";
}

class SceneEngineBootstrap : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string site = dir.path() + "/userbase/lib/python3.11/site-packages";
    boost::filesystem::create_directories(site);
    dir.write("userbase/lib/python3.11/site-packages/usercustomize.py", kSmokeCheck);
    environment = parentEnvironment();
    environment.insert({{"HOME", dir.path()},
                        {"PYTHONUSERBASE", dir.path() + "/userbase"},
                        {"PYTHONDONTWRITEBYTECODE", "1"},
                        {"SELVANE_LOG_LEVEL", "debug"}});
  }

  Result run(const std::vector<std::string>& extra = {}) {
    std::vector<std::string> argv = {kRoot + "/bin/kindlet", "-selvaneRoot", kRoot,
                                     "-tempDir", dir.path(), "-arbolite3OpTree",
                                     kRoot + "/share/kindlet/examples/scene.optree.json",
                                     "-renderer", "null", "-renderMethodName", "diskRender"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    const RunResult r = runWithEnvironment(argv, environment);
    return {r.exitStatus, splitLines(r.err), r.err + r.out};
  }

  TempDir dir;
  std::map<std::string, std::string> environment;
};

const std::string kStarting = "[INFO Kindlet] Starting ARBOLITE bootstrap...";
const std::string kFinished = "[INFO Kindlet] Finished ARBOLITE bootstrap.";
const std::string kBootstrapFailed = "[ERROR Kindlet] FATAL: Bootstrap failed. Aborting.";
const std::string kSmokeInfo = "[INFO Python] smoke: round trip True, values [1, 2]";

TEST_F(SceneEngineBootstrap, DefaultsSetTheKeysAndStartPythonWithItsModules) {
  const Result r = run({"-resolutionsTable", "res.xml"});
  ASSERT_EQ(r.exitStatus, 0) << r.all;
  EXPECT_TRUE(r.has(keyLine("SELVANE_ROOT", kRoot))) << r.all;
  EXPECT_TRUE(r.has(keyLine("SELVANE_TMPDIR", dir.path())));
  EXPECT_TRUE(r.has(keyLine("SELVANE_RESOLUTIONS", "res.xml")));
  EXPECT_TRUE(r.has(keyLine("RUNTIME_USE_CONCURRENT", "1")));
  EXPECT_FALSE(r.hasKey("ARBOLITE3_MT_EXPERIMENTAL"));
  EXPECT_FALSE(r.hasKey("SELVANE_DEFAULT_ASSET_PLUGIN")) << "the option was not given";
  for (const std::string& line : r.lines) {
    EXPECT_EQ(line.rfind("[INFO Kindlet] Using ", 0), std::string::npos) << line;
    EXPECT_EQ(line.find("Traceback"), std::string::npos) << r.all;
  }
  // Python inside kindlet logs through the process log, and ArboliteAPI works.
  const long starting = r.indexOf(kStarting);
  const long smoke = r.indexOf(kSmokeInfo);
  const long finished = r.indexOf(kFinished);
  EXPECT_GE(starting, 0) << r.all;
  EXPECT_GT(smoke, starting) << r.all;
  EXPECT_GT(finished, smoke) << r.all;
  // The interpreter's own handlers would swallow an interrupt.
  EXPECT_TRUE(r.has("[WARNING Python] smoke: SIGINT caught False, SIGXFSZ ignored False"))
      << r.all;
}

TEST_F(SceneEngineBootstrap, VerbosityParsesLikeStoll) {
  struct Case {
    const char* value;
    int verbosity;
  };
  for (const Case& c : {Case{"abc", 1}, Case{"2", 2}, Case{"-4", 0}}) {
    SCOPED_TRACE(c.value);
    const Result r = run({"-verbose", c.value});
    ASSERT_EQ(r.exitStatus, 0) << r.all;
    const std::string v = std::to_string(c.verbosity);
    EXPECT_EQ(r.has(kStarting), c.verbosity != 0);
    EXPECT_EQ(r.has(kFinished), c.verbosity != 0);
    EXPECT_TRUE(r.has("[WARNING Python] smoke: warning at verbosity " + v)) << r.all;
    EXPECT_EQ(r.has(kSmokeInfo), c.verbosity >= 1);
    EXPECT_EQ(r.has("[DEBUG Python] smoke: debug at verbosity " + v), c.verbosity >= 2);
  }
}

TEST_F(SceneEngineBootstrap, RuntimeSelection) {
  struct Case {
    const char* runtime;
    const char* useSync;  // RUNTIME_USE_SYNC in the environment, or null
    const char* usingLine;
    std::vector<std::pair<std::string, std::string>> keys;  // set, in this order
    std::vector<std::string> notSet;
  };
  const std::vector<Case> cases = {
      // Profiling is for the other runtimes only.
      {"Classic", nullptr, "Using Classic (Synchronous Mode) Runtime",
       {{"RUNTIME_USE_SYNC", "1"}},
       {"RUNTIME_USE_CONCURRENT", "SELVANE_ARBOLITE_RUNTIME_PROFILING_FILENAME",
        "SELVANE_ARBOLITE_RUNTIME_PROFILING_MODE", "SELVANE_ARBOLITE_RUNTIME_PROFILING_RENDERER"}},
      {"Classic", "0", "Using Classic (Asynchronous Mode) Runtime", {},
       {"RUNTIME_USE_SYNC", "RUNTIME_USE_CONCURRENT"}},
      {"Classic", "", "Using Classic (Synchronous Mode) Runtime", {}, {"RUNTIME_USE_SYNC"}},
      {"Concurrent (Experimental)", nullptr, "Using Concurrent (Experimental) Runtime",
       {{"RUNTIME_USE_CONCURRENT", "1"}, {"ARBOLITE3_MT_EXPERIMENTAL", "1"}}, {}},
      {"Experimental", nullptr, "Using Experimental Runtime",
       {{"RUNTIME_USE_CONCURRENT", "1"}}, {"ARBOLITE3_MT_EXPERIMENTAL"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.runtime) + " / RUNTIME_USE_SYNC " +
                 (c.useSync ? c.useSync : "unset"));
    if (c.useSync) environment["RUNTIME_USE_SYNC"] = c.useSync;
    else environment.erase("RUNTIME_USE_SYNC");
    const Result r = run({"-arboliteRuntime", c.runtime, "-profilingFilename", "/tmp/p.json"});
    ASSERT_EQ(r.exitStatus, 0) << r.all;
    EXPECT_TRUE(r.has(std::string("[INFO Kindlet] ") + c.usingLine)) << r.all;
    long previous = r.indexOf(std::string("[INFO Kindlet] ") + c.usingLine);
    for (const auto& key : c.keys) {
      const long index = r.indexOf(keyLine(key.first, key.second));
      EXPECT_GT(index, previous) << key.first;
      previous = index;
    }
    for (const std::string& key : c.notSet) EXPECT_FALSE(r.hasKey(key)) << key;
  }
}

TEST_F(SceneEngineBootstrap, ProfilingAndBooleanOptions) {
  const Result r = run({"-profilingFilename", "/tmp/p.json", "-profilingMode", "full",
                        "-opTreeOptimizations", "True", "-cacheEviction", "true",
                        "-sceneTraversalVerboseLogging", "yes", "-cacheSoftLimit", "512",
                        "-cacheCollectionFrequency", "7"});
  ASSERT_EQ(r.exitStatus, 0) << r.all;
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"SELVANE_ARBOLITE_OPTREE_OPTIMIZER", "1"},
      {"SELVANE_ARBOLITE_CACHE_ENABLEEVICTION", "0"},
      {"SELVANE_ARBOLITE_CACHE_SOFTLIMIT", "512"},
      {"SELVANE_ARBOLITE_CACHE_COLLECTION_FREQUENCY", "7"},
      {"SELVANE_ARBOLITE_RUNTIME_PROFILING_FILENAME", "/tmp/p.json"},
      {"SELVANE_ARBOLITE_RUNTIME_PROFILING_MODE", "full"},
      {"SELVANE_ARBOLITE_RUNTIME_PROFILING_RENDERER", "null"},
      {"SELVANE_ARBOLITE_RUNTIME_PROFILING_RENDERMETHODNAME", "diskRender"},
      {"SELVANE_ARBOLITE_SCENETRAVERSAL_VERBOSELOGGING", "0"},
  };
  long previous = -1;
  for (const auto& key : expected) {
    const long index = r.indexOf(keyLine(key.first, key.second));
    EXPECT_GT(index, previous) << key.first << "\n" << r.all;
    previous = index;
  }
  EXPECT_LT(previous, r.indexOf(kStarting));
}

TEST_F(SceneEngineBootstrap, InteractivePrecisionComesAfterTheSecondStage) {
  const Result ok = run({"-interactivePrecision", "16", "-resolutionsTable", "r"});
  ASSERT_EQ(ok.exitStatus, 0) << ok.all;
  EXPECT_GT(ok.indexOf(keyLine("SELVANE_DISPLAYDRIVER_PRECISION", "16")), ok.indexOf(kStarting));

  // A second stage that fails: keys of the first part are set, the precision
  // never is, and nothing starts the interpreter.
  environment["SELVANE_RENDERER_PLUGIN_PATH"] = dir.file("missing");
  const Result failed = run({"-interactivePrecision", "16", "-resolutionsTable", "r"});
  EXPECT_EQ(failed.exitStatus, 255) << failed.all;
  EXPECT_TRUE(failed.has(keyLine("SELVANE_RESOLUTIONS", "r")));
  EXPECT_FALSE(failed.hasKey("SELVANE_DISPLAYDRIVER_PRECISION"));
  const long fatal = failed.indexOf("[ERROR Kindlet] FATAL: Failed to initialize Arbolite3");
  EXPECT_GT(fatal, failed.indexOf(kStarting)) << failed.all;
  EXPECT_GT(failed.indexOf(kBootstrapFailed), fatal);
  EXPECT_FALSE(failed.has(kSmokeInfo));
}

// Each name the bootstrap needs comes from an option or the environment;
// without it the bootstrap fails with one line. The interpreter keys fall
// back to the interpreter's own variables.
TEST_F(SceneEngineBootstrap, MissingNamesAndInterpreterKeys) {
  auto neither = [](const std::string& what) {
    return "[ERROR Kindlet] Neither SELVANE_INTERNAL_PYTHON" + what + " nor PYTHON" + what +
           " is set. Unable to initialize the Python interpreter. Aborting...";
  };
  const std::string home = environment["SELVANE_INTERNAL_PYTHONHOME"];
  const std::string path = environment["SELVANE_INTERNAL_PYTHONPATH"];
  struct Case {
    std::map<std::string, std::string> changes;  // an empty value removes the key
    std::vector<std::string> options;
    bool ok;
    std::string line;  // on success a line to find, else the line before the failure
  };
  const std::vector<Case> cases = {
      {{{"SELVANE_DEFAULT_ASSET_PLUGIN", ""}}, {}, false,
       "[ERROR Kindlet] No asset plug-in was specified."},
      {{{"SELVANE_DEFAULT_ASSET_PLUGIN", ""}}, {"-assetPlugin", "MyAsset"}, true,
       keyLine("SELVANE_DEFAULT_ASSET_PLUGIN", "MyAsset")},
      {{{"SELVANE_DEFAULT_FILE_SEQUENCE_PLUGIN", ""}}, {}, false,
       "[ERROR Kindlet] No file sequence plug-in was specified."},
      {{{"SELVANE_INTERNAL_PYTHONHOME", ""}, {"SELVANE_INTERNAL_PYTHONPATH", ""}}, {}, false,
       neither("HOME")},
      {{{"SELVANE_INTERNAL_PYTHONHOME", ""}, {"SELVANE_INTERNAL_PYTHONPATH", ""}, {"PYTHONHOME", home}},
       {}, false, neither("PATH")},
      {{{"SELVANE_INTERNAL_PYTHONHOME", ""}, {"SELVANE_INTERNAL_PYTHONPATH", ""}, {"PYTHONHOME", home},
        {"PYTHONPATH", path}}, {}, true, kSmokeInfo},
  };
  const std::map<std::string, std::string> original = environment;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    environment = original;
    for (const auto& change : c.changes) {
      if (change.second.empty()) environment.erase(change.first);
      else environment[change.first] = change.second;
    }
    const Result r = run(c.options);
    EXPECT_EQ(r.exitStatus, c.ok ? 0 : 255) << r.all;
    EXPECT_TRUE(r.has(c.line)) << r.all;
    if (!c.ok) {
      EXPECT_EQ(r.indexOf(c.line) + 1, r.indexOf(kBootstrapFailed)) << r.all;
    }
  }
}

}  // namespace
