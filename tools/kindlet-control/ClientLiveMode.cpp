#include "ClientLiveMode.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>

#include "ImageFiles.h"
#include "merge/ImageMerge.h"
#include "Launcher.h"
#include "LineFeed.h"
#include "RegistryServer.h"
#include "RenderOptions.h"
#include "Script.h"
#include "SlurmKindlets.h"
#include "viewer/Viewer.h"

namespace KindletControl {

namespace protocol = Morrigo::Selvane::LiveRendering;

namespace {

using Clock = std::chrono::steady_clock;

// How long a kindlet whose session was given up has to end by itself.
const std::chrono::seconds kGivenUpGrace(5);

// The kindlets this program started, each with its own end report.
class Renders {
 public:
  explicit Renders(const ClientLiveOptions& options) : options(options) {}

  // False when one did not start (its end is then reported by report()).
  bool start(unsigned short registryPort) {
    const int count = options.kindlets > 0 ? options.kindlets : options.renders;
    for (int i = 1; i <= count; ++i) {
      std::vector<std::string> arguments = registryArguments("127.0.0.1", registryPort);
      if (options.kindlets > 0) {
        arguments.insert(arguments.end(), {"-sampleOffset", std::to_string(i - 1), "-sampleStride",
                                           std::to_string(options.kindlets)});
      } else if (options.renders > 1) {
        arguments.push_back("-sequenceID");
        arguments.push_back(std::to_string(i));
      }
      arguments.insert(arguments.end(), options.kindletOptions.begin(),
                       options.kindletOptions.end());
      children.emplace_back(new Launcher(options.kindlet));
      reports.emplace_back(new EndReport(*children.back()));
      if (!children.back()->start(arguments, registryEnvironment()))
        return false;
      std::cout << "kindlet pid " << children.back()->pid() << std::endl;
    }
    return true;
  }

  bool any() const { return !children.empty(); }
  bool anyEnded() {
    for (auto& child : children)
      if (child->ended()) return true;
    return false;
  }
  bool allEnded() {
    for (auto& child : children)
      if (!child->ended()) return false;
    return true;
  }
  void killAll() {
    for (auto& child : children) child->kill();
  }
  // A kindlet whose session was given up was told to stop; one that is
  // still running after the grace does not read at all and is killed, so
  // that `stop` and `wait` end.
  void killGivenUp(const RegistryServer& registry) {
    for (const GivenUp& given : registry.givenUp()) {
      if (Clock::now() - given.when < kGivenUpGrace) continue;
      for (auto& child : children) {
        if (child->pid() != given.pid || child->ended()) continue;
        std::cerr << "kindlet-control: kindlet pid " << given.pid << " was given up and has not ended after "
                  << kGivenUpGrace.count() << " s; killing it" << std::endl;
        child->kill();
      }
    }
  }
  // Each ended child's end, printed once; the first non-zero status, else 0.
  int report() {
    int status = 0;
    for (size_t i = 0; i < children.size(); ++i) {
      if (!children[i]->ended() && children[i]->started()) continue;
      const int own = (*reports[i])();
      if (status == 0) status = own;
    }
    return status;
  }

