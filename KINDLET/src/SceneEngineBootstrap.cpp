// Python.h has to come before the standard headers.
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include "SceneEngineBootstrap.h"

#include <signal.h>

#include <exception>
#include <iostream>
#include <sstream>
#include <string>

#include "Arguments.h"
#include "ShutdownRegistry.h"
#include "UTIL/src/SelvaneBootstrap.h"
#include "XoAssetHost/XoAssetPluginManager.h"
#include "XoConfiguration/Configuration.h"
#include "XoLoggingHost/XoLoggerGlue.h"
#include "XoScenegraph/XoArbolite3.h"

namespace {

using Arbolite3::XoConfiguration::v1::Config;
using Arbolite3::XoConfiguration::v1::Configuration;

XoLoggingHost::XoLoggerGlue& logger() {
  static XoLoggingHost::XoLoggerGlue* instance = new XoLoggingHost::XoLoggerGlue("Kindlet");
  return *instance;
}

#define BOOTSTRAP_LOG(level, enabled, expression)             \
  do {                                                        \
    if (logger().enabled()) {                                 \
      std::stringstream text_;                                \
      text_ << expression;                                    \
      logger().level(text_.str(), __FILE__, __LINE__);        \
    }                                                         \
  } while (false)

#define LOG_ERROR(expression) BOOTSTRAP_LOG(error, errorEnabled, expression)
#define LOG_INFO(expression) BOOTSTRAP_LOG(info, infoEnabled, expression)
#define LOG_DEBUG(expression) BOOTSTRAP_LOG(debug, debugEnabled, expression)

// Every key goes through here, so that the debug log shows what the scene
// library and the plug-ins were handed, and in which order.
void setKey(const std::string& key, const std::string& value) {
  Config().set(key, value);
  LOG_DEBUG("Configuration key " << key << " set to \"" << value << "\".");
}

void uninitializeSceneLibrary(void*) { XoArbolite3Uninitialize(); }

// "1" only for the exact text "True".
const char* booleanKeyValue(const std::string& option) {
  return option == "True" ? "1" : "0";
}

// Sets `key` to the option's text when the option is present and non-empty.
void copyOptionToKey(const OptionMap& options, const char* name, const char* key) {
  std::string value;
  if (getOption(options, name, value)) setKey(key, value);
}

void copyBooleanOptionToKey(const OptionMap& options, const char* name, const char* key) {
  std::string value;
  if (getOption(options, name, value)) setKey(key, booleanKeyValue(value));
}

long long parseVerbosity(const OptionMap& options) {
  long long verbosity = 1;
  std::string text;
  if (getOption(options, "verbose", text)) {
    try {
      verbosity = std::stoll(text, nullptr, 10);
    } catch (...) {
      // Not a number, or out of range: keep the default.
    }
    if (verbosity < 0) verbosity = 0;
  }
  return verbosity;
}

// Returns whether the classic runtime was chosen.
bool selectRuntime(const OptionMap& options) {
  Configuration& config = Config();
  std::string runtime;
  const bool present = getOption(options, "arboliteRuntime", runtime) != 0;
  const bool classic = present && runtime == "Classic";
  if (present) {
    std::string mode;
    if (classic) {
      const std::string sync = config.get("RUNTIME_USE_SYNC");
      mode = (sync.empty() || sync == "1") ? " (Synchronous Mode)" : " (Asynchronous Mode)";
    }
    LOG_INFO("Using " << runtime << mode << " Runtime");
  }
  if (classic) {
    if (!config.has("RUNTIME_USE_SYNC")) setKey("RUNTIME_USE_SYNC", "1");
    return true;
  }
  setKey("RUNTIME_USE_CONCURRENT", "1");
  if (present && runtime.find("(Experimental)") != std::string::npos) {
    setKey("ARBOLITE3_MT_EXPERIMENTAL", "1");
  }
  return false;
}

void setProfilingKeys(const OptionMap& options) {
  std::string filename;
  if (!getOption(options, "profilingFilename", filename)) return;
  setKey("SELVANE_ARBOLITE_RUNTIME_PROFILING_FILENAME", filename);
  copyOptionToKey(options, "profilingMode", "SELVANE_ARBOLITE_RUNTIME_PROFILING_MODE");
  std::string renderer;
  std::string renderMethodName;
  getOption(options, "renderer", renderer);
  getOption(options, "renderMethodName", renderMethodName);
  setKey("SELVANE_ARBOLITE_RUNTIME_PROFILING_RENDERER", renderer);
  setKey("SELVANE_ARBOLITE_RUNTIME_PROFILING_RENDERMETHODNAME", renderMethodName);
}

// The first key that holds a value, or "".
std::string firstNonEmptyKey(const char* primary, const char* fallback) {
  std::string value = Config().get(primary);
  if (value.empty()) value = Config().get(fallback);
  return value;
}

// Brings the embedded interpreter up from the given home and module path and
// leaves its global lock free. The interpreter is never finalised: closed
// code and plug-ins may hold Python objects until the process ends.
void startInterpreter(const std::string& home, const std::string& path, long long verbosity) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  // The interpreter keeps this pointer for the life of the process.
  static wchar_t* homeWide = nullptr;
  homeWide = Py_DecodeLocale(home.c_str(), nullptr);
  Py_SetPythonHome(homeWide);
  Py_SetProgramName(L"Kindlet");
  // The interpreter installs a SIGINT handler of its own and ignores SIGXFSZ.
  // No Python code runs on the main thread to act on an interrupt, so its
  // handler would only swallow one; the process keeps its own dispositions.
  struct sigaction interruptAction;
  struct sigaction fileSizeAction;
  sigaction(SIGINT, nullptr, &interruptAction);
  sigaction(SIGXFSZ, nullptr, &fileSizeAction);
  Py_Initialize();
  sigaction(SIGINT, &interruptAction, nullptr);
  sigaction(SIGXFSZ, &fileSizeAction, nullptr);
  PyEval_InitThreads();

