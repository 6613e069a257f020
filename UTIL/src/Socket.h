// Client side byte-stream transport: an abstract endpoint, the callback that
// receives background reads, and a TCP implementation. Framing is the
// caller's business. Errors are reported through results and lines on
// stderr, never by exceptions of this layer.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include <boost/shared_ptr.hpp>

namespace UTIL {
namespace IPC {

typedef unsigned char Byte;

class ReadCallback;

class IPCInterface {
 public:
  virtual ~IPCInterface();
  // Stops a running background read (waiting for the record in progress),
  // then closes the connection.
  virtual void close() = 0;
  virtual bool isConnected() const = 0;
  // Writes all of `data`; false on failure.
  virtual bool write(const Byte* data, size_t size) = 0;
  // Blocking read of up to `size` bytes; `size` comes back as the count, 0 on
  // failure. The array is always the caller's.
  virtual std::unique_ptr<Byte[]> read(size_t& size) = 0;
  // Replaces any running background read by one that delivers records to
  // `callback` on a thread of its own until it is stopped, the callback
  // refuses or the stream ends. `callback` must outlive that thread.
  virtual void readAsync(ReadCallback* callback) = 0;
};

class ReadCallback {
 public:
  ReadCallback(size_t readSize, IPCInterface* interface);
  virtual ~ReadCallback();

  // A record of `size` bytes arrived; `size` is below `readSize` only when
  // the peer closed in the middle of it. `data` is valid during the call.
  // True asks for the next record.
  virtual bool readComplete(const Byte* data, size_t size) = 0;
  // A read delivered nothing (end of stream or error); the reader ends.
  virtual void readFailed() = 0;

  // Size of the next read; taken afresh before each one, so readComplete may
  // change it.
  size_t readSize;
  // The endpoint this callback belongs to; not owned, not used by the
  // transport.
  IPCInterface* interface;
};

class TCPSocketImpl;

class TCPSocket : public IPCInterface {
 public:
  // Connects at once (IPv4 only); on failure isConnected() is false and
  // nothing is thrown or printed.
  TCPSocket(const std::string& host, unsigned short port);
  // Adopts an open IPv4 stream socket; on failure prints the reason.
  explicit TCPSocket(int nativeSocket);
  ~TCPSocket() override;

  TCPSocket(const TCPSocket&) = delete;
  TCPSocket& operator=(const TCPSocket&) = delete;

  // close, write, read and readAsync must not run concurrently with each
  // other's close/readAsync on the same object. write, read and readAsync
  // require isConnected() to have been true.
  void close() override;
  bool isConnected() const override;
  bool write(const Byte* data, size_t size) override;
  std::unique_ptr<Byte[]> read(size_t& size) override;
  void readAsync(ReadCallback* callback) override;

 private:
  boost::shared_ptr<TCPSocketImpl> impl_;
};

}  // namespace IPC
}  // namespace UTIL
