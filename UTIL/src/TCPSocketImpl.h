// The connection behind a TCPSocket and its background reader. Kept behind a
// shared pointer so that a reader thread can keep the connection alive.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

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
    static boost::shared_ptr<BackgroundReadRequest> start(
        boost::shared_ptr<TCPSocketImpl> socket, ReadCallback* callback);
    // Ends the reader and waits for it, unless called from inside the reader
    // (then the reader ends when the callback returns) or while another
    // cancel is under way.
    void cancel();

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

  boost::asio::io_context context;  // never run: all I/O is synchronous
  boost::asio::ip::tcp::socket socket;
  boost::weak_ptr<BackgroundReadRequest> readRequest;
  // Readers started and not yet finished. A reader leaves it as its last
  // act, so reading it orders a close after everything a reader that ended
  // by itself did with the socket and its callback.
  std::atomic<int> runningReaders{0};
};

}  // namespace IPC
}  // namespace UTIL
