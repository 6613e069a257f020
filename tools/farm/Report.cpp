#include "Report.h"

#include <algorithm>
#include <cstdio>

#include <boost/filesystem/operations.hpp>

#include "JsonFile.h"
#include "XoRenderServices/AnalyticsReport.h"

namespace Farm {

namespace fs = boost::filesystem;

namespace {

void addReport(const std::string& path, JobCost& cost) {
  std::string json;
  if (!Arbolite3::XoRenderServices::v1::readAnalyticsRecord(path, "selvane.process.cost", json)) return;
  rapidjson::Document value;
  value.Parse(json.c_str());
  if (value.HasParseError() || !value.IsObject()) return;
  ++cost.reports;
  cost.wallSeconds += jsonNumber(value, "wallSeconds");
  cost.cpuSeconds += jsonNumber(value, "cpuSeconds");
  cost.peakResidentBytes = std::max(cost.peakResidentBytes, jsonNumber(value, "peakResidentBytes"));
  cost.bytesRead += jsonNumber(value, "bytesRead");
  cost.bytesWritten += jsonNumber(value, "bytesWritten");
}

// Directory entries whose names start with `prefix`; none when unreadable.
std::vector<fs::path> entries(const fs::path& dir, const std::string& prefix) {
  std::vector<fs::path> result;
  boost::system::error_code error;
  for (fs::directory_iterator it(dir, error), end; !error && it != end; it.increment(error))
    if (it->path().filename().string().compare(0, prefix.size(), prefix) == 0) result.push_back(it->path());
  return result;
}

const char* stateName(FrameState state) {
  switch (state) {
    case FrameState::Pending: return "pending";
    case FrameState::Rendered: return "rendered";
    case FrameState::Failed: return "failed";
    case FrameState::Missing: return "missing";
  }
  return "?";
}

std::string mebibytes(double bytes) {
  char text[32];
  snprintf(text, sizeof text, "%.1f MiB", bytes / (1024.0 * 1024.0));
  return text;
}

}  // namespace

JobCost collectJobCost(const std::string& jobDir) {
  JobCost cost;
  for (const fs::path& chunk : entries(jobDir, "chunk-"))
    for (const fs::path& attempt : entries(chunk, "attempt-"))
      for (const fs::path& report : entries(attempt / "analytics", ""))
        if (report.extension() == ".json") addReport(report.string(), cost);
  return cost;
}

void printFrameTable(std::ostream& out, const JobState& state) {
  char line[512];
  snprintf(line, sizeof line, "%8s  %-8s  %-20s  %8s  %4s  %8s  %s\n", "frame", "status", "host",
           "seconds", "exit", "attempts", "note");
  out << line;
  for (const FrameResult& frame : state.frames()) {
    char seconds[32] = "-";
    if (frame.state == FrameState::Rendered) snprintf(seconds, sizeof seconds, "%.2f", frame.seconds);
    const std::string exit = frame.exitStatus >= 0 ? std::to_string(frame.exitStatus) : "-";
    std::string note = frame.note;
    // Only a log that was written: a task that never ran left none.
    if (frame.state == FrameState::Failed && !frame.log.empty() && fs::exists(frame.log))
      note += std::string(note.empty() ? "" : "; ") + "log: " + frame.log;
    snprintf(line, sizeof line, "%8d  %-8s  %-20s  %8s  %4s  %8d  %s\n", frame.frame, stateName(frame.state),
             frame.host.empty() ? "-" : frame.host.c_str(), seconds, exit.c_str(), frame.attempts,
             note.c_str());
    std::string text(line);
    text.erase(text.find_last_not_of(" \n") + 1);
    out << text << "\n";
  }
}

void printSummary(std::ostream& out, const JobState& state, const JobCost& cost) {
  int failed = 0;
  int missing = 0;
  for (const FrameResult& frame : state.frames()) {
    failed += frame.state == FrameState::Failed || frame.state == FrameState::Pending ? 1 : 0;
    missing += frame.state == FrameState::Missing ? 1 : 0;
  }
  out << "Job " << state.jobDir() << ": " << state.rendered() << " of " << state.total()
      << " frames rendered, " << failed << " failed, " << missing << " missing; " << state.chunkCount()
      << " chunks, " << state.kindletRuns() << " kindlet runs\n";
  if (cost.reports == 0) {
    out << "Cost: no analytics reports were written\n";
    return;
  }
  char line[256];
  snprintf(line, sizeof line, "Cost from %d analytics reports: wall %.2f s, CPU %.2f s, peak resident %s "
           "(largest process), read %s, written %s\n", cost.reports, cost.wallSeconds, cost.cpuSeconds,
           mebibytes(cost.peakResidentBytes).c_str(), mebibytes(cost.bytesRead).c_str(),
           mebibytes(cost.bytesWritten).c_str());
  out << line;
}

}  // namespace Farm
