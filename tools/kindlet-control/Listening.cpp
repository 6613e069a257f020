#include "Listening.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>

using Arbolite3::Base::FileDescriptor;

namespace KindletControl {

FileDescriptor listenOn(unsigned short& port) {
  FileDescriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int one = 1;
  ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  socklen_t length = sizeof address;
  if (!fd || ::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(fd.get(), 4) != 0 ||
      ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    std::cerr << "kindlet-control: cannot listen on 127.0.0.1:" << port << ": "
              << std::strerror(errno) << std::endl;
    return FileDescriptor();
  }
  port = ntohs(address.sin_port);
  return fd;
}

bool acceptBoth(FileDescriptor& controlListener, FileDescriptor& dataListener,
                FileDescriptor& control, FileDescriptor& data, Launcher& child, double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  int waitFd = child.waitFd();
  while (!control || !data) {
    if (child.started() && child.ended()) {
      std::cerr << "kindlet-control: kindlet ended before it connected" << std::endl;
      return false;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      std::cerr << "kindlet-control: no connection on the " << (control ? "data" : "control")
                << " port within " << seconds << " s" << std::endl;
      return false;
    }
    // The wait descriptor hangs up when kindlet ends; the time limit keeps
    // the deadline (and a kindlet whose descriptor a grandchild holds) in view.
    pollfd entries[3] = {{controlListener.get(), POLLIN, 0},
                         {dataListener.get(), POLLIN, 0},
                         {waitFd, POLLIN, 0}};
    if (::poll(entries, 3, 100) <= 0) continue;
    // Once hung up it stays ready; the end is reaped a moment later.
    if (entries[2].revents != 0) waitFd = -1;
    for (int i = 0; i < 2; ++i) {
      FileDescriptor& target = i == 0 ? control : data;
      if (!target && (entries[i].revents & POLLIN)) {
        target.reset(::accept4(entries[i].fd, nullptr, nullptr, SOCK_CLOEXEC));
        if (target) std::cout << "connected " << (i == 0 ? "control" : "data") << std::endl;
      }
    }
  }
  return true;
}

}  // namespace KindletControl
