#include "JobState.h"

#include <algorithm>

#include <boost/filesystem/operations.hpp>

#include "ChunkStatus.h"

namespace Farm {

JobState::JobState(std::string jobDir, const Job& job, const std::vector<int>& missing, int maxAttempts)
    : jobDir_(std::move(jobDir)), chunks_(job.chunks), attempts_(job.chunks.size(), 0),
      maxAttempts_(maxAttempts) {
  for (const auto& chunk : chunks_) {
    for (int frame : chunk) {
      FrameResult result;
      result.frame = frame;
      frames_.push_back(result);
    }
  }
  for (int frame : missing) {
    FrameResult result;
    result.frame = frame;
    result.state = FrameState::Missing;
    result.note = "no Op tree file";
    frames_.push_back(result);
  }
  std::stable_sort(frames_.begin(), frames_.end(),
                   [](const FrameResult& a, const FrameResult& b) { return a.frame < b.frame; });
}

FrameResult* JobState::find(int frame) {
  auto it = std::lower_bound(frames_.begin(), frames_.end(), frame,
                             [](const FrameResult& result, int value) { return result.frame < value; });
  return it != frames_.end() && it->frame == frame ? &*it : nullptr;
}

std::vector<int> JobState::chunksToRun() const {
  std::vector<int> result;
  for (size_t chunk = 0; chunk < chunks_.size(); ++chunk) {
    if (attempts_[chunk] >= maxAttempts_) continue;
    for (int frame : chunks_[chunk]) {
      auto it = std::lower_bound(frames_.begin(), frames_.end(), frame,
                                 [](const FrameResult& r, int value) { return r.frame < value; });
      if (it->state == FrameState::Pending) {
        result.push_back(static_cast<int>(chunk));
        break;
      }
    }
  }
  return result;
}

int JobState::startAttempt(int chunk) {
  const int attempt = ++attempts_[static_cast<size_t>(chunk)];
  std::vector<int> todo;
  for (int frame : chunks_[static_cast<size_t>(chunk)]) {
    FrameResult* result = find(frame);
    if (result->state != FrameState::Pending) continue;
    todo.push_back(frame);
    ++result->attempts;
    result->log = chunkAttemptDir(jobDir_, chunk, attempt) + "/log";
  }
  prepareAttempt(jobDir_, chunk, attempt, todo);
  return attempt;
}

void JobState::finishAttempt(int chunk, int attempt, int exitStatus, const std::string& note) {
  ChunkStatus status;
  const bool known = readChunkStatus(chunkAttemptDir(jobDir_, chunk, attempt), status);
  if (known && status.finished) exitStatus = status.exitStatus;
  const std::string why = known && status.finished ? "" : note.empty() ? "task ended without a status" : note;
  for (const FrameRecord& record : status.frames) {
    FrameResult* result = find(record.frame);
    if (result == nullptr || result->state != FrameState::Pending) continue;
    result->host = status.host;
    result->exitStatus = exitStatus;
    if (record.rendered) {
      result->state = FrameState::Rendered;
      result->seconds = record.seconds;
      result->note.clear();
    } else {
      result->note = why.empty() ? record.note : why;
    }
  }
  if (known) return;
  // No status at all: the task never got to run kindlet.
  for (int frame : chunks_[static_cast<size_t>(chunk)]) {
    FrameResult* result = find(frame);
    if (result->state != FrameState::Pending) continue;
    result->exitStatus = exitStatus;
    result->note = why;
  }
}

void JobState::abandonAttempt(int chunk, int attempt, const std::string& note) {
  --attempts_[static_cast<size_t>(chunk)];
  for (int frame : chunks_[static_cast<size_t>(chunk)]) {
    FrameResult* result = find(frame);
    if (result->state != FrameState::Pending) continue;
    --result->attempts;
    result->note = note;
    result->log = attempt > 1 ? chunkAttemptDir(jobDir_, chunk, attempt - 1) + "/log" : "";
  }
  boost::system::error_code error;
  boost::filesystem::remove_all(chunkAttemptDir(jobDir_, chunk, attempt), error);
}

void JobState::close() {
  for (FrameResult& result : frames_)
    if (result.state == FrameState::Pending) result.state = FrameState::Failed;
}

int JobState::kindletRuns() const {
  int runs = 0;
  for (size_t chunk = 0; chunk < chunks_.size(); ++chunk) {
    for (int attempt = 1; attempt <= attempts_[chunk]; ++attempt) {
      ChunkStatus status;
      if (readChunkStatus(chunkAttemptDir(jobDir_, static_cast<int>(chunk), attempt), status) && status.controlPid > 0)
        ++runs;
    }
  }
  return runs;
}

int JobState::total() const { return static_cast<int>(frames_.size()); }

int JobState::rendered() const {
  return static_cast<int>(std::count_if(frames_.begin(), frames_.end(), [](const FrameResult& r) {
    return r.state == FrameState::Rendered;
  }));
}

int JobState::renderedSoFar(const std::vector<std::pair<int, int>>& running) const {
  int count = rendered();
  for (const auto& entry : running) {
    ChunkStatus status;
    if (!readChunkStatus(chunkAttemptDir(jobDir_, entry.first, entry.second), status)) continue;
    for (const FrameRecord& record : status.frames) count += record.rendered ? 1 : 0;
  }
  return count;
}

}  // namespace Farm
