#include "Job.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <stdexcept>

#include <boost/filesystem/operations.hpp>

#include "JsonFile.h"
#include "base/FrameList.h"

namespace Farm {

std::vector<std::vector<int>> splitIntoChunks(const std::vector<int>& frames, int size) {
  std::vector<std::vector<int>> chunks;
  for (size_t i = 0; i < frames.size(); i += static_cast<size_t>(size)) {
    const size_t end = std::min(frames.size(), i + static_cast<size_t>(size));
    chunks.emplace_back(frames.begin() + static_cast<long>(i), frames.begin() + static_cast<long>(end));
  }
  return chunks;
}

void writeJob(const std::string& jobDir, const Job& job) {
  rapidjson::Document document(rapidjson::kObjectType);
  auto& allocator = document.GetAllocator();
  document.AddMember("version", 1, allocator);
  document.AddMember("root", rapidjson::Value(job.root.c_str(), allocator), allocator);
  rapidjson::Value options(rapidjson::kArrayType);
  for (const std::string& option : job.kindletOptions)
    options.PushBack(rapidjson::Value(option.c_str(), allocator), allocator);
  document.AddMember("kindletOptions", options, allocator);
  document.AddMember("threads", job.threads, allocator);
  rapidjson::Value outputs(rapidjson::kArrayType);
  for (const std::string& output : job.expectedOutputs)
    outputs.PushBack(rapidjson::Value(output.c_str(), allocator), allocator);
  document.AddMember("expectedOutputs", outputs, allocator);
  rapidjson::Value chunks(rapidjson::kArrayType);
  for (const auto& chunk : job.chunks) {
    const std::string text = Arbolite3::Base::formatFrameList(chunk);
    chunks.PushBack(rapidjson::Value(text.c_str(), allocator), allocator);
  }
  document.AddMember("chunks", chunks, allocator);
  writeJsonFile(jobDir + "/job.json", document);
}

Job readJob(const std::string& jobDir) {
  const std::string path = jobDir + "/job.json";
  rapidjson::Document document;
  if (!readJsonFile(path, document)) throw std::runtime_error("cannot read job file " + path);
  Job job;
  job.root = jsonString(document, "root");
  job.threads = static_cast<int>(jsonNumber(document, "threads", 1));
  auto options = document.FindMember("kindletOptions");
  auto chunks = document.FindMember("chunks");
  if (job.root.empty() || options == document.MemberEnd() || !options->value.IsArray() ||
      chunks == document.MemberEnd() || !chunks->value.IsArray()) {
    throw std::runtime_error("job file " + path + " is incomplete");
  }
  for (const auto& option : options->value.GetArray())
    if (option.IsString()) job.kindletOptions.push_back(option.GetString());
  auto outputs = document.FindMember("expectedOutputs");
  if (outputs != document.MemberEnd() && outputs->value.IsArray())
    for (const auto& output : outputs->value.GetArray())
      if (output.IsString()) job.expectedOutputs.push_back(output.GetString());
  for (const auto& chunk : chunks->value.GetArray())
    job.chunks.push_back(Arbolite3::Base::parseFrameList(chunk.IsString() ? chunk.GetString() : ""));
  return job;
}

std::string chunkAttemptDir(const std::string& jobDir, int chunk, int attempt) {
  char name[64];
  snprintf(name, sizeof name, "/chunk-%04d/attempt-%d", chunk, attempt);
  return jobDir + name;
}

void prepareAttempt(const std::string& jobDir, int chunk, int attempt, const std::vector<int>& frames) {
  const std::string dir = chunkAttemptDir(jobDir, chunk, attempt);
  boost::system::error_code error;
  boost::filesystem::create_directories(dir + "/analytics", error);
  std::ofstream out(dir + "/frames");
  out << Arbolite3::Base::formatFrameList(frames) << "\n";
  if (error || !out.flush()) throw std::runtime_error("cannot prepare " + dir);
}

}  // namespace Farm
