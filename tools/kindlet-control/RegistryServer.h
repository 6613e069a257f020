// The controlling side's service registry: one ZeroMQ routing socket that
// live-render clients connect to, and the table of their sessions.
#pragma once

#include <string>
#include <vector>

#include "LiveRendering/LiveRenderProtocol.h"

namespace KindletControl {

struct Session {
  std::string identity;  // the routing socket's name for the client's connection
  Morrigo::Selvane::LiveRendering::Registration registration;
};

class RegistryServer {
 public:
  RegistryServer();
  ~RegistryServer();
  RegistryServer(const RegistryServer&) = delete;
  RegistryServer& operator=(const RegistryServer&) = delete;

  // Binds 127.0.0.1:port (0: a free one, written back). False after a line on
  // standard error.
  bool bind(unsigned short& port);

  // Handles what arrives within `milliseconds`: a registration is
  // acknowledged and printed ("registered <session> sequenceID <n> pid <p>"),
  // a goodbye removes its session ("session <session> pid <p> ended").
  void poll(int milliseconds);

  const std::vector<Session>& sessions() const { return table; }

  // Sends one message to every session, or only to those with sequence ID
  // `*target`. Waits while a client's queue is full rather than drop: the
  // stream is ordered and lossless. Returns the number of sessions reached.
  size_t send(const std::string& message, const long* target);

 private:
  void handle(const std::string& identity, const std::string& message);
  bool sendTo(const std::string& identity, const std::string& message);

  void* context;
  void* socket;
  std::vector<Session> table;
};

}  // namespace KindletControl
