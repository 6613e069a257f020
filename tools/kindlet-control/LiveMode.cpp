#include "LiveMode.h"

#include <sys/socket.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "ClientLiveMode.h"
#include "Launcher.h"
#include "Listening.h"
#include "Script.h"
#include "viewer/Viewer.h"

using Arbolite3::Base::FileDescriptor;

namespace KindletControl {

namespace {

const char usage[] =
    "usage: kindlet-control [options] [-- kindlet options...]\n"
    "       kindlet-control render [--registry HOST:PORT] [--report-fd N] -- kindlet options...\n"
    "  --registry-port N    port of the service registry (default 0: a free one)\n"
    "  --renders N          start N kindlets, with -sequenceID 1..N (default 1)\n"
    "  --kindlets N         one view on N kindlets (with --start: started with\n"
    "                       -sampleOffset 0..N-1 -sampleStride N); their images are\n"
    "                       merged, every update also goes to those that join later\n"
    "  --slurm              with --kindlets: submit them as a Slurm array job instead\n"
    "  --legacy-tcp         feed kindlet over the two TCP channels instead:\n"
    "  --control-port N     port of the control channel (default 0: a free one)\n"
    "  --data-port N        port of the data channel (default 0: a free one)\n"
    "  --script FILE        commands to run (default: standard input)\n"
    "  --images DIR         write each image the renders send to DIR/<sequenceID>.<image>.exr,\n"
    "                       replaced as passes arrive (not with --legacy-tcp)\n"
    "  --view [ADDR:]PORT   serve the browser viewer there (default address 127.0.0.1;\n"
    "                       another address needs the printed token); the script's\n"
    "                       end then does not end the render: the page's stop\n"
    "                       button, SIGINT or SIGTERM do (not with --legacy-tcp)\n"
    "  --view-save-dir DIR  where the viewer's \"save\" writes images (default: .)\n"
    "  --start              start the kindlet installed beside this program\n"
    "  --kindlet PATH       start this kindlet\n"
    "  --connect-timeout S  give up when kindlet hasn't registered or connected\n"
    "                       after S seconds (60)\n"
    "  --timeout S          kill kindlet when it hasn't ended S seconds after the\n"
    "                       script asked to wait (default: wait for ever)\n"
    "  --backlog-limit N    give a session up when more than N bytes wait for it\n"
    "                       (268435456)\n"
    "  --max-sessions N     refuse registrations beyond N sessions at once (128)\n"
    "  --max-sessions-per-connection N   ... beyond N on one connection (1)\n"
    "  --max-message-bytes N   end a client's connection that sends a larger\n"
    "                       message (2147483648)\n"
    "Options after -- go to kindlet, after the live-render options this program\n"
    "adds (-host 127.0.0.1:0 -serviceRegistryPort P -renderMethodType liveRender;\n"
    "with --legacy-tcp -portControl N -portData M instead of the registry port).\n"
    "Exit status: kindlet's (128 + signal when killed; the first non-zero one of\n"
    "several), or 0 without a child; 2 for a usage or script error, 3 when kindlet\n"
    "didn't register or connect, 125 when it could not be started.\n";

struct Options {
  unsigned short controlPort = 0;
  unsigned short dataPort = 0;
  std::string script;
  std::string kindlet;
  bool start = false;
  double connectTimeout = 60;
  double timeout = 0;
  std::vector<std::string> kindletOptions;
  bool legacyTcp = false;
  ClientLiveOptions client;  // the same settings, for the default transport
};

bool parseNumber(const char* text, double& value) {
  char* rest = nullptr;
  value = std::strtod(text, &rest);
  return *text != '\0' && *rest == '\0' && value >= 0;
}

bool parseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    if (option == "--") {
      options.kindletOptions.assign(argv + i + 1, argv + argc);
      options.client.kindletOptions = options.kindletOptions;
      return true;
    }
    if (option == "--start") {
      options.start = options.client.start = true;
      continue;
    }
    if (option == "--slurm") {
      options.client.slurm = true;
      continue;
    }
    if (option == "--legacy-tcp") {
      options.legacyTcp = true;
      continue;
    }
    if (option == "--help" || option == "-h") return false;
    if (i + 1 >= argc) return false;
    const char* value = argv[++i];
    double number = 0;
    if (option == "--script") {
      options.script = value;
    } else if (option == "--images" && *value != '\0') {
      options.client.imagesDirectory = value;
    } else if (option == "--view" &&
               parseViewAddress(value, options.client.viewAddress, options.client.viewPort)) {
      options.client.view = true;
    } else if (option == "--view-save-dir" && *value != '\0') {
      options.client.viewSaveDirectory = value;
    } else if (option == "--kindlet") {
      options.kindlet = options.client.kindlet = value;
      options.start = options.client.start = true;
    } else if (option == "--registry-port" && parseNumber(value, number) && number <= 65535) {
      options.client.registryPort = static_cast<unsigned short>(number);
    } else if (option == "--renders" && parseNumber(value, number) && number >= 1 &&
               number <= 64) {
      options.client.renders = static_cast<int>(number);
    } else if (option == "--kindlets" && parseNumber(value, number) && number >= 1 &&
               number <= 128) {
      options.client.kindlets = static_cast<int>(number);
    } else if ((option == "--control-port" || option == "--data-port") &&
               parseNumber(value, number) && number <= 65535) {
      (option == "--control-port" ? options.controlPort : options.dataPort) =
          static_cast<unsigned short>(number);
    } else if (option == "--connect-timeout" && parseNumber(value, number)) {
      options.connectTimeout = options.client.connectTimeout = number;
    } else if (option == "--timeout" && parseNumber(value, number)) {
      options.timeout = options.client.timeout = number;
    } else if (option == "--backlog-limit" && parseNumber(value, number) && number >= 1) {
      options.client.backlogLimit = static_cast<size_t>(number);
    } else if (option == "--max-sessions" && parseNumber(value, number) && number >= 1) {
      options.client.maxSessions = static_cast<size_t>(number);
    } else if (option == "--max-sessions-per-connection" && parseNumber(value, number) &&
               number >= 1) {
      options.client.maxSessionsPerConnection = static_cast<size_t>(number);
    } else if (option == "--max-message-bytes" && parseNumber(value, number) && number >= 64 &&
               number < 9e18) {
      options.client.maxMessageBytes = static_cast<int64_t>(number);
    } else {
      return false;
    }
  }
  return true;
}

