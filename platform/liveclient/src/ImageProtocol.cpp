#include "LiveRendering/ImageProtocol.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <set>

#include "Bytes.h"
#include "LiveRendering/LiveRenderProtocol.h"

namespace Morrigo {
namespace Selvane {
namespace LiveRendering {

namespace {

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

void text(Writer& writer, const std::string& value) {
  writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
}

std::string withJson(ImageMessageKind kind, const rapidjson::StringBuffer& buffer) {
  std::string message(kHeaderSize, '\0');
  message[0] = static_cast<char>(kind);
  writeLittleEndian(&message[1], buffer.GetSize(), 4);
  return message.append(buffer.GetString(), buffer.GetSize());
}

// The JSON object of a message of `kind`, its length checked.
bool parseJson(const void* data, size_t size, ImageMessageKind kind, const char* name,
               rapidjson::Document& document, std::string& error) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  if (size < kHeaderSize || bytes[0] != kind) {
    error = std::string(name) + " shorter than its header";
    return false;
  }
  const uint64_t length = readLittleEndian(bytes + 1, 4);
  if (length != size - kHeaderSize) {
    error = std::string(name) + " claims " + std::to_string(length) + " bytes but carries " +
            std::to_string(size - kHeaderSize);
    return false;
  }
  document.Parse(reinterpret_cast<const char*>(bytes + kHeaderSize), length);
  if (document.HasParseError() || !document.IsObject()) {
    error = std::string(name) + " is not a JSON object";
    return false;
  }
  return true;
}

const rapidjson::Value* member(const rapidjson::Document& document, const char* name) {
  auto found = document.FindMember(name);
  return found == document.MemberEnd() ? nullptr : &found->value;
}

bool fixedSize(const void* data, size_t size, uint8_t kind, size_t expected, const char* name,
               std::string& error) {
  if (size != expected || static_cast<const unsigned char*>(data)[0] != kind) {
    error = std::string(name) + " of " + std::to_string(size) + " bytes instead of " +
            std::to_string(expected);
    return false;
  }
  return true;
}

}  // namespace

std::string encodeImageHello(const ImageHello& hello) {
  rapidjson::StringBuffer buffer;
  Writer writer(buffer);
  writer.StartObject();
  writer.Key("session");
  text(writer, hello.sessionName);
  writer.Key("sequenceID");
  writer.Int64(hello.sequenceID);
  writer.Key("pid");
  writer.Int64(hello.pid);
  writer.EndObject();
  return withJson(kImageHello, buffer);
}

std::string encodeImageOpen(const ImageOpen& open) {
  rapidjson::StringBuffer buffer;
  Writer writer(buffer);
  writer.StartObject();
  writer.Key("image");
  writer.Uint(open.image);
  writer.Key("name");
  text(writer, open.name);
  writer.Key("width");
  writer.Int(open.width);
  writer.Key("height");
  writer.Int(open.height);
  writer.Key("channels");
  writer.StartArray();
  for (const std::string& channel : open.channels) text(writer, channel);
  writer.EndArray();
  writer.Key("pixelType");
  writer.String(open.half ? "half" : "float");
  if (!open.region.empty()) {
    writer.Key("region");
    text(writer, open.region);
    writer.Key("slotBytes");
    writer.Uint64(open.slotBytes);
    if (!open.doorbell.empty()) {
      writer.Key("doorbell");
      text(writer, open.doorbell);
    }
  }
  writer.EndObject();
  return withJson(kImageOpen, buffer);
}

std::string encodeImagePassHeader(const ImagePass& pass) {
  std::string message(kImagePassHeaderSize, '\0');
  message[0] = static_cast<char>(kImagePass);
  writeLittleEndian(&message[1], pass.image, 4);
  writeLittleEndian(&message[5], pass.slot, 4);
  writeLittleEndian(&message[9], pass.pass, 8);
  writeLittleEndian(&message[17], pass.samples, 8);
  writeLittleEndian(&message[25], pass.sceneState, 8);
  return message;
}

std::string encodeImageClose(uint32_t image) {
  std::string message(kImageCloseSize, '\0');
  message[0] = static_cast<char>(kImageClose);
  writeLittleEndian(&message[1], image, 4);
  return message;
}

std::string encodeImageDone(uint32_t image, uint64_t pass) {
  std::string message(kImageDoneSize, '\0');
  message[0] = static_cast<char>(kImageDone);
  writeLittleEndian(&message[1], image, 4);
  writeLittleEndian(&message[5], pass, 8);
  return message;
}

bool decodeImageHello(const void* data, size_t size, ImageHello& hello, std::string& error) {
  rapidjson::Document document;
  if (!parseJson(data, size, kImageHello, "image hello", document, error)) return false;
  const rapidjson::Value* session = member(document, "session");
  const rapidjson::Value* sequenceID = member(document, "sequenceID");
  const rapidjson::Value* pid = member(document, "pid");
  if (!session || !session->IsString() || !sequenceID || !sequenceID->IsInt64() || !pid ||
      !pid->IsInt64()) {
    error = "image hello lacks a member or has one of the wrong type";
    return false;
  }
  hello.sessionName.assign(session->GetString(), session->GetStringLength());
  hello.sequenceID = static_cast<long>(sequenceID->GetInt64());
  hello.pid = static_cast<long>(pid->GetInt64());
  return true;
}

bool decodeImageOpen(const void* data, size_t size, ImageOpen& open, std::string& error) {
  rapidjson::Document document;
  if (!parseJson(data, size, kImageOpen, "image open", document, error)) return false;
  const rapidjson::Value* image = member(document, "image");
  const rapidjson::Value* name = member(document, "name");
  const rapidjson::Value* width = member(document, "width");
  const rapidjson::Value* height = member(document, "height");
  const rapidjson::Value* channels = member(document, "channels");
  const rapidjson::Value* type = member(document, "pixelType");
  const rapidjson::Value* region = member(document, "region");
  const rapidjson::Value* slotBytes = member(document, "slotBytes");
  const rapidjson::Value* doorbell = member(document, "doorbell");
  if (!image || !image->IsUint() || !name || !name->IsString() || !width || !width->IsInt() ||
      !height || !height->IsInt() || !channels || !channels->IsArray() || !type ||
      !type->IsString() || (region && !region->IsString()) ||
      (region && (!slotBytes || !slotBytes->IsUint64())) ||
      (doorbell && (!region || !doorbell->IsString()))) {
    error = "image open lacks a member or has one of the wrong type";
    return false;
  }
  open = ImageOpen();
  open.image = image->GetUint();
  open.name.assign(name->GetString(), name->GetStringLength());
  open.width = width->GetInt();
  open.height = height->GetInt();
  const std::string pixelType(type->GetString(), type->GetStringLength());
  if (pixelType != "half" && pixelType != "float") {
    error = "image " + open.name + " has the unknown pixel type \"" + pixelType + "\"";
    return false;
  }
  open.half = pixelType == "half";
  if (open.width < 1 || open.height < 1 || open.width > kLargestImageSide ||
      open.height > kLargestImageSide) {
    error = "image " + open.name + " has a size of " + std::to_string(open.width) + "x" +
            std::to_string(open.height);
    return false;
  }
  std::set<std::string> seen;
  for (const auto& channel : channels->GetArray()) {
    if (!channel.IsString() || channel.GetStringLength() == 0 ||
        !seen.insert(channel.GetString()).second) {
      error = "image " + open.name + " has a channel without a name of its own";
      return false;
    }
    open.channels.emplace_back(channel.GetString(), channel.GetStringLength());
  }
  if (open.channels.empty() || open.channels.size() > kMostImageChannels) {
    error = "image " + open.name + " has " + std::to_string(open.channels.size()) + " channels";
    return false;
  }
  if (region) {
    open.region.assign(region->GetString(), region->GetStringLength());
    open.slotBytes = slotBytes->GetUint64();
    // Pages of their own when the controller takes passes itself: the
    // header after them is mapped apart, for writing.
    if (doorbell) open.doorbell.assign(doorbell->GetString(), doorbell->GetStringLength());
    if (open.slotBytes < open.pixelBytes() || open.slotBytes > kLargestSlotBytes ||
        (doorbell && open.slotBytes % kImageHeaderBytes != 0)) {
      error = "image " + open.name + " has buffers of " + std::to_string(open.slotBytes) +
              " bytes for " + std::to_string(open.pixelBytes()) + " bytes of pixels";
      return false;
    }
  }
  return true;
}

bool decodeImagePass(const void* data, size_t size, ImagePass& pass, std::string& error) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  if (size < kImagePassHeaderSize || bytes[0] != kImagePass) {
    error = "image pass shorter than its header";
    return false;
  }
  pass.image = static_cast<uint32_t>(readLittleEndian(bytes + 1, 4));
  pass.slot = static_cast<uint32_t>(readLittleEndian(bytes + 5, 4));
  pass.pass = readLittleEndian(bytes + 9, 8);
  pass.samples = readLittleEndian(bytes + 17, 8);
  pass.sceneState = readLittleEndian(bytes + 25, 8);
  pass.inlineBytes = size - kImagePassHeaderSize;
  pass.pixels = pass.inlineBytes > 0 ? bytes + kImagePassHeaderSize : nullptr;
  if (pass.slot != kInlinePixels && (pass.slot >= kImageSlots || pass.inlineBytes != 0)) {
    error = "image pass in buffer " + std::to_string(pass.slot) + " with " +
            std::to_string(pass.inlineBytes) + " bytes of pixels in the message";
    return false;
  }
  return true;
}

bool decodeImageClose(const void* data, size_t size, uint32_t& image, std::string& error) {
  if (!fixedSize(data, size, kImageClose, kImageCloseSize, "image close", error)) return false;
  image = static_cast<uint32_t>(readLittleEndian(static_cast<const unsigned char*>(data) + 1, 4));
  return true;
}

bool decodeImageDone(const void* data, size_t size, uint32_t& image, uint64_t& pass,
                     std::string& error) {
  if (size == 0 || !fixedSize(data, size, kImageDone, kImageDoneSize, "image done", error))
    return size == 0 ? (error = "empty message", false) : false;
  const auto* bytes = static_cast<const unsigned char*>(data);
  image = static_cast<uint32_t>(readLittleEndian(bytes + 1, 4));
  pass = readLittleEndian(bytes + 5, 8);
  return true;
}

}  // namespace LiveRendering
}  // namespace Selvane
}  // namespace Morrigo
