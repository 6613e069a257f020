// "frames done of total" on standard error while a job runs: rewritten in
// place on a terminal, one line per change otherwise (logs stay readable).
#pragma once

#include <string>

namespace Farm {

class Progress {
 public:
  explicit Progress(int total);
  void update(int rendered, int running, int waiting);
  // Ends the line in place, before other output.
  void finish();

 private:
  int total_;
  bool terminal_;
  std::string last_;
};

}  // namespace Farm
