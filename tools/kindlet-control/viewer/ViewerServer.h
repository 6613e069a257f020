// kindlet-control --view: the HTTP and WebSocket server of the browser
// viewer (docs/viewer.md). It runs on a thread of its own with its own I/O
// context and meets the registry's thread only through the ViewerHub.
//
// It serves the page's files from one folder and a WebSocket at /ws: frames
// go out as binary messages, newest-wins per browser; the page's edits come
// in as small JSON texts. Bound to a loopback address, requests must name
// that address as their host (so that a page of another site cannot reach
// it through a name that points here); bound to any other address, every
// request and WebSocket must also carry the token printed at start, and a
// WebSocket's Origin must be the viewer's own.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/io_context.hpp>

#include "ViewerHub.h"

namespace KindletControl {

class ViewerSession;

struct ViewerOptions {
  std::string address = "127.0.0.1";
  unsigned short port = 0;  // 0: a free one
  std::string pageDirectory;
  std::string saveDirectory = ".";
};

class ViewerServer {
 public:
  ViewerServer(ViewerHub& hub, ViewerOptions options);
  ~ViewerServer();
  ViewerServer(const ViewerServer&) = delete;
  ViewerServer& operator=(const ViewerServer&) = delete;

  // Binds and starts the thread; false with a reason.
  bool start(std::string& error);
  // The address to open in a browser (with the token when one is needed).
  std::string url() const;
  bool needsToken() const { return !loopback; }

  // For the sessions, on the server's thread.
  ViewerHub& viewerHub() { return hub; }
  const ViewerOptions& viewerOptions() const { return options; }
  const std::string& accessToken() const { return token; }
  // Empty when a request with these headers may go on, else why not.
  std::string refusal(const std::string& host, const std::string& origin,
                      const std::string& target, const std::string& cookie,
                      bool websocket) const;
  void add(const std::shared_ptr<ViewerSession>& session);
  Frame latest(const std::string& key) const;
  const std::string& renders() const { return rendersJson; }
  // Key of some image that has frames ("" when none yet).
  std::string anyKey() const;

 private:
  void takeFromHub();

  ViewerHub& hub;
  const ViewerOptions options;
  bool loopback = true;
  std::string token;
  boost::asio::io_context context;
  std::shared_ptr<void> listener;
  std::thread thread;
  std::vector<std::weak_ptr<ViewerSession>> sessions;
  std::map<std::string, Frame> frames;  // the newest of each image
  std::string rendersJson = "{\"type\":\"renders\",\"renders\":[]}";
};

}  // namespace KindletControl