bool sendAll(FileDescriptor& fd, const std::string& bytes, const char* channel, int line) {
  if (!fd) {
    std::cerr << "kindlet-control: line " << line << ": the " << channel
              << " channel is closed" << std::endl;
    return false;
  }
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = ::send(fd.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      std::cerr << "kindlet-control: line " << line << ": " << channel
                << " channel: " << std::strerror(errno) << std::endl;
      return false;
    }
    sent += static_cast<size_t>(n);
  }
  return true;
}

void resetConnection(FileDescriptor& fd) {
  const linger abort = {1, 0};
  ::setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  fd.reset();
}

// Without a child: kindlet never writes on the channels, so the end of both
// streams means its process has ended.
void waitForDisconnect(FileDescriptor& control, FileDescriptor& data) {
  for (FileDescriptor* fd : {&control, &data}) {
    char buffer[4096];
    while (*fd && ::recv(fd->get(), buffer, sizeof buffer, 0) > 0) {
    }
  }
  std::cout << "kindlet disconnected" << std::endl;
}

bool waitOrKill(Launcher& child, double timeout) {
  if (child.waitFor(timeout)) return true;
  std::cerr << "kindlet-control: kindlet still running after " << timeout << " s; killing it"
            << std::endl;
  child.kill();
  return false;
}

}  // namespace

