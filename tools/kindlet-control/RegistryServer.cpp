#include "RegistryServer.h"

#include <signal.h>
#include <zmq.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <iostream>
#include <thread>

namespace KindletControl {

using Morrigo::Selvane::LiveRendering::Registration;
namespace protocol = Morrigo::Selvane::LiveRendering;

namespace {

// Below this ZeroMQ's own copy costs less than handing over a buffer.
const size_t kZeroCopyFrom = 8 << 10;
const size_t kRegionSize = size_t(16) << 20;
// How long poll() sleeps between attempts while a backlog waits: a routing
// socket says only that some connection has room, not which.
const int kBacklogRetryMs = 2;
const std::chrono::microseconds kRegionRetry(100);

// A client reading from its region has mapped this process's memory, so it
// runs on this machine, under the pid it registered with.
bool processGone(long pid) { return ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH; }

// The same, or ended and not yet reaped by its parent (this program, for a
// kindlet it started and has not waited for yet).
bool processEnded(long pid) {
  if (processGone(pid)) return true;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(stat, line);
  const size_t name = line.rfind(')');
  return name != std::string::npos && name + 2 < line.size() && line[name + 2] == 'Z';
}

// How often a session that sends nothing is looked at: a client that has
// mapped its region lives on this machine, and one that died without a
// goodbye would otherwise be noticed only when something is sent to it.
const std::chrono::milliseconds kLivenessEvery(250);

void releaseMessage(void*, void* hint) { delete static_cast<Message*>(hint); }

std::string describe(const Session& session) {
  return "session " + session.registration.sessionName + " pid " +
         std::to_string(session.registration.pid);
}

}  // namespace

RegistryServer::RegistryServer(size_t backlogLimit, bool streamInRegion,
                               const RegistryLimits& limits)
    : backlogLimit(backlogLimit),
      streamInRegion(streamInRegion),
      limits(limits),
      context(zmq_ctx_new()) {}

RegistryServer::~RegistryServer() {
  if (socket != nullptr) zmq_close(socket);
  zmq_ctx_term(context);
}

bool RegistryServer::bind(unsigned short& port, double retrySeconds) {
  if (socket == nullptr) {
    socket = zmq_socket(context, ZMQ_ROUTER);
    const int one = 1, linger = 500;
    // An unknown or vanished client is an error to report, and a full
    // connection refuses a message (which then waits in the backlog) instead
    // of dropping it.
    zmq_setsockopt(socket, ZMQ_ROUTER_MANDATORY, &one, sizeof one);
    zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof linger);
    // ZeroMQ allocates a message whole as soon as its size is known.
    zmq_setsockopt(socket, ZMQ_MAXMSGSIZE, &limits.messageBytes, sizeof limits.messageBytes);
  }
  const std::string endpoint =
      "tcp://127.0.0.1:" + (port == 0 ? std::string("*") : std::to_string(port));
  // A port this registry served a moment ago is free only once ZeroMQ's own
  // thread has closed the old listener.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(retrySeconds);
  int rc;
  while ((rc = zmq_bind(socket, endpoint.c_str())) != 0 && zmq_errno() == EADDRINUSE &&
         std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  if (rc != 0) {
    std::cerr << "kindlet-control: cannot serve the registry on 127.0.0.1:" << port << ": "
              << zmq_strerror(zmq_errno()) << std::endl;
    return false;
  }
  char bound[256];
  size_t size = sizeof bound;
  zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, bound, &size);
  const std::string text = bound;
  port = static_cast<unsigned short>(std::stoul(text.substr(text.rfind(':') + 1)));
  return true;
}

void RegistryServer::close(double flushSeconds) {
  if (socket == nullptr) return;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(flushSeconds);
  while (backlogged() && std::chrono::steady_clock::now() < deadline) poll(kBacklogRetryMs);
  for (const Session& session : table) {
    if (session.backlog.empty()) continue;
    std::cerr << "kindlet-control: " << describe(session) << " did not read its last "
              << session.backlog.size() << " messages before the registry closed" << std::endl;
  }
  // A client may not have opened its region yet when the registry goes:
  // the region lives on until that client registers again.
  for (Session& session : table)
    if (session.ring) retired.push_back({session.registration, std::move(session.ring)});
  table.clear();
  farewells.clear();
  zmq_close(socket);
  socket = nullptr;
}

bool RegistryServer::backlogged() const {
  return std::any_of(table.begin(), table.end(),
                     [](const Session& session) { return !session.backlog.empty(); });
}

