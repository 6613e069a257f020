#include "XoRenderServices/AnalyticsManager.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <iostream>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "XoConfiguration/Configuration.h"
#include "XoRenderServices/AnalyticsReport.h"
#include "base/ProcessCreationTime.h"
#include "base/ProcessMetrics.h"
#include "base/ReplaceFile.h"

namespace Arbolite3 {
namespace XoRenderServices {
namespace v1 {

AnalyticsManager* AnalyticsManager::g_instance = nullptr;

namespace {

std::string hostName() {
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0) return "localhost";
  return name;
}

int64_t microsSinceBoot() {
  timespec now;
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// What this process has cost so far: the figures a farm accounts per job.
rapidjson::Value processCost(rapidjson::Document::AllocatorType& allocator) {
  const int64_t created = Base::getProcessCreationTime(::getpid(), nullptr);
  const Base::ProcessCpuTimes cpu = Base::getProcessCpuTimes();
  const Base::ProcessIO io = Base::getProcessIO();
  rapidjson::Value cost(rapidjson::kObjectType);
  cost.AddMember("wallSeconds", created >= 0 ? (microsSinceBoot() - created) / 1e6 : 0.0,
                 allocator);
  cost.AddMember("cpuSeconds", (cpu.userMicros + cpu.systemMicros) / 1e6, allocator);
  cost.AddMember("peakResidentBytes",
                 static_cast<uint64_t>(Base::getProcessMemory().peakResidentBytes), allocator);
  cost.AddMember("bytesRead", static_cast<uint64_t>(io.bytesRead), allocator);
  cost.AddMember("bytesWritten", static_cast<uint64_t>(io.bytesWritten), allocator);
  return cost;
}

void fsyncPath(const std::string& path, int flags) {
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

}  // namespace

AnalyticsManager::AnalyticsManager(const std::string& directory) : directory_(directory) {
  if (directory_.empty())
    directory_ = XoConfiguration::v1::Config().get("SELVANE_ANALYTICS_DIR");
  const int pid = ::getpid();
  path_ = directory_ + "/" +
          analyticsReportName(hostName(), pid, Base::getProcessCreationTime(pid, nullptr));
  records_.SetArray();
}

void AnalyticsManager::addRecord(const std::string& name, const rapidjson::Value& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (closed_) return;
  auto& allocator = records_.GetAllocator();
  rapidjson::Value record(rapidjson::kObjectType);
  record.AddMember("name", rapidjson::Value(name.c_str(), allocator), allocator);
  record.AddMember("value", rapidjson::Value(value, allocator), allocator);
  records_.PushBack(record, allocator);
}

const std::string& AnalyticsManager::getPath() const { return path_; }

void AnalyticsManager::close() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (closed_) return;
  closed_ = true;
  auto& allocator = records_.GetAllocator();
  rapidjson::Value cost(rapidjson::kObjectType);
  cost.AddMember("name", "selvane.process.cost", allocator);
  cost.AddMember("value", processCost(allocator), allocator);
  records_.PushBack(cost, allocator);

  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  writer.StartObject();
  writer.Key("version");
  writer.Int(1);
  writer.Key("host");
  writer.String(hostName().c_str());
  writer.Key("pid");
  writer.Int(::getpid());
  writer.Key("records");
  records_.Accept(writer);
  writer.EndObject();

  // Readers see the old state or the whole file, never a part of it. The
  // temporary is synced before the rename, so that after a crash the name
  // holds the whole report; flush() syncs the directory too.
  const int error = Base::replaceFile(path_, std::string(text.GetString(), text.GetSize()) + "\n",
                                      true);
  if (error != 0)
    std::cerr << "Analytics report " << path_ << " could not be written: "
              << std::strerror(error) << std::endl;
}

void AnalyticsManager::flush() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!closed_) return;
  fsyncPath(path_, O_RDONLY);
  fsyncPath(directory_, O_RDONLY | O_DIRECTORY);
}

}  // namespace v1
}  // namespace XoRenderServices
}  // namespace Arbolite3
