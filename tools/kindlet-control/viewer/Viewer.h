// kindlet-control --view: the browser viewer of a live render, as the client
// live mode sees it. Owns the hand-over between the threads (ViewerHub), the
// registry's side (ViewerBridge) and the server on its own thread
// (ViewerServer). While it is open, SIGINT and SIGTERM no longer end the
// program at once: they end the session (the renders are told to stop).
#pragma once

#include <memory>
#include <string>

#include "RegistryServer.h"
#include "ViewerBridge.h"
#include "ViewerHub.h"
#include "ViewerServer.h"

namespace KindletControl {

// "[ADDRESS:]PORT" of --view; false for anything else.
bool parseViewAddress(const std::string& text, std::string& address, unsigned short& port);

class Viewer {
 public:
  // `also`: a consumer that gets the passes too (or null). Null with `error`
  // set when the server cannot listen.
  static std::unique_ptr<Viewer> open(ViewerOptions options, ImageConsumer* also, std::string& error);
  ~Viewer();

  ImageConsumer& consumer() { return bridge; }
  int wakeFd() const { return hub.editFd(); }
  std::string url() const { return server.url(); }
  // On the registry's thread, after each poll.
  void serve(RegistryServer& registry) { bridge.serve(registry); }
  void countUpdate(const RegistryServer& registry, const long* target) {
    bridge.countUpdate(registry, target);
  }
  // The page's stop button, SIGINT or SIGTERM.
  bool ended() const;

 private:
  Viewer(ViewerOptions options, ImageConsumer* also);

  ViewerHub hub;
  ViewerBridge bridge;
  ViewerServer server;
};

}  // namespace KindletControl
