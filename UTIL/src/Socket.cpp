#include "UTIL/src/Socket.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <iostream>

#include <boost/asio/buffer.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/write.hpp>
#include <boost/lexical_cast.hpp>
#include <boost/system/system_error.hpp>

#include "UTIL/src/TCPSocketImpl.h"

namespace UTIL {
namespace IPC {

namespace {

// Largest transfer of a single system call.
const size_t maxChunk = 65536;

void warn(const char* head, const char* location, const boost::system::error_code& error) {
  std::cerr << head << location << " Failed with error message " << error.message() << " - "
            << "boost::system::error_code - " << error << std::endl;
}

// One receive of at most `size` bytes (not zero) that brings something. 0
// with `error` clear means the peer has closed; 0 with it set is a failure,
// worth a warning unless the connection was reset (an expected end). With
// MSG_WAITALL the receive asks for all of `size` at once.
size_t receiveSome(boost::asio::ip::tcp::socket& socket, UTIL::IPC::Byte* buffer, size_t size,
                   boost::system::error_code& error, int flags = 0) {
  if (!(flags & MSG_WAITALL)) size = std::min(size, maxChunk);
  for (;;) {
    const size_t received = socket.receive(boost::asio::buffer(buffer, size), flags, error);
    if (error == boost::system::errc::interrupted) continue;
    if (error == boost::asio::error::eof) {
      error.clear();
      return 0;
    }
    if (error == boost::system::errc::resource_unavailable_try_again) continue;
    if (error && error != boost::system::errc::connection_reset)
      warn("WARNING: ",
           "UTIL/src/Socket:143:size_t {anonymous}::blockingRead(boost::asio::ip::tcp::socket&, "
           "UTIL::IPC::Byte*, size_t, boost::system::error_code*)():",
           error);
    return error ? 0 : received;
  }
}

// Reads exactly `size` bytes unless the peer closes first (then the count so
// far, error clear). Any failure gives 0, even after partial data: a caller
// can't resume a record it only got half of.
size_t blockingRead(boost::asio::ip::tcp::socket& socket, UTIL::IPC::Byte* buffer, size_t size,
                    boost::system::error_code* errorOut, int flags = 0) {
  if (errorOut) errorOut->clear();
  size_t total = 0;
  boost::system::error_code error;
  while (total < size) {
    const size_t received = receiveSome(socket, buffer + total, size - total, error, flags);
    if (error) {
      if (errorOut) *errorOut = error;
      return 0;
    }
    if (received == 0) return total;
    total += received;
  }
  return size;
}

// Writes all of `data`. Reset and broken pipe mean the peer went away, which
// the caller learns from the result; anything else is also worth a warning.
bool blockingWrite(boost::asio::ip::tcp::socket& socket, const Byte* data, size_t size,
                   boost::system::error_code* errorOut) {
  if (errorOut) errorOut->clear();
  if (size == 0) return true;
  size_t total = 0;
  boost::system::error_code error;
  while (total < size) {
    total += boost::asio::write(socket, boost::asio::buffer(data + total, size - total), error);
    if (error == boost::system::errc::interrupted) continue;
    if (!error || error == boost::system::errc::resource_unavailable_try_again) continue;
    if (error != boost::system::errc::connection_reset &&
        error != boost::system::errc::broken_pipe)
      warn("WARNING:.",
           "UTIL/src/Socket:185:bool {anonymous}::blockingWrite(boost::asio::ip::tcp::socket&, "
           "const Byte*, size_t, boost::system::error_code*)():",
           error);
    if (errorOut) *errorOut = error;
    return false;
  }
  return true;
}

}  // namespace

IPCInterface::~IPCInterface() = default;

ReadCallback::ReadCallback(size_t readSize_, IPCInterface* interface_)
    : readSize(readSize_), interface(interface_) {}

ReadCallback::~ReadCallback() = default;

TCPSocketImpl::TCPSocketImpl() : socket(context) {}

boost::shared_ptr<TCPSocketImpl> TCPSocketImpl::connectToHost(const std::string& host,
                                                              unsigned short port) {
  boost::shared_ptr<TCPSocketImpl> impl(new TCPSocketImpl());
  const std::string service = boost::lexical_cast<std::string>(port);
  try {
    boost::asio::ip::tcp::resolver resolver(impl->context);
    // IPv4 only, and no flags: names are resolved the way the controlling
    // application resolved them.
    const auto results = resolver.resolve(boost::asio::ip::tcp::v4(), host, service,
                                          boost::asio::ip::resolver_base::flags(0));
    boost::system::error_code error = boost::asio::error::host_not_found;
    for (const auto& entry : results) {
      impl->socket.connect(entry.endpoint(), error);
      if (!error) return impl;
      impl->socket.close();
    }
    return boost::shared_ptr<TCPSocketImpl>();
  } catch (const boost::system::system_error&) {
    return boost::shared_ptr<TCPSocketImpl>();
  }
}

boost::shared_ptr<TCPSocketImpl> TCPSocketImpl::adoptSocket(int nativeSocket) {
  boost::shared_ptr<TCPSocketImpl> impl(new TCPSocketImpl());
  boost::system::error_code error;
  impl->socket.assign(boost::asio::ip::tcp::v4(), nativeSocket, error);
  if (error) {
    std::cerr << error.message() << "\n";
    return boost::shared_ptr<TCPSocketImpl>();
  }
  return impl;
}

void TCPSocketImpl::closeSocket() {
  if (boost::shared_ptr<BackgroundReadRequest> request = readRequest.lock()) {
    request->cancel();
    readRequest.reset();
  } else {
    runningReaders.load(std::memory_order_acquire);
  }
  if (isOpen()) {
    // Unread bytes belong to the connection, which ends here.
    unread.clear();
    boost::system::error_code ignored;
    socket.close(ignored);
  }
}

bool TCPSocketImpl::isOpen() const {
  return const_cast<boost::asio::ip::tcp::socket&>(socket).native_handle() != -1;
}

bool TCPSocketImpl::write(const Byte* data, size_t size) {
  boost::system::error_code error;
  return blockingWrite(socket, data, size, &error);
}

size_t TCPSocketImpl::read(Byte* buffer, size_t size) {
  boost::system::error_code error;
  // A closed socket must fail as one, whatever was received before.
  size_t taken = 0;
  ReadAheadBuffer* received = isOpen() ? unreadBytes() : nullptr;
  if (received) taken = received->take(buffer, size);
  if (size > 0 && taken == size) return size;
  const size_t rest = blockingRead(socket, buffer + taken, size - taken, &error);
  return error ? 0 : taken + rest;
}

void TCPSocketImpl::readAsync(ReadCallback* callback) {
  if (boost::shared_ptr<BackgroundReadRequest> running = readRequest.lock()) running->cancel();
  ReadAheadBuffer initial;
  if (ReadAheadBuffer* received = unreadBytes()) {
    if (received == &unread) {
      initial = std::move(unread);
    } else {
      // Inside the reader's callback the record being delivered still lives
      // in the reader's storage: copy what follows it, leave the storage be.
      initial.append(received->data(), received->size());
      received->clear();
    }
  }
  readRequest = BackgroundReadRequest::start(shared_from_this(), callback, std::move(initial));
}

ReadAheadBuffer* TCPSocketImpl::unreadBytes() {
  boost::shared_ptr<BackgroundReadRequest> running = readRequest.lock();
  if (!running) {
    // A reader stores its bytes before it lets go of its request.
    runningReaders.load(std::memory_order_acquire);
    return &unread;
  }
  if (running->isReaderThread()) return &running->ahead;
  return running->hasFinished() ? &unread : nullptr;
}

size_t TCPSocketImpl::readRecord(ReadAheadBuffer& ahead, size_t size,
                                 std::unique_ptr<Byte[]>& large, const Byte*& record) {
  if (size == 0) return 0;
  boost::system::error_code error;
  if (ahead.size() < size && size > ReadAheadBuffer::largestRecord) {
    // Big records go straight into their own buffer, without a staging copy
    // beyond the bytes already received, and with one receive that waits for
    // all of it rather than a wake-up per 64 KiB.
    large.reset(new Byte[size]);
    const size_t buffered = ahead.take(large.get(), size);
    const size_t rest =
        blockingRead(socket, large.get() + buffered, size - buffered, &error, MSG_WAITALL);
    record = large.get();
    ahead.setAfterLargeRecord(true);
    return error ? 0 : buffered + rest;
  }
  while (ahead.size() < size) {
    size_t length = 0;
    Byte* space = ahead.space(size, length);
    const size_t received = receiveSome(socket, space, length, error);
    if (error) {
      ahead.clear();
      return 0;
    }
    if (received == 0) break;  // the peer closed: a short record, or none
    ahead.commit(received);
  }
  ahead.setAfterLargeRecord(false);
  record = ahead.data();
  const size_t count = std::min(size, ahead.size());
  ahead.consume(count);
  return count;
}

TCPSocket::TCPSocket(const std::string& host, unsigned short port)
    : impl_(TCPSocketImpl::connectToHost(host, port)) {}

TCPSocket::TCPSocket(int nativeSocket) : impl_(TCPSocketImpl::adoptSocket(nativeSocket)) {}

TCPSocket::~TCPSocket() {
  // A failure to stop the reader here can't be handled: the destructor is
  // noexcept, so it ends the process.
  close();
  impl_.reset();
}

void TCPSocket::close() {
  if (impl_) impl_->closeSocket();
}

bool TCPSocket::isConnected() const { return impl_ && impl_->isOpen(); }

bool TCPSocket::write(const Byte* data, size_t size) { return impl_->write(data, size); }

std::unique_ptr<Byte[]> TCPSocket::read(size_t& size) {
  std::unique_ptr<Byte[]> buffer(new Byte[size]());
  size = impl_->read(buffer.get(), size);
  return buffer;
}

void TCPSocket::readAsync(ReadCallback* callback) { impl_->readAsync(callback); }

}  // namespace IPC
}  // namespace UTIL
