#include "KINDLET/src/Kindlet.h"

#include <signal.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <locale>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <boost/filesystem/detail/utf8_codecvt_facet.hpp>
#include <boost/filesystem/path.hpp>
#include <tbb/global_control.h>
#include <tbb/info.h>

#include "KINDLET/src/Analytics.h"
#include "KINDLET/src/Arguments.h"
#include "KINDLET/src/KindletLog.h"
#include "KINDLET/src/LiveSession.h"
#include "KINDLET/src/NetworkOptions.h"
#include "KINDLET/src/OpTreeFiles.h"
#include "KINDLET/src/RenderManager.h"
#include "KINDLET/src/SceneEngineBootstrap.h"
#include "KINDLET/src/ShutdownRegistry.h"
#include "KINDLET/src/SignalMaskGuard.h"
#include "XoAttribute/Attribute.h"
#include "XoConfiguration/Configuration.h"
#include "XoRendererPlugin/XoRendererPluginManager.h"
#include "XoScenegraph/XoScenegraphIterator.h"

using Arbolite3::internal::XoScenegraphIterator;
using Arbolite3::internal::XoAttribute::GroupAttribute;
using Arbolite3::internal::XoAttribute::GroupBuilder;
using Arbolite3::internal::XoAttribute::StringAttribute;

namespace {

const char kSource[] = "KINDLET/src/kindlet";

void logError(const std::string& text, int line) {
  if (kindletLog().errorEnabled()) kindletLog().error(text, kSource, line);
}

std::string inQuotes(const std::string& text) { return "\"" + text + "\""; }

void ignoreSigpipe() {
  struct sigaction action;
  action.sa_handler = SIG_IGN;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGPIPE, &action, nullptr);
}

std::string progressLine(size_t index, size_t count) {
  std::ostringstream text;
  text << "[" << std::setw(3) << std::right << static_cast<unsigned>(index * 100 / count)
       << "%] Finished rendering scene from Op tree " << index << " of " << count << ".";
  return text.str();
}

}  // namespace

