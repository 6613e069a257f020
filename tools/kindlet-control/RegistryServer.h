// The controlling side's service registry: one ZeroMQ routing socket that
// live-render clients connect to, and the table of their sessions.
//
// Sending never waits for a client: what a client's connection will not take
// yet waits in that session's own backlog, in order, and goes out as the
// client reads (on each poll). A client that stops reading therefore holds up
// nobody else; once its backlog passes the bound the session is given up with
// one line on standard error, never dropped in silence.
//
// Giving a session up (it stopped reading, or its registration is refused
// because the registry is full) is said to the client with kGivenUp, which
// waits until the client's connection takes it: the client then ends its
// live render.
//
// A client that can read updates from shared memory gets a region of its own
// (StreamRing.h). Once the client has mapped it, the session's whole stream
// moves there: each message is a record the client reads without a socket or
// ZeroMQ's threads in between, woken by a pipe only when it sleeps. A
// message too large for the ring goes back through the socket, the stream
// returning to the region after it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ImageReceiver.h"
#include "LiveRendering/LiveRenderProtocol.h"
#include "StreamRing.h"

namespace KindletControl {

// One message as it goes out: shared by every session it is sent to and by
// ZeroMQ while the bytes are on their way, so a large update is never copied.
using Message = std::shared_ptr<const std::string>;

struct Session {
  std::string identity;  // the routing socket's name for the client's connection
  Morrigo::Selvane::LiveRendering::Registration registration;
  std::deque<Message> backlog;  // what the connection has not taken yet, oldest first
  size_t backlogBytes = 0;
  std::unique_ptr<StreamRing> ring;  // for a client that can read its stream from it
  bool ringMapped = false;            // the client said so: until then all goes through the socket
  bool inRegion = false;              // messages go as records in the ring
  bool waitsForRegion = false;        // the backlog's head waits for room in the ring
};

// What one client, or all of them, may cost the registry: each session has
// a memory file and a pipe, and ZeroMQ allocates a message whole before it
// is handed over.
struct RegistryLimits {
  size_t sessions = 128;              // in total
  size_t sessionsPerConnection = 1;   // a client registers one per connection
  // The largest message from a client; a larger one ends its connection.
  // Enough for an image pass of 8192x8192 pixels of 8 floats in the message.
  int64_t messageBytes = int64_t(2) << 30;
};

// A session the registry gave up, for those who wait for its render.
struct GivenUp {
  long pid;
  std::chrono::steady_clock::time_point when;
};

class RegistryServer {
 public:
  // Bytes a session may fall behind before it is given up.
  static const size_t kDefaultBacklogLimit = size_t(256) << 20;
  // `streamInRegion`: move a session's stream into its region once mapped
  // (false: no region, everything through the socket, as to a client elsewhere).
  explicit RegistryServer(size_t backlogLimit = kDefaultBacklogLimit, bool streamInRegion = true,
                          const RegistryLimits& limits = RegistryLimits());
  ~RegistryServer();
  RegistryServer(const RegistryServer&) = delete;
  RegistryServer& operator=(const RegistryServer&) = delete;

  // Binds 127.0.0.1:port (0: a free one, written back), trying again for
  // `retrySeconds` while the port is in use. False after a line on standard
  // error.
  bool bind(unsigned short& port, double retrySeconds = 0);
  // The registry goes away: what the sessions' backlogs still hold gets up
  // to `flushSeconds` to leave (a line on standard error for what did not),
  // the socket is closed and the sessions are forgotten. bind() brings it back.
  void close(double flushSeconds);

  // Sends what the backlogs hold as far as the clients take it, then handles
  // what arrives within `milliseconds`: a registration is acknowledged and
  // printed ("registered <session> sequenceID <n> pid <p>"), a goodbye
  // removes its session ("session <session> pid <p> ended").
  void poll(int milliseconds);

  // Asks every render that registers from now on for the images `consumer`
  // wants and hands it their passes (on the thread that polls).
  void receiveImages(ImageConsumer& consumer);

  // Keeps every update sent to all sessions and sends those a session has not
  // had, in order, when it registers: a kindlet that joins one view late
  // renders the same scene state as the others. kindlet applies what comes
  // before its live loop begins only with the next delivery, so a session
  // that sends images gets them with its first pass, which comes from that loop.
  void replayUpdates() { replay = true; }

  // poll() also returns as soon as `fd` is readable (-1: none); the caller
  // reads it.
  void alsoWakeOn(int fd) { wakeFd = fd; }

  const std::vector<Session>& sessions() const { return table; }
  // The sessions given up whose process has not registered since, oldest first.
  const std::vector<GivenUp>& givenUp() const { return givenUpSessions; }
  bool backlogged() const;

  // Sends one message to every session, or only to those with sequence ID
  // `*target`, without waiting (see above). Returns the number of sessions
  // it went to or waits for.
  size_t send(const Message& message, const long* target);
  size_t send(const std::string& message, const long* target) {
    return send(std::make_shared<const std::string>(message), target);
  }

 private:
  enum class Outcome { Sent, Full, Gone };
  void handle(const std::string& identity, const std::string& message);
  // Sends `message`, through the session's region when its stream is there.
  // Full when the region or the connection has no room now.
  Outcome sendNow(Session& session, const Message& message);
  // Sends `size` bytes at `data`; without a copy when `owner` holds them.
  Outcome trySend(const std::string& identity, const char* data, size_t size, const Message* owner);
  // Sends the backlogs' heads while the clients take them; gives up sessions
  // that are gone.
  void flush();
  // Sends to table[index] or queues behind its backlog; false when the
  // session was given up.
  bool sendTo(size_t index, const Message& message);
  // Removes table[index] after a line on standard error saying why; the
  // client is told `toClient` unless it is empty (a client that is gone).
  void giveUp(size_t index, const std::string& why, const std::string& toClient);
  // kGivenUp to `identity` now, or once its connection has room.
  void farewell(const std::string& identity, const std::string& why);
  // Why a registration cannot be taken; empty when it can.
  std::string refusal(const std::string& identity,
                      const Morrigo::Selvane::LiveRendering::Registration& registration) const;
  void forgetImages(const Session& session);
  static std::string sessionKey(const Morrigo::Selvane::LiveRendering::Registration& registration);

  const size_t backlogLimit;
  const bool streamInRegion;
  const RegistryLimits limits;
  std::deque<std::pair<std::string, std::string>> farewells;  // identity, kGivenUp not sent yet
  std::vector<GivenUp> givenUpSessions;
  void* context;
  void* socket = nullptr;
  int wakeFd = -1;
  std::vector<Session> table;
  std::unique_ptr<ImageReceiver> images;
  bool replay = false;
  std::vector<Message> updates;                 // sent to all, oldest first (replay only)
  std::map<std::string, size_t> updatesHad;     // how many of them, by "<pid>/<session>"
  std::chrono::steady_clock::time_point livenessChecked;
  void replayTo(size_t index);
  std::vector<std::string> replayDue;  // sessions whose first pass came: replay to them
  void replayDueNow();
  struct Retired {
    Morrigo::Selvane::LiveRendering::Registration registration;
    std::unique_ptr<StreamRing> ring;
  };
  std::vector<Retired> retired;  // regions of the sessions a close() forgot
};

}  // namespace KindletControl