 private:
  const ClientLiveOptions& options;
  std::vector<std::unique_ptr<Launcher>> children;
  std::vector<std::unique_ptr<EndReport>> reports;
};

// Keeps the registry (and the viewer) served while waiting; true once `done`
// says so, false after `seconds` (0: no limit).
template <typename Poll, typename Done>
bool serveUntil(Poll& poll, double seconds, Done done) {
  const auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
  while (!done()) {
    if (seconds > 0 && Clock::now() >= deadline) return false;
    poll(20);
  }
  return true;
}

// "@<sequenceID> <line>" addresses the renders with that sequence ID alone.
bool splitTarget(const std::string& line, long& target, std::string& rest) {
  const size_t begin = line.find_first_not_of(" \t");
  if (begin == std::string::npos || line[begin] != '@') {
    rest = line;
    return false;
  }
  char* end = nullptr;
  target = std::strtol(line.c_str() + begin + 1, &end, 0);
  rest = end;
  return true;
}

// The script's data bytes are those of the legacy data channel (a frame of
// length and attribute); "raw-" lines are sent exactly as given.
std::string messageFor(const Step& step, bool raw) {
  if (raw) return step.bytes;
  if (step.kind == Step::SendData) return protocol::encodeUpdate(step.bytes.substr(8));
  return protocol::encodeCommand(std::string(step.bytes.c_str()));
}

}  // namespace

int runClientLiveMode(const ClientLiveOptions& options, std::istream& script) {
  std::unique_ptr<ImageFiles> imageFiles;
  if (!options.imagesDirectory.empty()) {
    std::error_code error;
    std::filesystem::create_directories(options.imagesDirectory, error);
    if (error) {
      std::cerr << "kindlet-control: cannot make " << options.imagesDirectory << ": "
                << error.message() << std::endl;
      return 2;
    }
    imageFiles.reset(new ImageFiles(options.imagesDirectory));
  }
  std::unique_ptr<Viewer> viewer;  // outlives the registry, which hands it passes
  std::unique_ptr<ImageMerge> merge;  // likewise; one view on several kindlets
  RegistryLimits limits;
  limits.sessions = options.maxSessions;
  limits.sessionsPerConnection = options.maxSessionsPerConnection;
  limits.messageBytes = options.maxMessageBytes;
  RegistryServer registry(options.backlogLimit, true, limits);
  if (options.view) {
    ViewerOptions viewing;
    viewing.address = options.viewAddress;
    viewing.port = options.viewPort;
    viewing.pageDirectory = Launcher::installRoot() + "/share/kindlet/viewer";
    viewing.saveDirectory = options.viewSaveDirectory;
    std::string error;
    viewer = Viewer::open(viewing, imageFiles.get(), error);
    if (!viewer) {
      std::cerr << "kindlet-control: --view: " << error << std::endl;
      return 2;
    }
    registry.alsoWakeOn(viewer->wakeFd());
  }
  ImageConsumer* images = viewer ? &viewer->consumer() : imageFiles.get();
  if (images && options.kindlets > 0) {
    merge.reset(new ImageMerge(*images, std::cerr));
    images = merge.get();
  }
  if (images) registry.receiveImages(*images);
  if (options.kindlets > 0) registry.replayUpdates();
  auto poll = [&](int milliseconds) {
    registry.poll(milliseconds);
    if (viewer) viewer->serve(registry);
  };
  unsigned short port = options.registryPort;
  if (!registry.bind(port)) return 2;
  std::cout << "service registry port " << port << std::endl;
  if (viewer) std::cout << "viewer at " << viewer->url() << std::endl;

  Renders renders(options);
  if (options.start && !renders.start(port)) {
    renders.killAll();
    return renders.report();
  }
  SlurmKindlets slurm;  // cancelled on the way out
  if (options.slurm && !slurm.submit(options.kindlets, "127.0.0.1", port, options.kindletOptions))
    return 2;
  const size_t wanted =
      options.start || options.slurm
          ? static_cast<size_t>(options.kindlets > 0 ? options.kindlets : options.renders)
          : 1;
  const bool registered = serveUntil(poll, options.connectTimeout, [&] {
    return registry.sessions().size() >= wanted || (renders.any() && renders.anyEnded());
  });
  if (!registered || registry.sessions().size() < wanted) {
    if (renders.any() && renders.anyEnded()) {
      std::cerr << "kindlet-control: kindlet ended before it registered" << std::endl;
      renders.killAll();
      return renders.report();
    }
    std::cerr << "kindlet-control: no registration within " << options.connectTimeout << " s"
              << std::endl;
    renders.killAll();
    return 3;
  }

  auto waitForEnd = [&] {
    if (!renders.any()) {
      serveUntil(poll, 0, [&] { return registry.sessions().empty(); });
      std::cout << "kindlet disconnected" << std::endl;
      return;
    }
    if (!serveUntil(poll, options.timeout, [&] {
          renders.killGivenUp(registry);
          return renders.allEnded();
        })) {
      std::cerr << "kindlet-control: kindlet still running after " << options.timeout
                << " s; killing it" << std::endl;
      renders.killAll();
    }
  };

  // close-* and reset-* take the registry away (one stream carries updates
  // and commands, so the data and control variants are the same). It comes
  // back on the same port at once after reset-*, or after close-* with the
  // next line that sends or waits; the script goes on once every session
  // has registered again.
  bool down = false;
  size_t expected = 0;
  auto goAway = [&] {
    expected = registry.sessions().size();
    registry.close(2);
    down = true;
    std::cout << "service registry closed" << std::endl;
  };
  auto comeBack = [&](int lineNumber) {
    if (!down) return true;
    down = false;
    unsigned short same = port;
    if (!registry.bind(same, 5)) return false;
    std::cout << "service registry port " << port << std::endl;
    if (serveUntil(poll, options.connectTimeout,
                   [&] { return registry.sessions().size() >= expected || renders.anyEnded(); }) &&
        registry.sessions().size() >= expected)
      return true;
    std::cerr << "kindlet-control: line " << lineNumber << ": the sessions did not register again within "
              << options.connectTimeout << " s" << std::endl;
    return false;
  };
  auto givenUp = [&] {
    renders.killAll();
    renders.report();
    return 3;
  };

  // Lines are read on a thread of their own, so that the renders (their
  // images, their backlogs) and the page are served while the script (a
  // terminal, a pipe) has nothing to say.
  LineFeed feed(script);
  auto nextLine = [&](std::string& text) {
    return feed.next(text, [&] { poll(5); }, [&] { return viewer && viewer->ended(); });
  };
  auto stopRenders = [&](const long* to) {
    const auto stop = std::make_shared<const std::string>(protocol::encodeCommand("stopLiveEditing"));
    // A stop that comes while kindlet starts its live render is overwritten
    // when the live loop begins; sending it again costs nothing.
    for (int attempt = 0; attempt < 10; ++attempt) {
      if (registry.send(stop, to) == 0 || !renders.any()) break;
      if (serveUntil(poll, 2, [&] {
            renders.killGivenUp(registry);
            return renders.allEnded();
          }))
        break;
    }
  };

  std::string text;
  int lineNumber = 0;
  while (nextLine(text)) {
    ++lineNumber;
    poll(0);
    long target = 0;
    std::string line;
    const bool addressed = splitTarget(text, target, line);
    Step step;
    std::string error;
    if (!parseLine(line, step, error)) {
      std::cerr << "kindlet-control: line " << lineNumber << ": " << error << std::endl;
      renders.killAll();
      return 2;
    }
    const bool raw = line.find("raw-") != std::string::npos &&
                     line.find("raw-") == line.find_first_not_of(" \t");
    const long* to = addressed ? &target : nullptr;
    const bool needsRegistry = step.kind == Step::SendData || step.kind == Step::SendControl ||
                               step.kind == Step::Stop || step.kind == Step::Wait;
    if (needsRegistry && !comeBack(lineNumber)) return givenUp();
    switch (step.kind) {
      case Step::None:
        break;
      case Step::SendData:
      case Step::SendControl:
        if (registry.send(messageFor(step, raw), to) == 0)
          std::cerr << "kindlet-control: line " << lineNumber << ": no session to send to"
                    << std::endl;
        else if (viewer && step.kind == Step::SendData)
          viewer->countUpdate(registry, to);
        break;
      case Step::Sleep:
        serveUntil(poll, 0, [&, until = Clock::now() + std::chrono::milliseconds(
                                                step.milliseconds)] { return Clock::now() >= until; });
        break;
      case Step::Stop:
        stopRenders(to);
        break;
      case Step::Wait:
        waitForEnd();
        renders.report();
        break;
      case Step::CloseData:
      case Step::CloseControl:
        if (!down) goAway();
        break;
      case Step::ResetData:
      case Step::ResetControl:
        if (!down) goAway();
        if (!comeBack(lineNumber)) return givenUp();
        break;
    }
  }
  if (!comeBack(lineNumber)) return givenUp();
  if (viewer) {
    // The script's end does not end a viewed render: the page's stop button,
    // SIGINT or SIGTERM do, or the renders' own end.
    serveUntil(poll, 0, [&] {
      return viewer->ended() || (renders.any() ? renders.allEnded() : registry.sessions().empty());
    });
    if (viewer->ended()) stopRenders(nullptr);
  }
  if (!renders.any()) return 0;
  waitForEnd();
  return renders.report();
}

}  // namespace KindletControl