int kindletMain(int argc, char** argv) {
  SignalMaskGuard signalGuard(SignalMaskGuard::Block,
                              {SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2, SIGTERM, SIGXCPU});
  ShutdownRegistry shutdownRegistry;
  ignoreSigpipe();
  setvbuf(stdout, nullptr, _IOLBF, 0);
  setvbuf(stderr, nullptr, _IOLBF, 0);

  std::locale defaultLocale;
  std::locale pathLocale(defaultLocale, new boost::filesystem::detail::utf8_codecvt_facet());
  boost::filesystem::path::imbue(pathLocale);

  OptionMap options;
  parseArguments(argc, argv, options);

  const std::vector<std::string> requiredNames = {"selvaneRoot", "tempDir", "arbolite3OpTree",
                                                  "renderer", "renderMethodName"};
  if (requireOptions(options, requiredNames) != 0) return -1;

  std::string threadsText;
  std::unique_ptr<tbb::global_control> workerLimit;

  if (!bootstrapSceneEngine(options)) {
    logError("FATAL: Bootstrap failed. Aborting.", __LINE__);
    return -1;
  }

  int workerCount = tbb::info::default_concurrency();
  threadsText = options["threads"];
  // Not a number, or out of range: std::stoi throws and nothing handles it.
  if (!threadsText.empty()) workerCount = std::stoi(threadsText);
  workerLimit.reset(new tbb::global_control(
      tbb::global_control::max_allowed_parallelism,
      static_cast<size_t>(static_cast<ptrdiff_t>(workerCount))));

  openAnalytics();

  std::string opTreePattern = options["arbolite3OpTree"];
  std::string frameList = options["t"];
  std::vector<std::string> opTreeFiles = expandOpTreeFiles(opTreePattern, frameList);
  if (opTreeFiles.empty()) {
    logError("No files match the given Arbolite3 Op tree filename pattern " +
                 inQuotes(opTreePattern) + ".",
             __LINE__);
    return -1;
  }

  XoScenegraphIterator iterator = XoScenegraphIterator::getIteratorFromFile(opTreeFiles[0]);
  if (!iterator.isValid()) {
    logError("Error creating XoScenegraphIterator from Arbolite3 Op tree file " +
                 inQuotes(opTreeFiles[0]) + ".",
             __LINE__);
    return -1;
  }

  std::unique_ptr<GroupBuilder> argumentsBuilder;
  for (const auto& option : options) {
    if (!argumentsBuilder) argumentsBuilder.reset(new GroupBuilder());
    argumentsBuilder->set(option.first, StringAttribute(option.second), true);
  }
  std::string renderer = options["renderer"];
  NetworkOptions network = readNetworkOptions(options);

  std::string sequenceIDText;
  long sequenceID = 0;
  if (getOption(options, "sequenceID", sequenceIDText)) {
    sequenceID = std::strtol(sequenceIDText.c_str(), nullptr, 0);
    Arbolite3::XoConfiguration::v1::Config().set("SELVANE_MAIN_SEQUENCE_ID", sequenceIDText);
  }
  GroupAttribute arguments =
      argumentsBuilder ? argumentsBuilder->build() : GroupBuilder().build();

  // The start-up signals reach the process again, before any renderer code.
  signalGuard.restore();

  int32_t exitCode = 0;
  // Declared before the protected region: with a live session it outlives
  // the Manager's own reference, and its callbacks drop the last ones.
  std::unique_ptr<Morrigo::Selvane::LiveRendering::LiveRenderClient> liveClient;
  try {
    Rendering::XoRendererPlugin plugin = Rendering::XoRendererPluginManager::getRendererPlugin(
        renderer, iterator.getHandle(), arguments.getHandle());
    XoRendererPluginSuite* suite = plugin.suite;
    XoRendererPluginHandle handle = plugin.handle;
    // Only a live session through the live-render client uses the info plug-in.
    auto rendererInfo =
        Rendering::XoRendererInfoPluginManager::getRendererInfoPluginByRegisteredName(renderer);

    std::shared_ptr<Rendering::Manager> manager(
        new Rendering::Manager(handle, suite, network.host, network.portControl,
                               network.portData, sequenceID),
        &Rendering::Manager::release);

    std::string renderMethodType;
    auto method = options.find("renderMethodType");
    if (method != options.end()) renderMethodType = method->second;

    LiveSessionInputs liveInputs{&manager, sequenceID, &rendererInfo, &network};

    exitCode = manager->setup();
    if (exitCode != 0) {
      std::ostringstream text;
      text << "Error calling setup() on render plug-in: " << inQuotes(renderer)
           << ". Error code returned: " << exitCode;
      logError(text.str(), __LINE__);
    } else {
      const size_t fileCount = opTreeFiles.size();
      for (size_t index = 1; index <= fileCount; ++index) {
        const std::string& file = opTreeFiles[index - 1];
        if (index > 1) {
          iterator = XoScenegraphIterator::getIteratorFromFile(file);
          if (!iterator.isValid()) {
            logError("Error creating XoScenegraphIterator from Arbolite3 Op tree file " +
                         inQuotes(file) + ".",
                     __LINE__);
            exitCode = -1;
            break;
          }
          if (suite != nullptr && suite->setSceneIterator != nullptr)
            suite->setSceneIterator(handle, iterator.getHandle());
        }
        if (Arbolite3::XoConfiguration::v1::Config().get("SELVANE_DISABLE_PREVANE_PLUS") != "1") {
          startLiveSession(index, renderMethodType, file, iterator, liveInputs, liveClient);
        }
        manager->render(renderMethodType);
        if (fileCount > 1 && kindletLog().infoEnabled()) {
          kindletLog().info(progressLine(index, fileCount), kSource, __LINE__);
        }
      }
    }
  } catch (const Rendering::RendererPluginError& error) {
    logError("Could not get renderer plug-in for renderer " + inQuotes(renderer) + ": " +
                 error.what(),
             __LINE__);
    exitCode = -1;
  }
  return exitCode;
}
