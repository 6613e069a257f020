// Sends the renderer's images (the image service's passes) to the
// controller on a connection and a thread of its own, so that they never
// delay the session's updates and commands. It starts when the controller
// first asks for images and sends only those it asked for: through the
// image's memory file when the controller runs on this machine, otherwise
// in the message. One pass of an image is on its way at a time; the
// controller's kImageDone lets the next (the newest) go. A controller on this
// machine that takes the passes from the memory files itself gets only the
// images' opens and closes from here.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "LiveRendering/ImageProtocol.h"
#include "XoImageOut/ImageHost.h"

namespace Morrigo {
namespace Selvane {
namespace LiveRendering {

struct ZmqLibrary;

class ImageSender {
 public:
  ImageSender(const ZmqLibrary& zmq, void* context, const std::string& endpoint,
              const ImageHello& hello);
  // Stops and joins the thread; images go back to unwanted.
  ~ImageSender();
  ImageSender(const ImageSender&) = delete;
  ImageSender& operator=(const ImageSender&) = delete;

  // From the session's thread: the images the controller asks for ("*":
  // all), whether it can map this process's memory files, and whether it
  // takes the passes from them itself.
  void want(const std::vector<std::string>& names, bool sameMachine, bool controllerTakes);

 private:
  struct Announced {
    XoImageOut::PublishedImage image;
    uint64_t flying = 0;  // the pass on its way, 0 for none
    // A pass taken that the connection did not take yet: sent again unless
    // a newer one comes first.
    bool unsent = false;
    XoImageOut::TakenPass taken;
  };

  void run();
  // Brings the controller up to date: closes, opens, the newest passes.
  void sync();
  // Sends the newest pass of `image` unless one is on its way.
  void sendPass(uint32_t id, Announced& image, bool local);
  void received();
  void connectionEvents();
  bool send(const std::string& message);
  void forgetAll();
  void dropped(const std::string& why);

  const ZmqLibrary& zmq;
  const std::string endpoint;
  const std::string helloMessage;
  void* socket = nullptr;
  void* monitor = nullptr;
  void* stopSender = nullptr;
  void* stopReceiver = nullptr;
  int wakeFd = -1;

  std::mutex wishMutex;
  std::vector<std::string> names;
  bool sameMachine = false;
  bool controllerTakes = false;

  // The thread's own.
  bool connected = false;
  bool passesByMessage = true;  // as announced to the connected controller
  std::map<uint32_t, Announced> announced;
  std::thread thread;
};

}  // namespace LiveRendering
}  // namespace Selvane
}  // namespace Morrigo