void RegistryServer::poll(int milliseconds) {
  if (socket == nullptr) return;
  flush();
  // When every session waits for its connection, the socket's "room to
  // send" is news for one of them and can be waited for; otherwise look again
  // after a while.
  const bool allWaitForRoom =
      !table.empty() && std::all_of(table.begin(), table.end(), [](const Session& session) {
        return !session.backlog.empty() && !session.waitsForRegion;
      });
  // Room in a region comes back as the client reads, with no event to
  // wait for: look again soon.
  const bool regionWait = std::any_of(table.begin(), table.end(), [](const Session& session) {
    return !session.backlog.empty() && session.waitsForRegion;
  });
  // Passes taken from the clients' regions; a pass that came meanwhile
  // means looking again at once.
  const bool passesAsleep = !images || images->takePasses();
  replayDueNow();
  std::vector<zmq_pollitem_t> items = {
      {socket, 0, short(ZMQ_POLLIN | (allWaitForRoom ? ZMQ_POLLOUT : 0)), 0}};
  if (wakeFd >= 0) items.push_back({nullptr, wakeFd, ZMQ_POLLIN, 0});
  if (images)
    for (int doorbell : images->doorbells()) items.push_back({nullptr, doorbell, ZMQ_POLLIN, 0});
  const int wait = !passesAsleep                   ? 0
                   : !backlogged() || allWaitForRoom ? milliseconds
                   : regionWait                    ? 0
                   : milliseconds < 0              ? kBacklogRetryMs
                                                   : std::min(milliseconds, kBacklogRetryMs);
  const zmq_pollitem_t& item = items[0];
  if (zmq_poll(items.data(), int(items.size()), wait) <= 0 || !(item.revents & ZMQ_POLLIN)) {
    if (images) images->takePasses();
    replayDueNow();
    if (regionWait && milliseconds != 0) std::this_thread::sleep_for(kRegionRetry);
    flush();
    return;
  }
  zmq_msg_t part;
  zmq_msg_init(&part);
  for (;;) {
    std::vector<std::string> frames;
    do {
      if (zmq_msg_recv(&part, socket, frames.empty() ? ZMQ_DONTWAIT : 0) < 0) break;
      frames.emplace_back(static_cast<const char*>(zmq_msg_data(&part)), zmq_msg_size(&part));
    } while (zmq_msg_more(&part));
    if (frames.empty()) break;
    if (frames.size() == 2) {
      handle(frames[0], frames[1]);
    } else {
      std::cerr << "kindlet-control: ignored a message of " << frames.size() - 1
                << " frames from a client" << std::endl;
    }
  }
  zmq_msg_close(&part);
  flush();
}

void RegistryServer::handle(const std::string& identity, const std::string& message) {
  const unsigned kind = message.empty() ? 0 : static_cast<unsigned char>(message[0]);
  if (kind == protocol::kRegister) {
    Registration registration;
    std::string error;
    if (!protocol::decodeRegister(message.data(), message.size(), registration, error)) {
      std::cerr << "kindlet-control: ignored a registration: " << error << std::endl;
      return;
    }
    const std::string refused = refusal(identity, registration);
    if (!refused.empty()) {
      std::cerr << "kindlet-control: refused the registration of session "
                << registration.sessionName << " pid " << registration.pid << ": " << refused
                << std::endl;
      farewell(identity, refused);
      return;
    }
    // A client that reconnects registers again under a new identity; what
    // its old connection still had to send can no longer reach it.
    for (size_t i = table.size(); i-- > 0;) {
      const Registration& known = table[i].registration;
      if (known.pid != registration.pid || known.sessionName != registration.sessionName) continue;
      if (!table[i].backlog.empty())
        std::cerr << "kindlet-control: " << describe(table[i]) << " reconnected before reading its last "
                  << table[i].backlog.size() << " messages" << std::endl;
      table.erase(table.begin() + static_cast<long>(i));
    }
    givenUpSessions.erase(std::remove_if(givenUpSessions.begin(), givenUpSessions.end(),
                                         [&](const GivenUp& old) { return old.pid == registration.pid; }),
                          givenUpSessions.end());
    std::cout << "registered " << registration.sessionName << " sequenceID "
              << registration.sequenceID << " pid " << registration.pid << std::endl;
    retired.erase(std::remove_if(retired.begin(), retired.end(),
                                 [&](const Retired& old) {
                                   return old.registration.pid == registration.pid &&
                                          old.registration.sessionName == registration.sessionName;
                                 }),
                  retired.end());
    table.push_back({identity, registration, {}, 0, nullptr, false, false, false});
    std::unique_ptr<StreamRing> ring;
    if (registration.sharedRegions && streamInRegion && !(ring = StreamRing::create(kRegionSize, error)))
      std::cerr << "kindlet-control: " << error << "; its stream goes through the socket" << std::endl;
    if (!sendTo(table.size() - 1, std::make_shared<const std::string>(protocol::encodeRegistered())))
      return;
    if (ring && !sendTo(table.size() - 1, std::make_shared<const std::string>(protocol::encodeRegion(ring->path()))))
      return;
    if (ring) table.back().ring = std::move(ring);
    if (images && registration.images &&
        !sendTo(table.size() - 1, std::make_shared<const std::string>(protocol::encodeImagesWanted(
                                      images->imageConsumer().wanted(), true))))
      return;
    if (replay && !(images && registration.images)) replayTo(table.size() - 1);
  } else if (kind == protocol::kRegionMapped) {
    for (Session& session : table)
      if (session.identity == identity && session.ring) session.ringMapped = true;
  } else if (kind == protocol::kBye) {
    for (auto it = table.begin(); it != table.end(); ++it) {
      if (it->identity != identity) continue;
      std::cout << describe(*it) << " ended" << std::endl;
      forgetImages(*it);
      table.erase(it);
      break;
    }
  } else if (images && kind >= protocol::kImageHello && kind <= protocol::kImageClose) {
    const std::string answer = images->handle(identity, message);
    replayDueNow();
    if (!answer.empty() && trySend(identity, answer.data(), answer.size(), nullptr) != Outcome::Sent)
      std::cerr << "kindlet-control: an image connection did not take its answer" << std::endl;
  } else {
    std::cerr << "kindlet-control: ignored a message of unknown kind " << kind
              << " from a client" << std::endl;
  }
}

