// A listening TCP socket on 127.0.0.1 with a free port, for tests that need
// the peer of a client connection.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "base/FileDescriptor.h"

class LocalListener {
 public:
  LocalListener() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (!fd_ || ::bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(fd_.get(), 16) != 0 ||
        ::getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0)
      throw std::runtime_error("cannot listen on 127.0.0.1");
    port_ = ntohs(address.sin_port);
  }

  unsigned short port() const { return port_; }
  Arbolite3::Base::FileDescriptor accept() {
    return Arbolite3::Base::FileDescriptor(::accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }

  // A port on which nobody listens (bound, never listened, then closed).
  static unsigned short unusedPort() {
    LocalListener listener;
    return listener.port();
  }

 private:
  Arbolite3::Base::FileDescriptor fd_;
  unsigned short port_ = 0;
};

// Sends everything or fails the calling test.
inline void sendAll(int fd, const void* data, size_t size) {
  const char* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t sent = ::send(fd, bytes, size, MSG_NOSIGNAL);
    if (sent <= 0) throw std::runtime_error("send failed");
    bytes += sent;
    size -= static_cast<size_t>(sent);
  }
}

inline void sendAll(int fd, const std::string& text) { sendAll(fd, text.data(), text.size()); }

// Closes with a reset instead of an orderly shutdown.
inline void resetConnection(Arbolite3::Base::FileDescriptor& fd) {
  const linger abort = {1, 0};
  ::setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  fd.reset();
}
