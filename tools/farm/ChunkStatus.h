// What a task tells the driver about one attempt at a chunk, through
// status.json in the attempt's directory. The task rewrites it as frames
// finish, so a task that dies still leaves the frames it completed.
#pragma once

#include <string>
#include <vector>

namespace Farm {

struct FrameRecord {
  int frame = 0;
  bool rendered = false;
  double seconds = 0;  // from the previous frame's end (or the start) to this one's
  std::string note;    // why it was not credited, when the task knows
};

struct ChunkStatus {
  bool finished = false;  // false: still running, or the task died
  std::string host;
  long pid = 0;           // the task
  long controlPid = 0;    // its kindlet-control
  double start = 0;       // seconds since the epoch
  double end = 0;
  int exitStatus = -1;    // kindlet-control's exit status once finished
  std::vector<FrameRecord> frames;
};

void writeChunkStatus(const std::string& attemptDir, const ChunkStatus& status);
// False when there is no readable status yet.
bool readChunkStatus(const std::string& attemptDir, ChunkStatus& status);

}  // namespace Farm
