#include "LiveRendering/LiveRenderProtocol.h"

#include <cstring>

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "Bytes.h"
#include "LiveRendering/PerRenderUpdate.h"

namespace Morrigo {
namespace Selvane {
namespace LiveRendering {

using Arbolite3::internal::XoAttribute::Attribute;
using Arbolite3::internal::XoAttribute::GroupAttribute;
using Arbolite3::internal::XoAttribute::kTypeGroup;

namespace {

std::string withLength(MessageKind kind, const std::string& body) {
  std::string message(kHeaderSize, '\0');
  message[0] = static_cast<char>(kind);
  writeLittleEndian(&message[1], body.size(), 4);
  return message + body;
}

uint32_t readLength(const unsigned char* bytes) {
  return static_cast<uint32_t>(readLittleEndian(bytes + 1, 4));
}



// The update in `bytes`, checked and with this render's part folded in.
bool decodeUpdate(const unsigned char* bytes, size_t length, const std::string& sequenceID,
                  ControllerMessage& message, std::string& error) {
  const Attribute parsed = Attribute::parseBinary(bytes, length);
  if (!parsed.isValid()) {
    error = "update is not a binary attribute";
    return false;
  }
  if (parsed.getType() != kTypeGroup) {
    error = "update is not a group attribute";
    return false;
  }
  PerRenderPart part;
  message.update = foldPerRenderUpdate(GroupAttribute(parsed), sequenceID, &part);
  if (part == PerRenderPart::NotGroup) {
    error = std::string("update's ") + kPerRenderUpdateKey + " is not a group";
    return false;
  }
  message.kind = kUpdate;
  return true;
}

}  // namespace

std::string encodeRegister(const Registration& registration) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  auto text = [&writer](const std::string& value) {
    writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
  };
  writer.StartObject();
  writer.Key("protocol");
  writer.Int(kProtocolVersion);
  writer.Key("session");
  text(registration.sessionName);
  writer.Key("sequenceID");
  writer.Int64(registration.sequenceID);
  writer.Key("opTreeFile");
  text(registration.opTreeFile);
  writer.Key("renderer");
  text(registration.rendererName);
  writer.Key("renderMethods");
  writer.StartArray();
  for (const std::string& method : registration.renderMethods) text(method);
  writer.EndArray();
  writer.Key("pid");
  writer.Int64(registration.pid);
  writer.Key("sharedRegions");
  writer.Bool(registration.sharedRegions);
  writer.Key("images");
  writer.Bool(registration.images);
  writer.EndObject();
  return std::string(1, static_cast<char>(kRegister)) + buffer.GetString();
}

bool decodeRegister(const void* data, size_t size, Registration& registration,
                    std::string& error) {
  const char* bytes = static_cast<const char*>(data);
  if (size < 1 || static_cast<unsigned char>(bytes[0]) != kRegister) {
    error = "not a register message";
    return false;
  }
  rapidjson::Document document;
  document.Parse(bytes + 1, size - 1);
  if (document.HasParseError() || !document.IsObject()) {
    error = "registration is not a JSON object";
    return false;
  }
  auto member = [&document](const char* name) -> const rapidjson::Value* {
    auto found = document.FindMember(name);
    return found == document.MemberEnd() ? nullptr : &found->value;
  };
  const rapidjson::Value* session = member("session");
  const rapidjson::Value* sequenceID = member("sequenceID");
  const rapidjson::Value* file = member("opTreeFile");
  const rapidjson::Value* renderer = member("renderer");
  const rapidjson::Value* methods = member("renderMethods");
  const rapidjson::Value* pid = member("pid");
  if (!session || !session->IsString() || !sequenceID || !sequenceID->IsInt64() || !file ||
      !file->IsString() || !renderer || !renderer->IsString() || !methods ||
      !methods->IsArray() || !pid || !pid->IsInt64()) {
    error = "registration lacks a member or has one of the wrong type";
    return false;
  }
  registration = Registration();
  registration.sessionName.assign(session->GetString(), session->GetStringLength());
  registration.sequenceID = static_cast<long>(sequenceID->GetInt64());
  registration.opTreeFile.assign(file->GetString(), file->GetStringLength());
  registration.rendererName.assign(renderer->GetString(), renderer->GetStringLength());
  for (const auto& method : methods->GetArray()) {
    if (method.IsString()) registration.renderMethods.emplace_back(method.GetString(), method.GetStringLength());
  }
  registration.pid = static_cast<long>(pid->GetInt64());
  const rapidjson::Value* shared = member("sharedRegions");
  registration.sharedRegions = shared != nullptr && shared->IsBool() && shared->GetBool();
  const rapidjson::Value* images = member("images");
  registration.images = images != nullptr && images->IsBool() && images->GetBool();
  return true;
}

std::string encodeUpdate(const std::string& binaryAttribute) {
  return withLength(kUpdate, binaryAttribute);
}

std::string encodeCommand(const std::string& text) { return withLength(kCommand, text); }

std::string encodeRegistered() { return std::string(1, static_cast<char>(kRegistered)); }

std::string encodeRegion(const std::string& path) { return withLength(kRegion, path); }

void encodeSharedUpdate(uint64_t offset, uint64_t size, uint64_t releaseMark, char* out) {
  out[0] = static_cast<char>(kSharedUpdate);
  writeLittleEndian(out + 1, kSharedUpdateBodySize, 4);
  writeLittleEndian(out + kHeaderSize, offset, 8);
  writeLittleEndian(out + kHeaderSize + 8, size, 8);
  writeLittleEndian(out + kHeaderSize + 16, releaseMark, 8);
}

std::string encodeToRegion(uint64_t start, const std::string& doorbellPath) {
  std::string body(8, '\0');
  writeLittleEndian(&body[0], start, 8);
  return withLength(kToRegion, body + doorbellPath);
}

std::string encodeToSocket() { return withLength(kToSocket, std::string()); }

std::string encodeImagesWanted(const std::vector<std::string>& names, bool takesFromRegions) {
  std::string body;
  for (const std::string& name : names) body += (body.empty() ? "" : "\n") + name;
  return withLength(takesFromRegions ? kImagesWantedTaken : kImagesWanted, body);
}

std::string encodeGivenUp(const std::string& why) { return withLength(kGivenUp, why); }

std::string encodeSharedUpdate(uint64_t offset, uint64_t size, uint64_t releaseMark) {
  std::string message(kSharedUpdateSize, '\0');
  encodeSharedUpdate(offset, size, releaseMark, &message[0]);
  return message;
}

bool decodeControllerMessage(const void* data, size_t size, const std::string& sequenceID,
                             const RegionView& region, ControllerMessage& message,
                             std::string& error) {
  const unsigned char* bytes = static_cast<const unsigned char*>(data);
  if (size == 0) {
    error = "empty message";
    return false;
  }
  const unsigned kind = bytes[0];
  if (kind == kRegistered) {
    message.kind = kRegistered;
    return true;
  }
  static const char* const names[] = {"update",    "command",   "region",      "shared update",
                                      "to-region", "to-socket", "images-wanted", nullptr,
                                      "given-up",  "images-wanted"};
  if (kind < kUpdate || kind > kImagesWantedTaken || names[kind - kUpdate] == nullptr) {
    char text[48];
    snprintf(text, sizeof text, "unknown message kind 0x%02x", kind);
    error = text;
    return false;
  }
  const std::string name = names[kind - kUpdate];
  if (size < kHeaderSize) {
    error = name + " shorter than its header";
    return false;
  }
  const uint32_t length = readLength(bytes);
  if (length != size - kHeaderSize) {
    error = name + " claims " + std::to_string(length) + " bytes but carries " +
            std::to_string(size - kHeaderSize);
    return false;
  }
  const unsigned char* body = bytes + kHeaderSize;
  message.shared = false;
  switch (kind) {
    case kCommand:
    case kRegion:
    case kImagesWanted:
    case kImagesWantedTaken:
    case kGivenUp:
      message.kind = static_cast<MessageKind>(kind);
      message.command = reinterpret_cast<const char*>(body);
      message.commandLength = length;
      return true;
    case kUpdate:
      return decodeUpdate(body, length, sequenceID, message, error);
    case kToSocket:
      message.kind = kToSocket;
      return true;
    case kToRegion:
      if (length < 8) {
        error = "to-region message of " + std::to_string(length) + " bytes, without its start";
        return false;
      }
      message.kind = kToRegion;
      message.streamStart = readLittleEndian(body, 8);
      message.command = reinterpret_cast<const char*>(body + 8);
      message.commandLength = length - 8;
      return true;
    default:
      break;
  }
  if (length != kSharedUpdateBodySize) {
    error = "shared update of " + std::to_string(length) + " bytes instead of " +
            std::to_string(kSharedUpdateBodySize);
    return false;
  }
  const uint64_t offset = readLittleEndian(body, 8);
  const uint64_t count = readLittleEndian(body + 8, 8);
  if (region.data == nullptr) {
    error = "shared update without a region";
    return false;
  }
  if (offset < kRegionHeaderSize || offset > region.size || count > region.size - offset) {
    error = "shared update names bytes " + std::to_string(offset) + " to " +
            std::to_string(offset + count) + " of a region of " + std::to_string(region.size);
    return false;
  }
  if (!decodeUpdate(region.data + offset, count, sequenceID, message, error)) return false;
  message.shared = true;
  message.releaseMark = readLittleEndian(body + 16, 8);
  return true;
}

bool readRecord(const RegionView& region, uint64_t position, uint64_t published, Record& record,
                std::string& error) {
  if (region.data == nullptr || region.size <= kRegionHeaderSize) {
    error = "a stream without a region";
    return false;
  }
  const uint64_t area = region.size - kRegionHeaderSize;
  for (bool wrapped = false;;) {
    const uint64_t at = position % area;
    if (published < position || published - position < kRecordHeaderSize || at % 8 != 0 ||
        area - at < kRecordHeaderSize) {
      error = "the region's stream has no record at position " + std::to_string(position) +
              " (published up to " + std::to_string(published) + ")";
      return false;
    }
    const unsigned char* header = region.data + kRegionHeaderSize + at;
    const uint64_t size = readLittleEndian(header, 4);
    if (size == kWrapRecord && !wrapped) {
      wrapped = true;
      position += area - at;
      continue;
    }
    const uint64_t span = recordSpan(size);
    if (size == kWrapRecord || span > area - at || span > published - position) {
      error = "the region's record at position " + std::to_string(position) + " claims " +
              std::to_string(size) + " bytes, more than it holds";
      return false;
    }
    record.data = header + kRecordHeaderSize;
    record.size = size;
    record.next = position + span;
    return true;
  }
}

}  // namespace LiveRendering
}  // namespace Selvane
}  // namespace Morrigo
