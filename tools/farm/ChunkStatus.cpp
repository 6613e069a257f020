#include "ChunkStatus.h"

#include "JsonFile.h"

namespace Farm {

void writeChunkStatus(const std::string& attemptDir, const ChunkStatus& status) {
  rapidjson::Document document(rapidjson::kObjectType);
  auto& allocator = document.GetAllocator();
  document.AddMember("version", 1, allocator);
  document.AddMember("state", rapidjson::StringRef(status.finished ? "finished" : "running"), allocator);
  document.AddMember("host", rapidjson::Value(status.host.c_str(), allocator), allocator);
  document.AddMember("pid", static_cast<int64_t>(status.pid), allocator);
  document.AddMember("controlPid", static_cast<int64_t>(status.controlPid), allocator);
  document.AddMember("start", status.start, allocator);
  document.AddMember("end", status.end, allocator);
  document.AddMember("exitStatus", status.exitStatus, allocator);
  rapidjson::Value frames(rapidjson::kArrayType);
  for (const FrameRecord& record : status.frames) {
    rapidjson::Value frame(rapidjson::kObjectType);
    frame.AddMember("frame", record.frame, allocator);
    frame.AddMember("rendered", record.rendered, allocator);
    frame.AddMember("seconds", record.seconds, allocator);
    if (!record.note.empty()) frame.AddMember("note", rapidjson::Value(record.note.c_str(), allocator), allocator);
    frames.PushBack(frame, allocator);
  }
  document.AddMember("frames", frames, allocator);
  writeJsonFile(attemptDir + "/status.json", document);
}

bool readChunkStatus(const std::string& attemptDir, ChunkStatus& status) {
  rapidjson::Document document;
  if (!readJsonFile(attemptDir + "/status.json", document)) return false;
  status = ChunkStatus();
  status.finished = jsonString(document, "state") == "finished";
  status.host = jsonString(document, "host");
  status.pid = static_cast<long>(jsonNumber(document, "pid"));
  status.controlPid = static_cast<long>(jsonNumber(document, "controlPid"));
  status.start = jsonNumber(document, "start");
  status.end = jsonNumber(document, "end");
  status.exitStatus = static_cast<int>(jsonNumber(document, "exitStatus", -1));
  auto frames = document.FindMember("frames");
  if (frames != document.MemberEnd() && frames->value.IsArray()) {
    for (const auto& frame : frames->value.GetArray()) {
      FrameRecord record;
      record.frame = static_cast<int>(jsonNumber(frame, "frame"));
      auto rendered = frame.IsObject() ? frame.FindMember("rendered") : frame.MemberEnd();
      record.rendered = frame.IsObject() && rendered != frame.MemberEnd() && rendered->value.IsBool() &&
                        rendered->value.GetBool();
      record.seconds = jsonNumber(frame, "seconds");
      record.note = jsonString(frame, "note");
      status.frames.push_back(record);
    }
  }
  return true;
}

}  // namespace Farm
