// The connection behind a TCPSocket and its background reader. Kept behind a
// shared pointer so that a reader thread can keep the connection alive.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include "UTIL/src/ReadAheadBuffer.h"
#include "UTIL/src/Socket.h"
#include "base/WakeEvent.h"

namespace UTIL {
namespace IPC {

class TCPSocketImpl : public boost::enable_shared_from_this<TCPSocketImpl> {
 public:
  // One reader thread that owns the request; whoever stops it signals and
  // waits for the answer, so the callback is never called after cancel().
  class BackgroundReadRequest {
   public:
    BackgroundReadRequest(boost::shared_ptr<TCPSocketImpl> socket, ReadCallback* callback);
    ~BackgroundReadRequest();

    // Starts the (detached) reader thread, which holds the returned request.
    // `unread` are bytes of the stream that an earlier reader received and
    // didn't use; they come before anything still in the socket.
    static boost::shared_ptr<BackgroundReadRequest> start(
        boost::shared_ptr<TCPSocketImpl> socket, ReadCallback* callback, ReadAheadBuffer unread);
    // Ends the reader and waits for it, unless called from inside the reader
    // (then the reader ends when the callback returns) or while another
    // cancel is under way.
    void cancel();
    // True on the reader's own thread, i.e. inside its callback.
    bool isReaderThread() const;
    // True once the reader has stored what it didn't deliver in `unread`.
    bool hasFinished() const;

   private:
    void run(boost::shared_ptr<BackgroundReadRequest> self);

    boost::shared_ptr<TCPSocketImpl> socket;
    ReadCallback* callback;
    // Written only by atomic exchange; the reader's plain reads are atomic
    // loads so that they are ordered with the exchange.
    int32_t cancelled;
    Arbolite3::Base::WakeEvent stopRequested;
    Arbolite3::Base::WakeEvent stopped;
    // Kernel id of the reader, -1 until it has started.
    int32_t threadId;
    // What the reader received and hasn't delivered yet. Only the reader
    // touches it, or its own callback through TCPSocketImpl.
    ReadAheadBuffer ahead;
    // Set, with a release store, once `ahead` has gone to `unread`.
    int32_t finished = 0;

    friend class TCPSocketImpl;
  };

  // Null when the host doesn't resolve or no endpoint accepts.
  static boost::shared_ptr<TCPSocketImpl> connectToHost(const std::string& host,
                                                        unsigned short port);
  // Null (with the reason on stderr) when the descriptor can't be adopted.
  static boost::shared_ptr<TCPSocketImpl> adoptSocket(int nativeSocket);

  void closeSocket();
  bool isOpen() const;
  bool write(const Byte* data, size_t size);
  size_t read(Byte* buffer, size_t size);
  void readAsync(ReadCallback* callback);

 private:
  TCPSocketImpl();

  // The next record of `size` bytes, from `ahead` and, for what it lacks,
  // from the socket: one receive usually brings several small records. The
  // count is that of a blocking read of `size` bytes: `size`, fewer when the
  // peer closed in the middle, 0 at the end of the stream or on a failure.
  // `record` points into `ahead`, or into `large` for a record too big for
  // it, and stays valid until `ahead` is next asked for space.
  size_t readRecord(ReadAheadBuffer& ahead, size_t size, std::unique_ptr<Byte[]>& large,
                    const Byte*& record);
  // Where the caller finds bytes received ahead of it: `unread` when the
  // latest reader has finished, its own buffer from inside its callback,
  // null while it runs on another thread (it keeps them).
  ReadAheadBuffer* unreadBytes();

  boost::asio::io_context context;  // never run: all I/O is synchronous
  boost::asio::ip::tcp::socket socket;
  boost::weak_ptr<BackgroundReadRequest> readRequest;
  // Readers started and not yet finished. A reader leaves it after all it
  // did with the socket, its callback and `unread`, so reading it orders a
  // close after that.
  std::atomic<int> runningReaders{0};
  // Bytes received ahead by a reader that has ended and not used by it, for
  // whoever reads next. Written by a reader as it ends, before it leaves
  // runningReaders; empty while a reader runs.
  ReadAheadBuffer unread;
};

}  // namespace IPC
}  // namespace UTIL
