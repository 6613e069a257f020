#include "ImageSender.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Bytes.h"
#include "LiveRendering/LiveRenderProtocol.h"
#include "XoLoggingHost/XoLoggerGlue.h"
#include "ZmqLibrary.h"

namespace Morrigo {
namespace Selvane {
namespace LiveRendering {

namespace {

const char kSource[] = "platform/liveclient/ImageSender";
const int64_t kLargestImageAnswer = 256;

const XoLoggingHost::XoLoggerGlue& channel() {
  static const XoLoggingHost::XoLoggerGlue logger("LiveRendering");
  return logger;
}

void setOption(const ZmqLibrary& zmq, void* socket, int option, int value) {
  zmq.zmq_setsockopt(socket, option, &value, sizeof value);
}

}  // namespace

ImageSender::ImageSender(const ZmqLibrary& zmq, void* context, const std::string& endpoint,
                         const ImageHello& hello)
    : zmq(zmq), endpoint(endpoint), helloMessage(encodeImageHello(hello)) {
  socket = zmq.zmq_socket(context, ZMQ_DEALER);
  setOption(zmq, socket, ZMQ_LINGER, 0);  // pixels are not worth waiting for at the end
  setOption(zmq, socket, ZMQ_HEARTBEAT_IVL, 1000);
  setOption(zmq, socket, ZMQ_HEARTBEAT_TIMEOUT, 3000);
  setOption(zmq, socket, ZMQ_RECONNECT_IVL_MAX, 1000);
  // The controller sends only kImageDone here: anything much larger ends
  // the connection before it is allocated.
  const int64_t largest = kLargestImageAnswer;
  zmq.zmq_setsockopt(socket, ZMQ_MAXMSGSIZE, &largest, sizeof largest);
  char name[64];
  snprintf(name, sizeof name, "inproc://image-events-%p", static_cast<void*>(this));
  zmq.zmq_socket_monitor(socket, name, ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_DISCONNECTED);
  monitor = zmq.zmq_socket(context, ZMQ_PAIR);
  zmq.zmq_connect(monitor, name);
  snprintf(name, sizeof name, "inproc://image-stop-%p", static_cast<void*>(this));
  stopReceiver = zmq.zmq_socket(context, ZMQ_PAIR);
  zmq.zmq_bind(stopReceiver, name);
  stopSender = zmq.zmq_socket(context, ZMQ_PAIR);
  zmq.zmq_connect(stopSender, name);
  wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  XoImageOut::setWakeDescriptor(wakeFd);
  zmq.zmq_connect(socket, endpoint.c_str());
  thread = std::thread(&ImageSender::run, this);
}

ImageSender::~ImageSender() {
  zmq.zmq_send(stopSender, "", 0, 0);
  thread.join();
  XoImageOut::setWakeDescriptor(-1);
  forgetAll();
  zmq.zmq_socket_monitor(socket, nullptr, 0);
  for (void* s : {monitor, stopSender, stopReceiver, socket}) zmq.zmq_close(s);
  if (wakeFd >= 0) ::close(wakeFd);
}

void ImageSender::want(const std::vector<std::string>& wishes, bool local, bool takes) {
  {
    std::lock_guard<std::mutex> lock(wishMutex);
    names = wishes;
    sameMachine = local;
    controllerTakes = takes;
  }
  const uint64_t one = 1;
  (void)!::write(wakeFd, &one, sizeof one);
}

void ImageSender::run() {
  const int doorbell = XoImageOut::doorbellDescriptor();
  zmq_pollitem_t items[5] = {{socket, 0, ZMQ_POLLIN, 0},
                             {monitor, 0, ZMQ_POLLIN, 0},
                             {stopReceiver, 0, ZMQ_POLLIN, 0},
                             {nullptr, wakeFd, ZMQ_POLLIN, 0},
                             {nullptr, doorbell, ZMQ_POLLIN, 0}};
  for (;;) {
    // The doorbell is ours only while passes go as messages: otherwise the
    // controller sleeps on it.
    const bool onDoorbell = doorbell >= 0 && connected && passesByMessage;
    if (zmq.zmq_poll(items, onDoorbell ? 5 : 4, -1) < 0) {
      if (zmq.zmq_errno() == EINTR) continue;
      break;
    }
    if (items[2].revents & ZMQ_POLLIN) break;
    uint64_t count;
    while (::read(wakeFd, &count, sizeof count) > 0) {
    }
    char bytes[64];
    if (onDoorbell)
      while (::read(doorbell, bytes, sizeof bytes) > 0) {
      }
    connectionEvents();
    received();
    if (connected) sync();
  }
}

void ImageSender::connectionEvents() {
  zmq_msg_t message;
  zmq.zmq_msg_init(&message);
  while (zmq.zmq_msg_recv(&message, monitor, ZMQ_DONTWAIT) >= 0) {
    uint16_t event = 0;
    if (zmq.zmq_msg_size(&message) >= 2)
      event = static_cast<uint16_t>(
          readLittleEndian(static_cast<const unsigned char*>(zmq.zmq_msg_data(&message)), 2));
    while (zmq.zmq_msg_more(&message) && zmq.zmq_msg_recv(&message, monitor, 0) >= 0) {
    }
    if (event == ZMQ_EVENT_HANDSHAKE_SUCCEEDED) {
      // A controller (maybe a new one) knows nothing of our images yet.
      forgetAll();
      {
        std::lock_guard<std::mutex> lock(wishMutex);
        passesByMessage = !(sameMachine && controllerTakes);
      }
      connected = send(helloMessage);
    } else if (event == ZMQ_EVENT_DISCONNECTED) {
      // Also after a message beyond the largest size, which ZeroMQ does
      // not connect again after (LiveRenderClient.cpp).
      zmq.zmq_disconnect(socket, endpoint.c_str());
      zmq.zmq_connect(socket, endpoint.c_str());
      connected = false;
    }
  }
  zmq.zmq_msg_close(&message);
}

void ImageSender::received() {
  zmq_msg_t message;
  zmq.zmq_msg_init(&message);
  while (zmq.zmq_msg_recv(&message, socket, ZMQ_DONTWAIT) >= 0) {
    uint32_t image = 0;
    uint64_t pass = 0;
    std::string error;
    if (zmq.zmq_msg_more(&message)) {
      while (zmq.zmq_msg_more(&message) && zmq.zmq_msg_recv(&message, socket, 0) >= 0) {
      }
      dropped("a message of several frames");
    } else if (!decodeImageDone(zmq.zmq_msg_data(&message), zmq.zmq_msg_size(&message), image,
                                pass, error)) {
      dropped(error);
    } else {
      auto found = announced.find(image);
      // A pass that is not on its way is an old controller's answer: ignored.
      if (found != announced.end() && found->second.flying == pass && pass != 0)
        found->second.flying = 0;
    }
  }
  zmq.zmq_msg_close(&message);
}

void ImageSender::sync() {
  std::vector<std::string> wishes;
  bool local;
  {
    std::lock_guard<std::mutex> lock(wishMutex);
    wishes = names;
    local = sameMachine;
  }
  auto isWanted = [&](const std::string& name) {
    return std::any_of(wishes.begin(), wishes.end(),
                       [&](const std::string& wish) { return wish == "*" || wish == name; });
  };
  const std::vector<XoImageOut::PublishedImage> open = XoImageOut::openImages();
  for (auto it = announced.begin(); it != announced.end();) {
    XoImageOut::PublishedImage& image = it->second.image;
    if (image.open() && isWanted(image.description().name)) {
      ++it;
      continue;
    }
    if (image.open()) image.unwant();
    send(encodeImageClose(it->first));
    it = announced.erase(it);
  }
  for (XoImageOut::PublishedImage image : open) {
    const XoImageOut::ImageDescription& description = image.description();
    if (announced.count(description.id) || !isWanted(description.name)) continue;
    std::string error;
    if (!image.want(error)) {
      if (channel().errorEnabled()) channel().error("LiveRenderClient: " + error, kSource, __LINE__);
      continue;
    }
    ImageOpen message;
    message.image = description.id;
    message.name = description.name;
    message.width = description.width;
    message.height = description.height;
    message.channels = description.channels;
    message.half = description.pixelType == XoImageOut::kHalf;
    if (local) {
      const std::string fds = "/proc/" + std::to_string(::getpid()) + "/fd/";
      message.region = fds + std::to_string(image.fd());
      message.slotBytes = image.slotBytes();
      if (!passesByMessage)
        message.doorbell = fds + std::to_string(XoImageOut::doorbellDescriptor());
    }
    if (!send(encodeImageOpen(message))) return;
    announced.emplace(description.id, Announced{image, 0});
  }
  if (!passesByMessage) return;
  for (auto& entry : announced) sendPass(entry.first, entry.second, local);
}

void ImageSender::sendPass(uint32_t id, Announced& one, bool local) {
  if (one.flying != 0) return;  // its kImageDone brings us back
  for (;;) {
    if (one.image.take(one.taken)) {
      one.unsent = true;
    } else if (!one.unsent) {
      // Nothing new: sleep on the doorbell, unless a pass came meanwhile.
      if (one.image.sleep()) return;
      continue;
    }
    break;
  }
  const XoImageOut::TakenPass& taken = one.taken;
  ImagePass pass;
  pass.image = id;
  pass.slot = local ? taken.slot : kInlinePixels;
  pass.pass = taken.pass;
  pass.samples = taken.samples;
  pass.sceneState = taken.sceneState;
  const std::string header = encodeImagePassHeader(pass);
  zmq_msg_t message;
  const size_t size = header.size() + (local ? 0 : taken.bytes);
  zmq.zmq_msg_init_size(&message, size);
  auto* bytes = static_cast<char*>(zmq.zmq_msg_data(&message));
  std::memcpy(bytes, header.data(), header.size());
  if (!local) std::memcpy(bytes + header.size(), taken.pixels, taken.bytes);
  if (zmq.zmq_msg_send(&message, socket, ZMQ_DONTWAIT) < 0) {
    // Sent again when the connection takes it, unless a newer one is.
    zmq.zmq_msg_close(&message);
    return;
  }
  one.unsent = false;
  one.flying = taken.pass;
}

bool ImageSender::send(const std::string& message) {
  return zmq.zmq_send(socket, message.data(), message.size(), ZMQ_DONTWAIT) >= 0;
}

void ImageSender::forgetAll() {
  for (auto& entry : announced)
    if (entry.second.image.open()) entry.second.image.unwant();
  announced.clear();
}

void ImageSender::dropped(const std::string& why) {
  if (channel().errorEnabled())
    channel().error("LiveRenderClient: dropped a message from the controller at " + endpoint +
                        " on the image connection: " + why + ".",
                    kSource, __LINE__);
}

}  // namespace LiveRendering
}  // namespace Selvane
}  // namespace Morrigo
