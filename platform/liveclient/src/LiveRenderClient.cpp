#include "LiveRendering/LiveRenderClient.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "ImageSender.h"
#include "LiveRendering/LiveRenderProtocol.h"
#include "SharedRegion.h"
#include "XoImageOut/ImageHost.h"
#include "ZmqLibrary.h"
#include "XoConfiguration/Configuration.h"
#include "XoLoggingHost/XoLoggerGlue.h"

namespace Morrigo {
namespace Selvane {
namespace LiveRendering {

namespace {

const char kSource[] = "platform/liveclient/LiveRenderClient";

const XoLoggingHost::XoLoggerGlue& channel() {
  static const XoLoggingHost::XoLoggerGlue logger("LiveRendering");
  return logger;
}

// A controller that stops answering ZeroMQ's heartbeats for this long counts
// as gone even when its TCP connection never closed (a hung or stopped process).
const int kHeartbeatIntervalMs = 1000;
const int kHeartbeatTimeoutMs = 3000;
const int kReconnectMaxMs = 1000;
const int kLingerMs = 200;  // time the goodbye gets to leave at the end
// A stream that pauses this long hands over to the poll of all three sockets.
const int kStreamPauseMs = 2;

std::string zmqError(const ZmqLibrary& zmq) { return zmq.zmq_strerror(zmq.zmq_errno()); }

void setOption(const ZmqLibrary& zmq, void* socket, int option, int value) {
  zmq.zmq_setsockopt(socket, option, &value, sizeof value);
}

// The largest message taken from the controller: a larger one ends the
// connection (ZeroMQ refuses it before allocating) and the session registers
// again. By default what the protocol's 32-bit lengths allow.
int64_t largestMessage() {
  const std::string text =
      Arbolite3::XoConfiguration::v1::Config().get("SELVANE_LIVE_MAX_MESSAGE_BYTES");
  char* end = nullptr;
  const long long value = text.empty() ? 0 : std::strtoll(text.c_str(), &end, 10);
  if (text.empty()) return kLargestControllerMessage;
  if (*end != '\0' || value < int64_t(kHeaderSize)) {
    if (channel().warnEnabled())
      channel().warn("LiveRenderClient: SELVANE_LIVE_MAX_MESSAGE_BYTES=" + text +
                         " is not a number of bytes of at least 5; using " +
                         std::to_string(kLargestControllerMessage) + ".",
                     kSource, __LINE__);
    return kLargestControllerMessage;
  }
  return value;
}

void closeSocket(const ZmqLibrary& zmq, void*& socket) {
  if (socket != nullptr) zmq.zmq_close(socket);
  socket = nullptr;
}

}  // namespace

LiveRenderClient::LiveRenderClient() : region(new SharedRegion()) {}

LiveRenderClient::~LiveRenderClient() {
  if (zmq == nullptr) return;  // no session was ever started
  if (thread.joinable()) {
    stopping.store(true, std::memory_order_release);
    zmq->zmq_send(stopSender, "", 0, 0);
    thread.join();
  }
  images.reset();
  if (socket != nullptr) zmq->zmq_socket_monitor(socket, nullptr, 0);
  closeSocket(*zmq, monitor);
  closeSocket(*zmq, stopSender);
  closeSocket(*zmq, stopReceiver);
  closeSocket(*zmq, socket);
  if (context != nullptr) zmq->zmq_ctx_term(context);
}

void LiveRenderClient::initializeSession(
    const std::string& sessionName, long sequenceID, const std::string& opTreeFile,
    const Arbolite3::internal::XoScenegraphIterator& /*iterator: the scene is the renderer's*/,
    Arbolite3::internal::XoRendererInfo::XoRendererInfoPlugin& rendererInfo,
    const std::string& host, uint16_t serviceRegistryPort, UpdateCallback updateCallback,
    CommandCallback commandCallback) {
  const std::string what = "live-render client of session " + sessionName + ": ";
  if (context != nullptr) throw Rendering::RendererPluginError(what + "session already initialised");
  if (host.empty() || serviceRegistryPort == 0) {
    throw Rendering::RendererPluginError(
        what + "no service registry to connect to (give -host and -serviceRegistryPort)");
  }
  endpoint = "tcp://" + host + ":" + std::to_string(serviceRegistryPort);
  char text[32];
  snprintf(text, sizeof text, "%ld", sequenceID);
  sequenceText = text;

  Registration registration;
  registration.sessionName = sessionName;
  registration.sequenceID = sequenceID;
  registration.opTreeFile = opTreeFile;
  registration.rendererName = rendererInfo.registeredName;
  registration.pid = static_cast<long>(::getpid());
  registration.sharedRegions = true;
  registration.images = true;
  hello.sessionName = sessionName;
  hello.sequenceID = sequenceID;
  hello.pid = registration.pid;
  if (const XoRendererInfoPluginSuite* info = rendererInfo.suite) {
    if (info->getRendererName != nullptr && info->getRendererName() != nullptr)
      registration.rendererName = info->getRendererName();
    if (info->getRenderMethods != nullptr) {
      for (const char* const* method = info->getRenderMethods(); method && *method; ++method)
        registration.renderMethods.push_back(*method);
    }
  }
  registerMessage = encodeRegister(registration);

  try {
    zmq = &ZmqLibrary::get();
  } catch (const Rendering::RendererPluginError& error) {
    throw Rendering::RendererPluginError(what + error.what());
  }
  context = zmq->zmq_ctx_new();
  socket = zmq->zmq_socket(context, ZMQ_DEALER);
  setOption(*zmq, socket, ZMQ_LINGER, kLingerMs);
  setOption(*zmq, socket, ZMQ_HEARTBEAT_IVL, kHeartbeatIntervalMs);
  setOption(*zmq, socket, ZMQ_HEARTBEAT_TIMEOUT, kHeartbeatTimeoutMs);
  setOption(*zmq, socket, ZMQ_RECONNECT_IVL_MAX, kReconnectMaxMs);
  setOption(*zmq, socket, ZMQ_RCVTIMEO, kStreamPauseMs);
  const int64_t largest = largestMessage();
  zmq->zmq_setsockopt(socket, ZMQ_MAXMSGSIZE, &largest, sizeof largest);
  // The thread learns of each connection and loss from the socket's own
  // events: one error line per outage, not one per reconnection attempt.
  char name[64];
  snprintf(name, sizeof name, "inproc://live-render-events-%p", static_cast<void*>(this));
  zmq->zmq_socket_monitor(socket, name, ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_DISCONNECTED);
  monitor = zmq->zmq_socket(context, ZMQ_PAIR);
  zmq->zmq_connect(monitor, name);
  snprintf(name, sizeof name, "inproc://live-render-stop-%p", static_cast<void*>(this));
  stopReceiver = zmq->zmq_socket(context, ZMQ_PAIR);
  zmq->zmq_bind(stopReceiver, name);
  stopSender = zmq->zmq_socket(context, ZMQ_PAIR);
  zmq->zmq_connect(stopSender, name);

  if (zmq->zmq_connect(socket, endpoint.c_str()) != 0) {
    throw Rendering::RendererPluginError(what + "cannot connect to " + endpoint + ": " +
                                         zmqError(*zmq));
  }
  onUpdate = std::move(updateCallback);
  onCommand = std::move(commandCallback);
  thread = std::thread(&LiveRenderClient::receive, this);
}

void LiveRenderClient::receive() {
  bool connected = false;
  bool lost = false;
  std::string command;  // reused: a command costs no allocation once it has grown
  zmq_msg_t message;
  zmq->zmq_msg_init(&message);
  zmq_pollitem_t items[3] = {{socket, 0, ZMQ_POLLIN, 0},
                             {monitor, 0, ZMQ_POLLIN, 0},
                             {stopReceiver, 0, ZMQ_POLLIN, 0}};
  for (;;) {
    if (region->streamOpen()) {
      readStream(command);
    } else {
      // While messages stream in, wait on the socket alone (bounded by its
      // receive time-out): a poll of all three sockets costs two system calls
      // and three queries per wake-up. Connection events and the stop are
      // looked at once the stream pauses; the stop flag is checked every message.
      while (!stopping.load(std::memory_order_acquire) && !region->streamOpen() &&
             zmq->zmq_msg_recv(&message, socket, 0) >= 0)
        deliver(message, command);
      if (region->streamOpen()) continue;
    }
    const bool onDoorbell = region->streamOpen();
    if (onDoorbell) {
      // Only the doorbell goes through the system's poll: ZeroMQ's own poll
      // would ask every socket twice per wake-up, a system call each, before
      // the record could be read.
      if (!sleepOnDoorbell()) continue;
      readStream(command);
    } else if (zmq->zmq_poll(items, 3, -1) < 0) {
      if (zmq->zmq_errno() == EINTR) continue;
      break;
    }
    if (hasInput(stopReceiver)) break;

    // An event is two frames: 6 bytes (u16 event, u32 value), then the endpoint.
    while (zmq->zmq_msg_recv(&message, monitor, ZMQ_DONTWAIT) >= 0) {
      uint16_t event = 0;
      if (zmq->zmq_msg_size(&message) >= 2) {
        const auto* bytes = static_cast<const unsigned char*>(zmq->zmq_msg_data(&message));
        event = static_cast<uint16_t>(bytes[0] | bytes[1] << 8);
      }
      while (zmq->zmq_msg_more(&message) && zmq->zmq_msg_recv(&message, monitor, 0) >= 0) {
      }
      if (event == ZMQ_EVENT_HANDSHAKE_SUCCEEDED) {
        if (lost && channel().infoEnabled())
          channel().info("LiveRenderClient: the controller at " + endpoint +
                             " is back; registering the session again.",
                         kSource, __LINE__);
        zmq->zmq_send(socket, registerMessage.data(), registerMessage.size(), ZMQ_DONTWAIT);
        connected = true;
        lost = false;
      } else if (event == ZMQ_EVENT_DISCONNECTED && connected) {
        // ZeroMQ connects again by itself after a lost connection but not
        // after one it ended for a message beyond the largest size: connect
        // anew in either case. What came before the loss is handed on
        // first: disconnecting drops what the socket holds unread.
        if (region->streamOpen()) readStream(command);
        while (zmq->zmq_msg_recv(&message, socket, ZMQ_DONTWAIT) >= 0) deliver(message, command);
        if (region->streamOpen()) readStream(command);
        zmq->zmq_disconnect(socket, endpoint.c_str());
        zmq->zmq_connect(socket, endpoint.c_str());
        connected = false;
        lost = true;
        if (channel().errorEnabled())
          channel().error("LiveRenderClient: lost the controller at " + endpoint +
                              "; the render goes on and the session registers again when "
                              "the controller is back.",
                          kSource, __LINE__);
      }
    }
    // While the stream is in the region the socket brings only what a new
    // registration starts with, after the records published before it.
    if (onDoorbell && hasInput(socket)) {
      readStream(command);
      if (zmq->zmq_msg_recv(&message, socket, ZMQ_DONTWAIT) >= 0) deliver(message, command);
    }
  }
  zmq->zmq_msg_close(&message);
  const char bye = static_cast<char>(kBye);
  zmq->zmq_send(socket, &bye, 1, ZMQ_DONTWAIT);
}

bool LiveRenderClient::hasInput(void* zmqSocket) const {
  int events = 0;
  size_t size = sizeof events;
  return zmq->zmq_getsockopt(zmqSocket, ZMQ_EVENTS, &events, &size) == 0 && (events & ZMQ_POLLIN);
}

bool LiveRenderClient::sleepOnDoorbell() {
  // A socket's descriptor is signalled only for news that came after its
  // events were last asked for: ask first.
  if (hasInput(socket) || hasInput(monitor) || hasInput(stopReceiver)) return true;
  if (!region->sleep()) return false;
  pollfd fds[4] = {{region->doorbellFd(), POLLIN, 0}, {descriptor(socket), POLLIN, 0},
                   {descriptor(monitor), POLLIN, 0}, {descriptor(stopReceiver), POLLIN, 0}};
  ::poll(fds, 4, -1);
  region->woke();
  return true;
}

int LiveRenderClient::descriptor(void* zmqSocket) const {
  int fd = -1;
  size_t size = sizeof fd;
  zmq->zmq_getsockopt(zmqSocket, ZMQ_FD, &fd, &size);
  return fd;
}

void LiveRenderClient::readStream(std::string& command) {
  Record record;
  std::string error;
  while (region->streamOpen() && region->pending() && !stopping.load(std::memory_order_acquire)) {
    if (!region->next(record, error)) {
      dropped(error + "; skipped what the controller had published");
      continue;
    }
    ControllerMessage decoded;
    bool ok = true;
    const unsigned kind = record.size > 0 ? record.data[0] : 0;
    // What sets the transport up comes through the socket only.
    if (kind == kRegistered || kind == kRegion || kind == kSharedUpdate || kind == kToRegion) {
      char text[64];
      snprintf(text, sizeof text, "a message of kind 0x%02x in the region's stream", kind);
      ok = false;
      error = text;
    } else {
      ok = decodeControllerMessage(record.data, record.size, sequenceText, RegionView(), decoded,
                                   error);
    }
    if (!ok) {
      region->consumed(record.next);
      dropped(error);
    } else if (decoded.kind == kToSocket) {
      region->consumed(record.next);
      region->closeStream();
    } else {
      if (decoded.kind == kCommand || decoded.kind == kImagesWanted ||
        decoded.kind == kImagesWantedTaken || decoded.kind == kGivenUp)
        command.assign(decoded.command, decoded.commandLength);
      // The parsed update and the command own their bytes: the record may go.
      region->consumed(record.next);
      handOn(decoded, command);
    }
  }
}

void LiveRenderClient::deliver(zmq_msg_t& message, std::string& command) {
  std::string error;
  ControllerMessage decoded;
  bool ok;
  if (zmq->zmq_msg_more(&message)) {
    while (zmq->zmq_msg_more(&message) && zmq->zmq_msg_recv(&message, socket, 0) >= 0) {
    }
    ok = false;
    error = "a message of several frames";
  } else {
    ok = decodeControllerMessage(zmq->zmq_msg_data(&message), zmq->zmq_msg_size(&message),
                                 sequenceText, region->view(), decoded, error);
    // The parsed update owns its bytes: the region's may be reused.
    if (ok && decoded.shared) region->release(decoded.releaseMark);
    if (ok && decoded.kind == kRegion &&
        (ok = region->map(std::string(decoded.command, decoded.commandLength), error))) {
      const char mapped = static_cast<char>(kRegionMapped);
      zmq->zmq_send(socket, &mapped, 1, ZMQ_DONTWAIT);
    }
    if (ok && decoded.kind == kToRegion)
      ok = region->openStream(decoded.streamStart,
                              std::string(decoded.command, decoded.commandLength), error);
    if (ok && decoded.kind == kToSocket) {
      ok = false;
      error = "a to-socket message through the socket";
    }
    // A new session starts on the socket; what the last one's stream held
    // was read before this.
    if (ok && decoded.kind == kRegistered) region->closeStream();
  }
  if (!ok) {
    dropped(error);
    return;
  }
  if (decoded.kind == kCommand || decoded.kind == kImagesWanted ||
        decoded.kind == kImagesWantedTaken || decoded.kind == kGivenUp)
    command.assign(decoded.command, decoded.commandLength);
  handOn(decoded, command);
}

void LiveRenderClient::handOn(const ControllerMessage& decoded, const std::string& command) {
  switch (decoded.kind) {
    case kUpdate:
      XoImageOut::countUpdate();
      onUpdate(decoded.update);
      break;
    case kImagesWanted:
    case kImagesWantedTaken: {
      std::vector<std::string> names;
      for (size_t at = 0; at < command.size();) {
        size_t end = command.find('\n', at);
        if (end == std::string::npos) end = command.size();
        if (end > at) names.push_back(command.substr(at, end - at));
        at = end + 1;
      }
      if (!images && names.empty()) break;
      if (!images) images.reset(new ImageSender(*zmq, context, endpoint, hello));
      const bool sameMachine = region->view().data != nullptr;
      images->want(names, sameMachine, sameMachine && decoded.kind == kImagesWantedTaken);
      break;
    }
    case kCommand:
      onCommand(command);
      break;
    case kGivenUp:
      // Nobody feeds this render any more: it ends as if told to stop.
      if (channel().errorEnabled())
        channel().error("LiveRenderClient: the controller at " + endpoint +
                            " gave the session up: " + command + "; the live render stops.",
                        kSource, __LINE__);
      onCommand("stopLiveEditing");
      break;
    case kRegistered:
      if (channel().infoEnabled())
        channel().info("LiveRenderClient: session registered with the controller at " + endpoint +
                           ".",
                       kSource, __LINE__);
      break;
    default:
      break;
  }
}

void LiveRenderClient::dropped(const std::string& why) {
  if (channel().errorEnabled())
    channel().error("LiveRenderClient: dropped a message from the controller at " + endpoint +
                        ": " + why + ".",
                    kSource, __LINE__);
}

}  // namespace LiveRendering
}  // namespace Selvane
}  // namespace Morrigo
