// The messages between a live-render client and the controlling
// application's service registry (docs/live-render-protocol.md). Each message
// is one ZeroMQ frame: a kind byte, then the body of that kind.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "XoAttribute/Attribute.h"

namespace Morrigo {
namespace Selvane {
namespace LiveRendering {

const int kProtocolVersion = 1;

enum MessageKind : uint8_t {
  // client -> controller
  kRegister = 0x01,  // body: the registration as a UTF-8 JSON object
  kBye = 0x02,       // body: empty; the session ends
  kRegionMapped = 0x03,  // body: empty; the last kRegion is mapped, shared updates may come
  // controller -> client
  kRegistered = 0x81,  // body: empty; the registration was accepted
  kUpdate = 0x82,      // body: u32 length, then that many bytes of binary attribute
  kCommand = 0x83,     // body: u32 length, then that many bytes of command text
  kRegion = 0x84,      // body: u32 length, then the path of a shared payload region
  kSharedUpdate = 0x85,  // body: u32 length (24), then u64 offset, u64 size, u64 release mark
  kToRegion = 0x86,  // body: u32 length, then u64 stream start, then the doorbell's path
  kToSocket = 0x87,  // in the region's stream only; body: u32 length (0)
  kImagesWanted = 0x88,  // body: u32 length, then image names, one per line ("*": all)
  kGivenUp = 0x8a,  // body: u32 length, then why the controller gave the session up (UTF-8)
  // As kImagesWanted, from a controller that takes passes from the images'
  // regions itself when it runs on the client's machine (ImageProtocol.h).
  kImagesWantedTaken = 0x8b,
};

// Size of the kind byte and the length of an update or a command.
const size_t kHeaderSize = 5;
// The largest message the controller can send: a length of 32 bits and its header.
const int64_t kLargestControllerMessage = int64_t(kHeaderSize) + 0xffffffffll;

// An update can travel as a small kSharedUpdate message naming its bytes
// in a region of shared memory that the controller announced with kRegion.
// The region starts with this many bytes of header; its first 8 hold the
// release mark of the last shared update the client is done with (written by
// the client), which tells the controller what it may overwrite.
const size_t kRegionHeaderSize = 64;
const size_t kSharedUpdateBodySize = 24;
const size_t kSharedUpdateSize = kHeaderSize + kSharedUpdateBodySize;

// A controller on the same machine may move the whole stream into the region
// (kToRegion): each message then is a record in the region's ring, published
// by the controller's count at kPublishedOffset; a client that is about to
// sleep sets the word at kSleepingOffset and the controller, finding it set,
// clears it and writes a byte to the doorbell, a pipe the client polls.
// A record: u32 size of the message, u32 zero, the message, padding to 8.
// A record whose size is kWrapRecord says the stream goes on at the ring's
// start. Ring positions count bytes from the region's first use on; position
// p lies at offset kRegionHeaderSize + p % (region size - kRegionHeaderSize).
const size_t kReleaseMarkOffset = 0;
const size_t kPublishedOffset = 8;
const size_t kSleepingOffset = 16;
const size_t kRecordHeaderSize = 8;
const uint32_t kWrapRecord = 0xffffffffu;
inline uint64_t recordSpan(uint64_t messageSize) {
  return (kRecordHeaderSize + messageSize + 7) & ~uint64_t(7);
}

struct Registration {
  std::string sessionName;
  long sequenceID = 0;
  std::string opTreeFile;
  std::string rendererName;
  std::vector<std::string> renderMethods;
  long pid = 0;
  bool sharedRegions = false;  // the client can read updates from a kRegion
  bool images = false;         // the client sends its renderer's images when asked (ImageProtocol.h)
};

// The register message for `registration`.
std::string encodeRegister(const Registration& registration);
// Reads a register message back; false with a reason for anything else.
bool decodeRegister(const void* data, size_t size, Registration& registration,
                    std::string& error);

// Controller side: an update carrying `binaryAttribute`, a command, an ack.
std::string encodeUpdate(const std::string& binaryAttribute);
std::string encodeCommand(const std::string& text);
std::string encodeRegistered();
std::string encodeRegion(const std::string& path);
std::string encodeSharedUpdate(uint64_t offset, uint64_t size, uint64_t releaseMark);
// The same into `out`, which holds kSharedUpdateSize bytes (no allocation).
void encodeSharedUpdate(uint64_t offset, uint64_t size, uint64_t releaseMark, char* out);
std::string encodeToRegion(uint64_t start, const std::string& doorbellPath);
std::string encodeToSocket();
// Asks the client for the images of these names ("*": every image; none: stop).
// `takesFromRegions`: kImagesWantedTaken.
std::string encodeImagesWanted(const std::vector<std::string>& names, bool takesFromRegions = false);
// Tells a client that the controller has given its session up (or refused it).
std::string encodeGivenUp(const std::string& why);

// The bytes of a mapped region, for decoding shared updates.
struct RegionView {
  const unsigned char* data = nullptr;
  size_t size = 0;
};

// A message from the controller as the client acts on it. `command` points
// into the decoded bytes and is valid as long as they are.
struct ControllerMessage {
  MessageKind kind = kRegistered;
  Arbolite3::internal::XoAttribute::GroupAttribute update;  // for kUpdate
  // for kCommand, kRegion's and kToRegion's path, the images wanted's names, kGivenUp's reason
  const char* command = nullptr;
  size_t commandLength = 0;
  bool shared = false;        // for kUpdate: it came from the region;
  uint64_t releaseMark = 0;   // store this in the region's header once parsed
  uint64_t streamStart = 0;   // for kToRegion
};

// Decodes one message for the render `sequenceID`: an update comes out with
// this render's part folded in (PerRenderUpdate.h); a shared update is read
// from `region` (empty when none is mapped) and comes out as kUpdate. On bad
// bytes returns false with a one-line reason; nothing is allocated for a
// length before it is checked against the bytes that came.
bool decodeControllerMessage(const void* data, size_t size, const std::string& sequenceID,
                             const RegionView& region, ControllerMessage& message,
                             std::string& error);

// The record at ring position `position` of the stream in `region`, which
// the controller has published up to `published`: the message's bytes, and
// the position after it (wrap records are stepped over). Returns false with
// a reason when the record does not lie whole within what was published.
struct Record {
  const unsigned char* data = nullptr;
  size_t size = 0;
  uint64_t next = 0;
};
bool readRecord(const RegionView& region, uint64_t position, uint64_t published, Record& record,
                std::string& error);

}  // namespace LiveRendering
}  // namespace Selvane
}  // namespace Morrigo