std::string RegistryServer::refusal(const std::string& identity,
                                    const Registration& registration) const {
  size_t total = 0, own = 0;
  for (const Session& session : table) {
    const Registration& known = session.registration;
    if (known.pid == registration.pid && known.sessionName == registration.sessionName)
      continue;  // registers again: replaced
    ++total;
    if (session.identity == identity) ++own;
  }
  if (own >= limits.sessionsPerConnection)
    return "one connection may register at most " + std::to_string(limits.sessionsPerConnection) +
           (limits.sessionsPerConnection == 1 ? " session" : " sessions");
  if (total >= limits.sessions)
    return "the registry serves at most " + std::to_string(limits.sessions) + " sessions";
  return "";
}

void RegistryServer::farewell(const std::string& identity, const std::string& why) {
  const std::string message = protocol::encodeGivenUp(why);
  if (trySend(identity, message.data(), message.size(), nullptr) != Outcome::Full) return;
  farewells.emplace_back(identity, message);
  // Clients that refuse to read make it cost no more than the sessions would.
  if (farewells.size() > limits.sessions) farewells.pop_front();
}

void RegistryServer::forgetImages(const Session& session) {
  if (images) images->forget(session.registration.pid, session.registration.sessionName);
}

RegistryServer::Outcome RegistryServer::trySend(const std::string& identity, const char* data,
                                                size_t size, const Message* owner) {
  if (zmq_send(socket, identity.data(), identity.size(), ZMQ_SNDMORE | ZMQ_DONTWAIT) < 0)
    return zmq_errno() == EAGAIN ? Outcome::Full : Outcome::Gone;  // EHOSTUNREACH: gone
  // The routing socket took the address, so the connection has room for the body.
  if (owner == nullptr || size < kZeroCopyFrom)
    return zmq_send(socket, data, size, ZMQ_DONTWAIT) >= 0 ? Outcome::Sent : Outcome::Gone;
  zmq_msg_t body;
  zmq_msg_init_data(&body, const_cast<char*>(data), size, releaseMessage, new Message(*owner));
  if (zmq_msg_send(&body, socket, ZMQ_DONTWAIT) >= 0) return Outcome::Sent;
  zmq_msg_close(&body);
  return Outcome::Gone;
}

RegistryServer::Outcome RegistryServer::sendNow(Session& session, const Message& message) {
  const std::string& whole = *message;
  StreamRing* ring = session.ring.get();
  if (session.inRegion) {
    session.waitsForRegion = true;  // until the record is in
    if (ring->canHoldRecord(whole.size())) {
      if (!ring->append(whole.data(), whole.size())) return Outcome::Full;
      session.waitsForRegion = false;
      return Outcome::Sent;
    }
    const std::string back = protocol::encodeToSocket();
    if (!ring->append(back.data(), back.size())) return Outcome::Full;
    session.waitsForRegion = false;
    session.inRegion = false;
    return trySend(session.identity, whole.data(), whole.size(), &message);
  }
  if (streamInRegion && session.ringMapped && ring->canHoldRecord(whole.size())) {
    // What went through the socket so far comes first: the client opens the
    // ring only on this message.
    const std::string move = protocol::encodeToRegion(ring->streamStart(), ring->doorbellPath());
    const Outcome outcome = trySend(session.identity, move.data(), move.size(), nullptr);
    if (outcome != Outcome::Sent) return outcome;
    session.inRegion = true;
    return sendNow(session, message);
  }
  return trySend(session.identity, whole.data(), whole.size(), &message);
}

