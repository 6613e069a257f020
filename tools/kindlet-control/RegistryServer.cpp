#include "RegistryServer.h"

#include <zmq.h>

#include <cerrno>
#include <chrono>
#include <iostream>
#include <thread>

namespace KindletControl {

using Morrigo::Selvane::LiveRendering::Registration;
namespace protocol = Morrigo::Selvane::LiveRendering;

RegistryServer::RegistryServer() : context(zmq_ctx_new()), socket(zmq_socket(context, ZMQ_ROUTER)) {
  const int one = 1, linger = 500;
  // An unknown or vanished client is an error to report, not a silent drop;
  // a full queue makes send() wait instead of dropping.
  zmq_setsockopt(socket, ZMQ_ROUTER_MANDATORY, &one, sizeof one);
  zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof linger);
}

RegistryServer::~RegistryServer() {
  zmq_close(socket);
  zmq_ctx_term(context);
}

bool RegistryServer::bind(unsigned short& port) {
  const std::string endpoint =
      "tcp://127.0.0.1:" + (port == 0 ? std::string("*") : std::to_string(port));
  if (zmq_bind(socket, endpoint.c_str()) != 0) {
    std::cerr << "kindlet-control: cannot serve the registry on 127.0.0.1:" << port << ": "
              << zmq_strerror(zmq_errno()) << std::endl;
    return false;
  }
  char bound[256];
  size_t size = sizeof bound;
  zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, bound, &size);
  const std::string text = bound;
  port = static_cast<unsigned short>(std::stoul(text.substr(text.rfind(':') + 1)));
  return true;
}

void RegistryServer::poll(int milliseconds) {
  zmq_pollitem_t item = {socket, 0, ZMQ_POLLIN, 0};
  if (zmq_poll(&item, 1, milliseconds) <= 0) return;
  zmq_msg_t part;
  zmq_msg_init(&part);
  for (;;) {
    std::vector<std::string> frames;
    do {
      if (zmq_msg_recv(&part, socket, frames.empty() ? ZMQ_DONTWAIT : 0) < 0) break;
      frames.emplace_back(static_cast<const char*>(zmq_msg_data(&part)), zmq_msg_size(&part));
    } while (zmq_msg_more(&part));
    if (frames.empty()) break;
    if (frames.size() == 2) {
      handle(frames[0], frames[1]);
    } else {
      std::cerr << "kindlet-control: ignored a message of " << frames.size() - 1
                << " frames from a client" << std::endl;
    }
  }
  zmq_msg_close(&part);
}

void RegistryServer::handle(const std::string& identity, const std::string& message) {
  const unsigned kind = message.empty() ? 0 : static_cast<unsigned char>(message[0]);
  if (kind == protocol::kRegister) {
    Registration registration;
    std::string error;
    if (!protocol::decodeRegister(message.data(), message.size(), registration, error)) {
      std::cerr << "kindlet-control: ignored a registration: " << error << std::endl;
      return;
    }
    // A client that reconnects registers again under a new identity.
    for (auto it = table.begin(); it != table.end();) {
      const Registration& known = it->registration;
      it = known.pid == registration.pid && known.sessionName == registration.sessionName
               ? table.erase(it)
               : it + 1;
    }
    table.push_back({identity, registration});
    sendTo(identity, protocol::encodeRegistered());
    std::cout << "registered " << registration.sessionName << " sequenceID "
              << registration.sequenceID << " pid " << registration.pid << std::endl;
  } else if (kind == protocol::kBye) {
    for (auto it = table.begin(); it != table.end(); ++it) {
      if (it->identity != identity) continue;
      std::cout << "session " << it->registration.sessionName << " pid "
                << it->registration.pid << " ended" << std::endl;
      table.erase(it);
      break;
    }
  } else {
    std::cerr << "kindlet-control: ignored a message of unknown kind " << kind
              << " from a client" << std::endl;
  }
}

bool RegistryServer::sendTo(const std::string& identity, const std::string& message) {
  for (;;) {
    if (zmq_send(socket, identity.data(), identity.size(), ZMQ_SNDMORE | ZMQ_DONTWAIT) >= 0)
      return zmq_send(socket, message.data(), message.size(), 0) >= 0;
    if (zmq_errno() != EAGAIN) return false;  // EHOSTUNREACH: the client is gone
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
}

size_t RegistryServer::send(const std::string& message, const long* target) {
  size_t reached = 0;
  for (auto it = table.begin(); it != table.end();) {
    if (target != nullptr && it->registration.sequenceID != *target) {
      ++it;
    } else if (sendTo(it->identity, message)) {
      ++reached;
      ++it;
    } else {
      std::cerr << "kindlet-control: session " << it->registration.sessionName << " pid "
                << it->registration.pid << " is gone" << std::endl;
      it = table.erase(it);
    }
  }
  return reached;
}

}  // namespace KindletControl
