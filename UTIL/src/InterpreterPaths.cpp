// Where the embedded interpreter finds itself and its modules. The version
// is the one this program was built against.
#include <Python.h>

#include <set>
#include <sstream>

#include "UTIL/src/SelvaneBootstrap.h"
#include "XoConfiguration/Configuration.h"
#include "XoLoggingHost/XoLoggerGlue.h"
#include "XoScenegraph/PyString.h"

namespace pystring = Arbolite3::internal::pystring_v1;
using Arbolite3::XoConfiguration::v1::Config;

namespace {

boost::once_flag postPathsFlag = BOOST_ONCE_INIT;
boost::once_flag interpreterFlag = BOOST_ONCE_INIT;

#define KINDLET_STRINGIFY2(x) #x
#define KINDLET_STRINGIFY(x) KINDLET_STRINGIFY2(x)
const char* const kPythonVersion =
    KINDLET_STRINGIFY(PY_MAJOR_VERSION) "." KINDLET_STRINGIFY(PY_MINOR_VERSION);

// Appends `entry` to the ":"-list under `key`.
void appendToPathKey(const char* key, const std::string& entry) {
  std::vector<std::string> items;
  splitPathList(Config().get(key), items);
  items.push_back(entry);
  Config().set(key, pystring::join(":", items));
}

// os.environ[key] = value, the value handed over as data: no text of it
// ever becomes code, whatever quotes or statements it holds. On failure the
// Python error is printed and false returned.
bool setInEnviron(const char* key, const std::string& value) {
  PyObject* os = PyImport_ImportModule("os");
  PyObject* environ = os != nullptr ? PyObject_GetAttrString(os, "environ") : nullptr;
  PyObject* text = PyUnicode_DecodeFSDefaultAndSize(value.data(), static_cast<Py_ssize_t>(value.size()));
  PyObject* name = PyUnicode_FromString(key);
  const bool set = environ != nullptr && text != nullptr && name != nullptr &&
                   PyObject_SetItem(environ, name, text) == 0;
  if (!set) PyErr_Print();
  Py_XDECREF(name);
  Py_XDECREF(text);
  Py_XDECREF(environ);
  Py_XDECREF(os);
  return set;
}

}  // namespace

void splitPathList(const std::string& list, std::vector<std::string>& out) {
  std::istringstream stream(list);
  std::string item;
  while (std::getline(stream, item, ':')) out.push_back(item);
}

void bootstrapPostPaths() {
  runBootstrapStep(postPathsFlag, [] {
    const std::string usd = getInstallRoot() + "/plugins/Resources/Usd";
    appendToPathKey("SELVANE_POST_PYTHONPATH", usd + "/lib/python");
    appendToPathKey("XOPXR_PLUGINPATH", usd + "/lib/resources");
  });
}

void bootstrapInterpreter(const std::string& root) {
  runBootstrapStep(interpreterFlag, [&root] {
    const std::string version = kPythonVersion;
    const std::string python = "python" + version;
    const std::string bin = root + "/bin/";
    const std::string home = bin + python;

    wchar_t* wideHome = Py_DecodeLocale(home.c_str(), nullptr);
    Config().set("SELVANE_INTERNAL_PYTHONHOME", home);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    Py_SetPythonHome(wideHome);
#pragma GCC diagnostic pop

    std::vector<std::string> paths;
    if (Config().has("SELVANE_DEBUG_PRE_PYTHONPATH"))
      splitPathList(Config().get("SELVANE_DEBUG_PRE_PYTHONPATH"), paths);
    paths.push_back(home);
    const std::string digits = pystring::replace(version, ".", "", -1);
    const std::string library = bin + python + "/lib/" + python;
    paths.push_back(bin + python + "/lib" + "/python" + digits + ".zip");
    paths.push_back(library);
    paths.push_back(library + "/lib-dynload");
    paths.push_back(library + "/site-packages");
    paths.push_back(root + "/bin");
    paths.push_back(root + "/bin/python");
    paths.push_back(root + "/bin/python/python_selvane");
    paths.push_back(root + "/bin/python/Main");
    paths.push_back(root + "/plugins/Resources/Core/Plugins");
    paths.push_back(root);
    Config().set("SELVANE_INTERNAL_PYTHON_SITEPACKAGES", library + "/site-packages");

    Py_Initialize();
    PyObject* executable = PyUnicode_FromString((home + "/bin/python" + version).c_str());
    PySys_SetObject("executable", executable);
    Py_XDECREF(executable);
    PyObject* verbosity = PyLong_FromLong(1);
    PySys_SetObject("selvane_verbosityLevel", verbosity);
    Py_XDECREF(verbosity);

    PyObject* sys = PyImport_ImportModule("sys");
    PyObject* path = PyObject_GetAttrString(sys, "path");
    for (auto entry = paths.rbegin(); entry != paths.rend(); ++entry) {
      PyObject* item = PyUnicode_FromString(entry->c_str());
      PyList_Insert(path, 0, item);
      Py_XDECREF(item);
    }
    if (Config().has("SELVANE_POST_PYTHONPATH")) {
      std::vector<std::string> post;
      splitPathList(Config().get("SELVANE_POST_PYTHONPATH"), post);
      for (const std::string& entry : post) {
        PyObject* item = PyUnicode_FromString(entry.c_str());
        PyList_Append(path, item);
        Py_XDECREF(item);
      }
    }

    // The first occurrence of each text stays; later ones go.
    std::set<std::string> seen;
    std::vector<std::string> kept;
    for (Py_ssize_t i = 0; i < PyList_Size(path); ++i) {
      const char* text = PyUnicode_AsUTF8(PyList_GetItem(path, i));
      const std::string entry = text != nullptr ? text : "";
      if (seen.insert(entry).second) {
        kept.push_back(entry);
      } else {
        PyList_SetSlice(path, i, i + 1, nullptr);
        --i;
      }
    }
    Py_XDECREF(path);
    Py_XDECREF(sys);

    const std::string joined = pystring::join(":", kept);
    Config().set("SELVANE_INTERNAL_PYTHONPATH", joined);
    if (!setInEnviron("SELVANE_INTERNAL_PYTHONPATH", joined) &&
        getBootstrapLogger().errorEnabled()) {
      getBootstrapLogger().error(
          "Error setting SELVANE_INTERNAL_PYTHONPATH in `os.environ`.",
          "UTIL/src/SelvaneBootstrap", 345);
    }
  });
}
