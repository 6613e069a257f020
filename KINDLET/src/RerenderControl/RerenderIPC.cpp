#include "KINDLET/src/RerenderControl/RerenderIPC.h"

#include <cstring>
#include <iostream>

#include "KINDLET/src/RenderManager.h"
#include "KINDLET/src/RerenderControl/RerenderReadCallbacks.h"
#include "UTIL/src/Exceptions.h"
#include "UTIL/src/Socket.h"

namespace {

const char* const sourcePath = "KINDLET/src/RerenderControl/RerenderIPC";

}  // namespace

static_assert(sizeof(ControlCommandRecord) == 256, "control records are 256 bytes on the wire");

int RerenderIPC::connectControl(Rendering::Manager* manager, std::string host,
                                unsigned short port) {
  if (controlInterface != nullptr)
    throw UTIL::AssertException("controlInterface == nullptr", sourcePath, 9);
  controlInterface = new UTIL::IPC::TCPSocket(host, port);
  if (!controlInterface->isConnected()) {
    std::cerr << "RerenderIPC (control): Could not connect to " << host << ":" << port
              << std::endl;
    return 1;
  }
  controlInterface->readAsync(new ControlReadCallback(controlInterface, manager));
  return 0;
}

int RerenderIPC::connectData(Rendering::Manager* manager, std::string host, unsigned short port) {
  if (dataInterface != nullptr)
    throw UTIL::AssertException("dataInterface == nullptr", sourcePath, 30);
  dataInterface = new UTIL::IPC::TCPSocket(host, port);
  if (!dataInterface->isConnected()) {
    std::cerr << "RerenderIPC (data): Could not connect to " << host << ":" << port
              << std::endl;
    return 1;
  }
  dataInterface->readAsync(new DataReadCallback(dataInterface, manager));
  return 0;
}

int RerenderIPC::disconnect() {
  if (controlInterface) controlInterface->close();
  if (dataInterface) dataInterface->close();
  return 0;
}

ControlReadCallback::ControlReadCallback(UTIL::IPC::IPCInterface* interface_,
                                         Rendering::Manager* manager_)
    : ReadCallback(sizeof(ControlCommandRecord), interface_), commandRecord(), manager(manager_) {}

bool ControlReadCallback::readComplete(const UTIL::IPC::Byte* data, size_t size) {
  if (size == 0) return false;
  // The buffer is always a whole record long; a record cut short by the peer
  // is delivered whole, its tail undefined.
  std::memcpy(&commandRecord, data, sizeof commandRecord);
  manager->processControlCommand(commandRecord);
  return true;
}

DataReadCallback::DataReadCallback(UTIL::IPC::IPCInterface* interface_,
                                   Rendering::Manager* manager_)
    : ReadCallback(sizeof(uint64_t), interface_), manager(manager_) {}

bool DataReadCallback::readComplete(const UTIL::IPC::Byte* data, size_t size) {
  if (size == 0) return false;
  switch (state) {
    case ReadingHeader:
      // A header cut short means the peer closed mid-frame: nothing to deliver.
      if (size != sizeof(uint64_t)) return false;
      std::memcpy(&payloadSize, data, sizeof payloadSize);
      readSize = static_cast<size_t>(payloadSize);
      state = ReadingPayload;
      return true;
    case ReadingPayload:
      manager->processLiveRenderData(reinterpret_cast<const char*>(data), size);
      readSize = sizeof(uint64_t);
      state = ReadingHeader;
      return true;
    default:
      throw RerenderException("DataReadCallback::readComplete: In an unknown state.");
  }
}