int runLiveMode(int argc, char** argv) {
  Options options;
  if (!parseOptions(argc, argv, options)) {
    std::cerr << usage;
    return 2;
  }
  // Lives to the end of the process: the client mode reads it on a thread
  // that a script which never ends (a pipe, a terminal) leaves behind.
  static std::ifstream* const scriptFile = new std::ifstream();
  if (!options.script.empty() && options.script != "-") {
    scriptFile->open(options.script);
    if (!*scriptFile) {
      std::cerr << "kindlet-control: cannot read " << options.script << std::endl;
      return 2;
    }
  }
  std::istream& script = scriptFile->is_open() ? *scriptFile : std::cin;
  if (options.client.slurm && (options.client.kindlets == 0 || options.start)) {
    std::cerr << "kindlet-control: --slurm needs --kindlets N and no --start" << std::endl;
    return 2;
  }
  if (options.client.kindlets > 0 && (options.legacyTcp || options.client.renders > 1)) {
    std::cerr << "kindlet-control: --kindlets is one view: not with --renders or --legacy-tcp" << std::endl;
    return 2;
  }
  if (!options.legacyTcp) return runClientLiveMode(options.client, script);
  if (options.client.view) {
    std::cerr << "kindlet-control: --view needs the live-render client, not --legacy-tcp" << std::endl;
    return 2;
  }

  FileDescriptor controlListener = listenOn(options.controlPort);
  FileDescriptor dataListener = listenOn(options.dataPort);
  if (!controlListener || !dataListener) return 2;
  std::cout << "control port " << options.controlPort << "\n"
            << "data port " << options.dataPort << std::endl;

  Launcher child(options.kindlet);
  EndReport report(child);
  if (options.start) {
    std::vector<std::string> arguments = {"-host",
                                          "127.0.0.1:0",
                                          "-portControl",
                                          std::to_string(options.controlPort),
                                          "-portData",
                                          std::to_string(options.dataPort),
                                          "-renderMethodType",
                                          "liveRender"};
    arguments.insert(arguments.end(), options.kindletOptions.begin(),
                     options.kindletOptions.end());
    if (!child.start(arguments, {{"SELVANE_DISABLE_PREVANE_PLUS", "1"}}))
      return child.reportEnd();
    std::cout << "kindlet pid " << child.pid() << std::endl;
  }

  FileDescriptor control, data;
  if (!acceptBoth(controlListener, dataListener, control, data, child, options.connectTimeout)) {
    if (child.started() && child.ended()) return report();
    child.kill();
    return 3;
  }

  std::string text;
  int lineNumber = 0;
  while (std::getline(script, text)) {
    ++lineNumber;
    Step step;
    std::string error;
    if (!parseLine(text, step, error)) {
      std::cerr << "kindlet-control: line " << lineNumber << ": " << error << std::endl;
      child.kill();
      return 2;
    }
    switch (step.kind) {
      case Step::None:
        break;
      case Step::SendData:
        sendAll(data, step.bytes, "data", lineNumber);
        break;
      case Step::SendControl:
        sendAll(control, step.bytes, "control", lineNumber);
        break;
      case Step::Sleep:
        std::this_thread::sleep_for(std::chrono::milliseconds(step.milliseconds));
        break;
      case Step::CloseData:
        data.reset();
        break;
      case Step::CloseControl:
        control.reset();
        break;
      case Step::ResetData:
        resetConnection(data);
        break;
      case Step::ResetControl:
        resetConnection(control);
        break;
      case Step::Stop: {
        std::string record;
        controlRecord("stopLiveEditing", record, error);
        // A stop that comes while kindlet starts its live render is overwritten
        // when the live loop begins; sending it again costs nothing.
        for (int attempt = 0; attempt < 10; ++attempt) {
          if (!sendAll(control, record, "control", lineNumber)) break;
          if (!child.started() || child.waitFor(2)) break;
        }
        break;
      }
      case Step::Wait:
        if (!child.started()) {
          waitForDisconnect(control, data);
        } else {
          waitOrKill(child, options.timeout);
          report();
        }
        break;
    }
  }

  if (!child.started()) return 0;
  waitOrKill(child, options.timeout);
  return report();
}

}  // namespace KindletControl
