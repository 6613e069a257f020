// One browser's WebSocket (docs/viewer.md has the messages). Frames go out
// newest-wins: while one is being written, a newer frame of the image the
// page watches replaces the one waiting, so a slow browser sees fewer passes
// and never a backlog. Texts (answers, the renders' list) go first. The
// first frame of a new scene state goes at once; further passes of the same
// state at most every kRefineInterval, so that the browser's work on the
// same cores does not slow the renderer down.
#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <string>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include "ViewerHub.h"

namespace KindletControl {

class ViewerServer;

class ViewerSession : public std::enable_shared_from_this<ViewerSession> {
 public:
  // The largest message the page may send.
  static const size_t kMessageLimit = 64 * 1024;
  static constexpr std::chrono::milliseconds kRefineInterval{250};

  ViewerSession(boost::asio::ip::tcp::socket socket, ViewerServer& server);
  void run(boost::beast::http::request<boost::beast::http::string_body> request);

  // On the server's thread.
  void sendText(std::string text);
  // A frame of image `key`: sent if the page watches that image.
  void offer(const std::string& key, const Frame& frame);

 private:
  void onAccept(boost::beast::error_code error);
  void read();
  void onRead(boost::beast::error_code error, size_t bytes);
  void handle(const std::string& text);
  void write();
  void onWrite(boost::beast::error_code error, size_t bytes);
  void error(const std::string& why);
  void watch(const std::string& key);
  // Answers the page from the registry's thread.
  std::function<void(const std::string&)> answerLater();

  boost::beast::websocket::stream<boost::beast::tcp_stream> ws;
  boost::beast::flat_buffer buffer;
  ViewerServer& server;
  std::string watched;  // "<sequenceID>/<image>"; empty: the first that comes
  std::deque<std::shared_ptr<const std::string>> texts;
  Frame waitingFrame;
  boost::asio::steady_timer refineTimer;
  bool timerArmed = false;
  std::chrono::steady_clock::time_point lastFrameSent;
  double lastState = -1;  // scene state of the last frame sent
  std::shared_ptr<const std::string> writing;
  bool closed = false;
};

}  // namespace KindletControl