void RegistryServer::flush() {
  for (auto it = farewells.begin(); it != farewells.end();) {
    if (trySend(it->first, it->second.data(), it->second.size(), nullptr) == Outcome::Full)
      ++it;
    else
      it = farewells.erase(it);  // sent, or nobody left to tell
  }
  const auto now = std::chrono::steady_clock::now();
  const bool lookAtIdle = now - livenessChecked >= kLivenessEvery;
  if (lookAtIdle) livenessChecked = now;
  for (size_t i = 0; i < table.size();) {
    Session& session = table[i];
    Outcome outcome = Outcome::Sent;
    while (!session.backlog.empty()) {
      outcome = sendNow(session, session.backlog.front());
      if (outcome != Outcome::Sent) break;
      session.backlogBytes -= session.backlog.front()->size();
      session.backlog.pop_front();
    }
    // Records in a region reach a client whether it lives or not: ask the
    // system instead of the socket.
    if (outcome == Outcome::Gone || (session.inRegion && processGone(session.registration.pid)) ||
        (lookAtIdle && session.ringMapped && processEnded(session.registration.pid))) {
      giveUp(i, "is gone", "");
    } else {
      ++i;
    }
  }
}

void RegistryServer::giveUp(size_t index, const std::string& why, const std::string& toClient) {
  std::cerr << "kindlet-control: " << describe(table[index]) << " " << why;
  if (!table[index].backlog.empty())
    std::cerr << " (" << table[index].backlog.size() << " messages to it not sent)";
  std::cerr << std::endl;
  givenUpSessions.push_back({table[index].registration.pid, std::chrono::steady_clock::now()});
  if (!toClient.empty()) farewell(table[index].identity, toClient);
  forgetImages(table[index]);
  table.erase(table.begin() + static_cast<long>(index));
}

bool RegistryServer::sendTo(size_t index, const Message& message) {
  Session& session = table[index];
  // Behind a backlog a message waits its turn, so the stream stays ordered.
  const Outcome outcome = session.backlog.empty() ? sendNow(session, message) : Outcome::Full;
  if (outcome == Outcome::Gone) {
    giveUp(index, "is gone", "");
    return false;
  }
  if (outcome == Outcome::Full) {
    session.backlog.push_back(message);
    session.backlogBytes += message->size();
    if (session.backlogBytes > backlogLimit) {
      const std::string behind = "more than " + std::to_string(backlogLimit >> 10) + " KiB wait for it";
      giveUp(index, "has stopped reading: " + behind + "; giving the session up",
             "it has stopped reading: " + behind);
      return false;
    }
  }
  return true;
}

void RegistryServer::receiveImages(ImageConsumer& consumer) {
  images.reset(new ImageReceiver(consumer));
  // Replayed once the receiver is done: a replay may give a session up,
  // which changes what the receiver walks through.
  images->onFirstPass([this](const ImageSource& source) {
    if (replay) replayDue.push_back(std::to_string(source.pid) + "/" + source.sessionName);
  });
}

void RegistryServer::replayDueNow() {
  for (const std::string& key : replayDue)
    for (size_t i = 0; i < table.size(); ++i)
      if (sessionKey(table[i].registration) == key) {
        replayTo(i);
        break;
      }
  replayDue.clear();
}

void RegistryServer::replayTo(size_t index) {
  size_t& had = updatesHad[sessionKey(table[index].registration)];
  while (had < updates.size()) {
    const Message& next = updates[had++];
    if (!sendTo(index, next)) return;
  }
}

std::string RegistryServer::sessionKey(const Registration& registration) {
  return std::to_string(registration.pid) + "/" + registration.sessionName;
}

size_t RegistryServer::send(const Message& message, const long* target) {
  const bool kept = replay && target == nullptr && !message->empty() &&
                    static_cast<unsigned char>((*message)[0]) == protocol::kUpdate;
  if (kept) updates.push_back(message);
  size_t reached = 0;
  for (size_t i = 0; i < table.size();) {
    size_t* had = kept ? &updatesHad[sessionKey(table[i].registration)] : nullptr;
    if (target != nullptr && table[i].registration.sequenceID != *target) {
      ++i;
    } else if (had != nullptr && *had + 1 < updates.size()) {
      ++reached;  // waits for its replay, which brings this one too, in order
      ++i;
    } else if (sendTo(i, message)) {
      if (had != nullptr) *had = updates.size();
      ++reached;
      ++i;
    }
  }
  return reached;
}

}  // namespace KindletControl
