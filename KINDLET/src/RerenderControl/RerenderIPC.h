// The two receive-only TCP channels by which a controlling application drives
// a live render: commands on the control channel, scene updates on the data
// channel. This process is the client of both and never writes to them.
//
// Control channel: records of exactly 256 bytes, each a NUL-terminated text.
// Data channel: frames of an 8-byte little-endian payload length followed by
// that many bytes of one serialised GroupAttribute.
#pragma once

#include <exception>
#include <string>

namespace Rendering {
class Manager;
}

namespace UTIL {
namespace IPC {
class IPCInterface;
}
}  // namespace UTIL

// One object per channel. It does not own what it connects: the socket and
// its callback live until the process ends, because the detached reader
// thread uses both; `manager` must stay valid as long as records may arrive.
class RerenderIPC {
 public:
  RerenderIPC() = default;
  RerenderIPC(const RerenderIPC&) = delete;
  RerenderIPC& operator=(const RerenderIPC&) = delete;
  virtual ~RerenderIPC() {}

  // Connect and start the reader that hands each record to
  // manager->processControlCommand. 0 on success; 1, with a line on stderr
  // naming host and port, when the connection fails. Throws
  // UTIL::AssertException when this object already tried to connect.
  int connectControl(Rendering::Manager* manager, std::string host, unsigned short port);
  // The same for frames, handed to manager->processLiveRenderData.
  int connectData(Rendering::Manager* manager, std::string host, unsigned short port);
  // Closes both channels; each close waits for the record in progress.
  int disconnect();

 private:
  UTIL::IPC::IPCInterface* controlInterface = nullptr;
  UTIL::IPC::IPCInterface* dataInterface = nullptr;
};

class RerenderException : public std::exception {
 public:
  explicit RerenderException(const std::string& message) : message(message) {}
  ~RerenderException() override {}
  const char* what() const noexcept override { return message.c_str(); }

 private:
  std::string message;
};
