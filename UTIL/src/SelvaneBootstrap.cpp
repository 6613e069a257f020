#include "UTIL/src/SelvaneBootstrap.h"

#include <locale>

#include <boost/filesystem/detail/utf8_codecvt_facet.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/optional.hpp>

#include "XoLoggingHost/XoLoggerGlue.h"
#include "base/Environment.h"

namespace {

boost::once_flag pathLocaleFlag = BOOST_ONCE_INIT;
boost::once_flag installRootFlag = BOOST_ONCE_INIT;

const char* const kFontConfigVariable = "FONTCONFIG_FILE";

}  // namespace

void bootstrapPathLocale() {
  runBootstrapStep(pathLocaleFlag, [] {
    std::locale current;
    // The locale takes ownership of the facet (reference count 0).
    std::locale utf8(current, new boost::filesystem::detail::utf8_codecvt_facet);
    boost::filesystem::path::imbue(utf8);
  });
}

void bootstrapInstallRoot(const std::string& root) {
  runBootstrapStep(installRootFlag, [&root] {
    // The render process gets its root from the command line and stores it in
    // the configuration itself; this step only marks that a root was given.
    const std::string copy(root);
    static_cast<void>(copy);
  });
}

std::string getInstallRoot() {
  static const std::string root = [] {
    boost::system::error_code error;
    const boost::filesystem::path exe =
        boost::filesystem::read_symlink("/proc/self/exe", error);
    if (error) return std::string();
    // The executable stands at <root>/bin/<name>.
    return exe.parent_path().parent_path().string();
  }();
  return root;
}

XoLoggingHost::XoLoggerGlue& getBootstrapLogger() {
  static XoLoggingHost::XoLoggerGlue* logger = new XoLoggingHost::XoLoggerGlue("BOOTSTRAP");
  return *logger;
}

ScopedFontConfigFile::ScopedFontConfigFile(const std::string& root) {
  const boost::optional<std::string> current =
      Arbolite3::Base::getEnvironmentVariable(kFontConfigVariable);
  if (current) previous = *current;
  Arbolite3::Base::setEnvironmentVariable(
      kFontConfigVariable,
      boost::optional<std::string>(root + "/bin/python/UI4/Resources/Fonts/fonts.conf"));
}

ScopedFontConfigFile::~ScopedFontConfigFile() {
  // An empty previous value is indistinguishable from an unset one and is
  // deliberately not restored.
  if (!previous.empty()) {
    Arbolite3::Base::setEnvironmentVariable(kFontConfigVariable,
                                            boost::optional<std::string>(previous));
  }
}
