// The driver's book of a job: every frame's outcome and every chunk's
// attempts. Both modes feed it the attempts they ran; it decides what is
// still to do.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Job.h"

namespace Farm {

enum class FrameState { Pending, Rendered, Failed, Missing };

struct FrameResult {
  int frame = 0;
  FrameState state = FrameState::Pending;
  std::string host;
  double seconds = 0;
  int exitStatus = -1;  // of the kindlet that rendered it or last failed on it; -1 unknown
  int attempts = 0;
  std::string note;     // why it failed, when the exit status alone doesn't say
  std::string log;      // log of its last attempt
};

class JobState {
 public:
  // `missing` frames have no Op tree file and are never submitted.
  JobState(std::string jobDir, const Job& job, const std::vector<int>& missing, int maxAttempts);

  // Chunks with frames still to render and attempts left, in order.
  std::vector<int> chunksToRun() const;
  // Writes the attempt's frame list (the chunk's frames not yet rendered) and
  // returns its number, counting from 1.
  int startAttempt(int chunk);
  int attemptsOf(int chunk) const { return attempts_[static_cast<size_t>(chunk)]; }
  // Takes the outcome from the attempt's status file; `exitStatus` and `note`
  // stand in when the task ended without finishing it.
  void finishAttempt(int chunk, int attempt, int exitStatus, const std::string& note);
  // Takes back an attempt that never ran (its submission failed): its
  // directory goes, its frames keep their earlier attempts and log, with
  // `note` as the reason.
  void abandonAttempt(int chunk, int attempt, const std::string& note);
  // No more attempts: whatever is not rendered has failed.
  void close();

  // Attempts whose task started kindlet-control (its status file says so).
  int kindletRuns() const;
  int total() const;
  int rendered() const;
  // Frames rendered so far, counting those the given running attempts
  // (chunk, attempt) have reported.
  int renderedSoFar(const std::vector<std::pair<int, int>>& running) const;
  bool allRendered() const { return rendered() == total(); }
  const std::vector<FrameResult>& frames() const { return frames_; }
  const std::string& jobDir() const { return jobDir_; }
  int chunkCount() const { return static_cast<int>(chunks_.size()); }

 private:
  FrameResult* find(int frame);

  std::string jobDir_;
  std::vector<std::vector<int>> chunks_;
  std::vector<int> attempts_;
  int maxAttempts_;
  std::vector<FrameResult> frames_;
};

}  // namespace Farm
