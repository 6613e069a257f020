// What the reader threads of the two rerender channels call for each record.
#pragma once

#include <cstdint>

#include "KINDLET/src/ControlCommandRecord.h"
#include "UTIL/src/Socket.h"

namespace Rendering {
class Manager;
}

// Reads 256-byte records and hands each to the Manager.
class ControlReadCallback : public UTIL::IPC::ReadCallback {
 public:
  ControlReadCallback(UTIL::IPC::IPCInterface* interface, Rendering::Manager* manager);
  bool readComplete(const UTIL::IPC::Byte* data, size_t size) override;
  void readFailed() override {}

  ControlCommandRecord commandRecord;  // the last record received
  Rendering::Manager* manager;
};

// Alternates between an 8-byte length header and the payload it announces.
class DataReadCallback : public UTIL::IPC::ReadCallback {
 public:
  enum State : int32_t { ReadingHeader = 0, ReadingPayload = 1 };

  DataReadCallback(UTIL::IPC::IPCInterface* interface, Rendering::Manager* manager);
  bool readComplete(const UTIL::IPC::Byte* data, size_t size) override;
  void readFailed() override {}

  uint64_t payloadSize = 0;  // the last header's value
  int32_t state = ReadingHeader;
  Rendering::Manager* manager;
};
