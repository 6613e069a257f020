// Lines about kindlet for the program that started kindlet-control, on a
// descriptor that program passed down (a pipe's write end):
//   kindlet pid 4711
//   analytics report <path> <cost record>
//   kindlet failed: exit status 255       (always one line on the end, even
//                                           "kindlet succeeded: exit status 0")
// That program is the one kindlet must not outlive: once it has closed the
// pipe's read end (or died), kindlet-control ends, and kindlet's watchdog
// then ends kindlet.
#pragma once

#include <string>

namespace KindletControl {

class ReportFd {
 public:
  // -1: no report; lines are dropped.
  explicit ReportFd(int fd);

  void line(const std::string& text);
  // -1 when there is no report.
  int fd() const { return fd_; }
  // The reader has closed its end.
  bool readerGone() const;

 private:
  int fd_;
};

}  // namespace KindletControl
