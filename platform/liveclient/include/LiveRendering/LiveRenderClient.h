// The client side of a live render's session with its controlling
// application. initializeSession connects to the controller's service
// registry (a ZeroMQ routing socket at host:port), registers the session and
// returns; from then on one thread of the client receives the controller's
// updates and commands and hands them, in the order sent, to the two
// callbacks. When the controller goes away the client logs one error line,
// keeps waiting for it and registers again when it is back.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "LiveRendering/ImageProtocol.h"
#include "XoAttribute/Attribute.h"
#include "XoRendererPlugin/XoRendererPluginManager.h"
#include "XoScenegraph/XoScenegraphIterator.h"

struct zmq_msg_t;

namespace Morrigo {
namespace Selvane {
namespace LiveRendering {

struct ZmqLibrary;
struct ControllerMessage;
class SharedRegion;
class ImageSender;

class LiveRenderClient {
 public:
  using UpdateCallback = std::function<void(const Arbolite3::internal::XoAttribute::GroupAttribute&)>;
  using CommandCallback = std::function<void(const std::string&)>;

  LiveRenderClient();
  // Stops and joins the receiving thread, tells the controller the session
  // ended, then lets go of the callbacks.
  ~LiveRenderClient();
  LiveRenderClient(const LiveRenderClient&) = delete;
  LiveRenderClient& operator=(const LiveRenderClient&) = delete;

  // Once per client. Throws Rendering::RendererPluginError when there is no
  // registry to connect to (empty host, port 0, an address ZeroMQ refuses)
  // or when the ZeroMQ library, loaded by the first session, cannot be.
  // The controller need not be up yet: the session registers when it is.
  void initializeSession(const std::string& sessionName, long sequenceID,
                         const std::string& opTreeFile,
                         const Arbolite3::internal::XoScenegraphIterator& iterator,
                         Arbolite3::internal::XoRendererInfo::XoRendererInfoPlugin& rendererInfo,
                         const std::string& host, uint16_t serviceRegistryPort,
                         UpdateCallback updateCallback, CommandCallback commandCallback);

 private:
  void receive();
  // Decodes one message from the socket and hands it to its callback, or
  // logs why not.
  void deliver(zmq_msg_t& message, std::string& command);
  // The same for the records the controller has published in the region.
  void readStream(std::string& command);
  void handOn(const ControllerMessage& decoded, const std::string& command);
  // While the stream is in the region: sleeps until the doorbell or a
  // socket may have news; false (at once) when a record came meanwhile.
  bool sleepOnDoorbell();
  bool hasInput(void* zmqSocket) const;
  int descriptor(void* zmqSocket) const;
  void dropped(const std::string& why);

  std::string endpoint;
  std::string sequenceText;
  std::string registerMessage;
  std::string stopEndpoint;
  UpdateCallback onUpdate;
  CommandCallback onCommand;
  const ZmqLibrary* zmq = nullptr;  // set by initializeSession
  void* context = nullptr;
  void* socket = nullptr;   // DEALER to the registry; used by the thread alone once it runs
  void* monitor = nullptr;  // PAIR receiving the socket's connection events
  void* stopSender = nullptr;  // PAIR: the destructor's word to the thread
  void* stopReceiver = nullptr;
  std::atomic<bool> stopping{false};  // set with the word, seen between messages
  std::unique_ptr<SharedRegion> region;  // the controller's, once announced; the thread's alone
  ImageHello hello;                       // how the image connection names this session
  std::unique_ptr<ImageSender> images;    // once the controller asks for images; the thread's
  std::thread thread;
};

}  // namespace LiveRendering
}  // namespace Selvane
}  // namespace Morrigo