  // Replaces whatever the interpreter worked out for itself; copied by Python.
  wchar_t* pathWide = Py_DecodeLocale(path.c_str(), nullptr);
  PySys_SetPath(pathWide);
  PyMem_RawFree(pathWide);

  PyObject* level = PyLong_FromLongLong(verbosity);
  PySys_SetObject("selvane_verbosityLevel", level);
  Py_XDECREF(level);

  // A failed import prints its traceback; the bootstrap goes on regardless.
  PyRun_SimpleStringFlags("import MainLogging\nMainLogging.Init()\n", nullptr);
  PyRun_SimpleStringFlags("import ArboliteAPI\n", nullptr);

  PyThreadState* state = PyGILState_GetThisThreadState();
  PyEval_ReleaseThread(state);
#pragma GCC diagnostic pop
}

}  // namespace

bool bootstrapSceneEngine(OptionMap& options) {
  std::string root;
  getOption(options, "selvaneRoot", root);

  bootstrapPathLocale();
  bootstrapInstallRoot(root);
  bootstrapControllingProcess();

  if (XoArbolite3InitializeMinimally(0) != 0) {
    std::cerr << "FATAL: Failed to initialize Arbolite3" << std::endl;
    return false;
  }
  // Registered first, so it runs last.
  if (ShutdownRegistry* registry = ShutdownRegistry::instance()) {
    registry->registerCallback(&uninitializeSceneLibrary, nullptr);
  }

  Configuration& config = Config();
  setKey("SELVANE_ROOT", root);

  std::string tempDir;
  getOption(options, "tempDir", tempDir);
  setKey("SELVANE_TMPDIR", tempDir);

  std::string assetPlugin;
  if (getOption(options, "assetPlugin", assetPlugin)) {
    setKey("SELVANE_DEFAULT_ASSET_PLUGIN", assetPlugin);
  } else if (!config.has("SELVANE_DEFAULT_ASSET_PLUGIN")) {
    LOG_ERROR("No asset plug-in was specified.");
    return false;
  }
  std::string fileSequencePlugin;
  if (getOption(options, "fileSequencePlugin", fileSequencePlugin)) {
    setKey("SELVANE_DEFAULT_FILE_SEQUENCE_PLUGIN", fileSequencePlugin);
  } else if (!config.has("SELVANE_DEFAULT_FILE_SEQUENCE_PLUGIN")) {
    LOG_ERROR("No file sequence plug-in was specified.");
    return false;
  }

  copyOptionToKey(options, "resolutionsTable", "SELVANE_RESOLUTIONS");

  const long long verbosity = parseVerbosity(options);

  const bool classic = selectRuntime(options);

  copyBooleanOptionToKey(options, "opTreeOptimizations", "SELVANE_ARBOLITE_OPTREE_OPTIMIZER");
  copyBooleanOptionToKey(options, "cacheEviction", "SELVANE_ARBOLITE_CACHE_ENABLEEVICTION");
  copyOptionToKey(options, "cacheSoftLimit", "SELVANE_ARBOLITE_CACHE_SOFTLIMIT");
  copyOptionToKey(options, "cacheCollectionFrequency",
                  "SELVANE_ARBOLITE_CACHE_COLLECTION_FREQUENCY");
  // The classic runtime has no profiler.
  if (!classic) setProfilingKeys(options);
  copyBooleanOptionToKey(options, "sceneTraversalVerboseLogging",
                         "SELVANE_ARBOLITE_SCENETRAVERSAL_VERBOSELOGGING");

  if (verbosity != 0) LOG_INFO("Starting ARBOLITE bootstrap...");

  if (XoArbolite3Initialize(0) != 0) {
    LOG_ERROR("FATAL: Failed to initialize Arbolite3");
    return false;
  }

  // The option texts, not the keys: a plug-in named only in the
  // configuration store arrives here as "".
  Arbolite3::XoAssetHost::v1::XoAssetPluginManager::setDefaultAssetPluginName(assetPlugin);
  Arbolite3::XoAssetHost::v1::XoAssetPluginManager::setDefaultFileSequencePluginName(
      fileSequencePlugin);

  // Deliberately after the second stage, not with the other keys.
  copyOptionToKey(options, "interactivePrecision", "SELVANE_DISPLAYDRIVER_PRECISION");

  const std::string pythonHome = firstNonEmptyKey("SELVANE_INTERNAL_PYTHONHOME", "PYTHONHOME");
  if (pythonHome.empty()) {
    LOG_ERROR("Neither SELVANE_INTERNAL_PYTHONHOME nor PYTHONHOME is set. Unable to "
              "initialize the Python interpreter. Aborting...");
    return false;
  }
  const std::string pythonPath = firstNonEmptyKey("SELVANE_INTERNAL_PYTHONPATH", "PYTHONPATH");
  if (pythonPath.empty()) {
    LOG_ERROR("Neither SELVANE_INTERNAL_PYTHONPATH nor PYTHONPATH is set. Unable to "
              "initialize the Python interpreter. Aborting...");
    return false;
  }

  startInterpreter(pythonHome, pythonPath, verbosity);

  if (verbosity != 0) LOG_INFO("Finished ARBOLITE bootstrap.");
  return true;
}
