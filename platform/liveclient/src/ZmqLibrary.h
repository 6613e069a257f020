// The ZeroMQ runtime, loaded on first use. Most renders are batch renders and
// never talk to a controller; linking the library would make every process
// start map it and its dependencies. zmq.h is included for its types and
// constants only: every call goes through this table.
#pragma once

#include <zmq.h>

namespace Morrigo {
namespace Selvane {
namespace LiveRendering {

// Members carry the C names so that calls read like the C API.
#define KINDLET_ZMQ_FUNCTIONS(X) \
  X(zmq_ctx_new) X(zmq_ctx_term) X(zmq_socket) X(zmq_close) X(zmq_setsockopt) \
  X(zmq_bind) X(zmq_connect) X(zmq_disconnect) X(zmq_send) X(zmq_poll) X(zmq_socket_monitor) X(zmq_errno) \
  X(zmq_strerror) X(zmq_msg_init) X(zmq_msg_close) X(zmq_msg_recv) X(zmq_msg_size) \
  X(zmq_msg_data) X(zmq_msg_more) X(zmq_getsockopt) X(zmq_msg_init_size) X(zmq_msg_send)

struct ZmqLibrary {
#define KINDLET_ZMQ_DECLARE(name) decltype(&::name) name;
  KINDLET_ZMQ_FUNCTIONS(KINDLET_ZMQ_DECLARE)
#undef KINDLET_ZMQ_DECLARE

  // Loads the library and resolves the table the first time (thread-safe);
  // throws Rendering::RendererPluginError naming the library and the
  // loader's reason when either fails, on this call and every later one.
  static const ZmqLibrary& get();
};

}  // namespace LiveRendering
}  // namespace Selvane
}  // namespace Morrigo
