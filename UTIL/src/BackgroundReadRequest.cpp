#include <memory>

#include <boost/bind/bind.hpp>
#include <boost/system/error_code.hpp>
#include <boost/thread/thread.hpp>

#include "UTIL/src/TCPSocketImpl.h"
#include "base/ProcessIdentity.h"
#include "base/WaitForReadable.h"

namespace UTIL {
namespace IPC {

TCPSocketImpl::BackgroundReadRequest::BackgroundReadRequest(
    boost::shared_ptr<TCPSocketImpl> socket_, ReadCallback* callback_)
    : socket(std::move(socket_)), callback(callback_), cancelled(0), threadId(-1) {}

// The events close themselves, `stopped` first (reverse order of members).
TCPSocketImpl::BackgroundReadRequest::~BackgroundReadRequest() = default;

boost::shared_ptr<TCPSocketImpl::BackgroundReadRequest> TCPSocketImpl::BackgroundReadRequest::start(
    boost::shared_ptr<TCPSocketImpl> socket, ReadCallback* callback, ReadAheadBuffer unread) {
  boost::shared_ptr<BackgroundReadRequest> request(
      new BackgroundReadRequest(socket, callback));
  request->ahead = std::move(unread);
  socket->runningReaders.fetch_add(1, std::memory_order_relaxed);
  boost::thread reader(boost::bind(&BackgroundReadRequest::run, request.get(), request));
  reader.detach();
  return request;
}

void TCPSocketImpl::BackgroundReadRequest::run(boost::shared_ptr<BackgroundReadRequest> self) {
  (void)self;  // keeps the request alive while the thread runs
  __atomic_store_n(&threadId, Arbolite3::Base::getThreadId(), __ATOMIC_RELEASE);
  std::unique_ptr<Byte[]> large;
  for (;;) {
    // Bytes already received count as a readable socket: no need to ask the
    // kernel, and a stop is still seen through `cancelled` below.
    if (ahead.empty()) {
      const int descriptors[2] = {socket->socket.native_handle(), stopRequested.descriptor()};
      boost::system::error_code ignored;
      const int ready = Arbolite3::Base::waitForReadable(descriptors, 2, -1, &ignored);
      if (ready == -1) continue;
      if (ready == descriptors[1]) {
        stopRequested.wait();
        break;
      }
      if (ready != descriptors[0]) continue;
    }

    const size_t size = callback->readSize;
    if (__atomic_load_n(&cancelled, __ATOMIC_ACQUIRE)) break;
    const Byte* record = nullptr;
    const size_t count = socket->readRecord(ahead, size, large, record);
    if (count == 0) {
      callback->readFailed();
      break;
    }
    const bool more = callback->readComplete(record, count);
    large.reset();
    if (!more) break;
    if (__atomic_load_n(&cancelled, __ATOMIC_ACQUIRE)) break;
  }
  // What was received and not delivered belongs to whoever reads next,
  // unless the socket was closed from inside the callback.
  if (!ahead.empty() && socket->isOpen()) socket->unread = std::move(ahead);
  __atomic_store_n(&finished, 1, __ATOMIC_RELEASE);
  socket->runningReaders.fetch_sub(1, std::memory_order_release);
  stopped.signal();
}

void TCPSocketImpl::BackgroundReadRequest::cancel() {
  if (__atomic_exchange_n(&cancelled, 1, __ATOMIC_ACQ_REL) == 1) return;
  // From inside a callback: the reader stops by itself once the callback
  // returns; waiting for it here would never end.
  if (isReaderThread()) return;
  stopRequested.signal();
  stopped.wait();
}

bool TCPSocketImpl::BackgroundReadRequest::hasFinished() const {
  return __atomic_load_n(&finished, __ATOMIC_ACQUIRE) == 1;
}

bool TCPSocketImpl::BackgroundReadRequest::isReaderThread() const {
  return __atomic_load_n(&threadId, __ATOMIC_ACQUIRE) == Arbolite3::Base::getThreadId();
}

}  // namespace IPC
}  // namespace UTIL
