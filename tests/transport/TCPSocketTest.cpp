// The TCP socket: plain reads and writes with their exact warnings, and the
// background reader that hands records to a callback.
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "KindletTestSupport.h"
#include "UTIL/src/Socket.h"

using Arbolite3::Base::FileDescriptor;
using UTIL::IPC::Byte;
using UTIL::IPC::TCPSocket;

using kindlettest::LocalListener;
using kindlettest::resetConnection;
using kindlettest::sendAll;

namespace {

const char* const readWarning =
    "WARNING: UTIL/src/Socket:143:size_t {anonymous}::blockingRead(boost::asio::ip::tcp::socket&, "
    "UTIL::IPC::Byte*, size_t, boost::system::error_code*)(): Failed with error message Bad file "
    "descriptor - boost::system::error_code - system:9\n";
const char* const writeWarning =
    "WARNING:.UTIL/src/Socket:185:bool {anonymous}::blockingWrite(boost::asio::ip::tcp::socket&, "
    "const Byte*, size_t, boost::system::error_code*)(): Failed with error message Bad file "
    "descriptor - boost::system::error_code - system:9\n";

struct Connection {
  LocalListener listener;
  TCPSocket client{"127.0.0.1", listener.port()};
  FileDescriptor peer = listener.accept();
};

std::string readText(TCPSocket& socket, size_t& size) {
  std::unique_ptr<Byte[]> data = socket.read(size);
  return std::string(reinterpret_cast<const char*>(data.get()), size);
}

}  // namespace

TEST(TCPSocket, ConnectFailuresAreSilent) {
  testing::internal::CaptureStderr();
  TCPSocket refused("127.0.0.1", LocalListener::unusedPort());
  TCPSocket unresolved("no-such-host.invalid", 80);
  TCPSocket ipv6Only("::1", 80);  // IPv4-only resolution can't use it
  EXPECT_FALSE(refused.isConnected());
  EXPECT_FALSE(unresolved.isConnected());
  EXPECT_FALSE(ipv6Only.isConnected());
  refused.close();
  refused.close();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(TCPSocket, ZeroSizedTransfersDontTouchTheSocket) {
  Connection c;
  ASSERT_TRUE(c.client.isConnected());
  sendAll(c.peer.get(), "abc");
  size_t size = 0;
  EXPECT_EQ(readText(c.client, size), "");
  EXPECT_TRUE(c.client.write(nullptr, 0));
  size = 3;
  EXPECT_EQ(readText(c.client, size), "abc");
}

// A large read waits for every piece; a large write delivers everything.
TEST(TCPSocket, LargeTransfersArriveWhole) {
  Connection c;
  std::string sent(300000, '\0');
  for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 7 + i / 251);
  std::string echoed;
  std::thread peer([&] {
    // Pieces with pauses, so the reader sees partial arrivals.
    for (size_t offset = 0; offset < sent.size(); offset += 30000) {
      sendAll(c.peer.get(), sent.data() + offset, std::min<size_t>(30000, sent.size() - offset));
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    char buffer[65536];
    ssize_t n;
    while ((n = ::recv(c.peer.get(), buffer, sizeof buffer, 0)) > 0) echoed.append(buffer, n);
  });
  size_t size = sent.size();
  const std::string received = readText(c.client, size);
  EXPECT_EQ(size, sent.size());
  EXPECT_TRUE(received == sent);
  EXPECT_TRUE(c.client.write(reinterpret_cast<const Byte*>(received.data()), received.size()));
  c.client.close();
  peer.join();
  EXPECT_TRUE(echoed == sent);
}

TEST(TCPSocket, PeerEndingMidReadIsQuiet) {
  Connection closing, reset;
  testing::internal::CaptureStderr();
  sendAll(closing.peer.get(), std::string(40, 'p'));
  sendAll(reset.peer.get(), std::string(40, 'r'));
  closing.peer.reset();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  resetConnection(reset.peer);

  // An orderly end gives what arrived, then nothing; a reset gives nothing.
  size_t size = 100;
  EXPECT_EQ(readText(closing.client, size), std::string(40, 'p'));
  size = 100;
  readText(closing.client, size);
  EXPECT_EQ(size, 0u);
  EXPECT_TRUE(closing.client.isConnected());  // only a local close changes that
  size = 100;
  readText(reset.client, size);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(TCPSocket, WriteToAGonePeerFailsWithoutWarning) {
  Connection c;
  resetConnection(c.peer);
  testing::internal::CaptureStderr();
  const std::vector<Byte> block(65536, 1);
  bool ok = true;
  for (int i = 0; i < 100 && ok; ++i) ok = c.client.write(block.data(), block.size());
  EXPECT_FALSE(ok);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(TCPSocket, TransfersAfterCloseFailWithTheExactWarnings) {
  Connection c;
  c.client.close();
  c.client.close();
  EXPECT_FALSE(c.client.isConnected());

  testing::internal::CaptureStderr();
  const Byte data[1] = {42};
  EXPECT_FALSE(c.client.write(data, 1));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), writeWarning);

  testing::internal::CaptureStderr();
  size_t size = 5;
  std::unique_ptr<Byte[]> buffer = c.client.read(size);
  EXPECT_EQ(size, 0u);
  EXPECT_NE(buffer, nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), readWarning);
}

namespace {

// Keeps every record it gets; `onRecord` decides whether to go on.
class Recorder : public UTIL::IPC::ReadCallback {
 public:
  explicit Recorder(size_t size) : ReadCallback(size, nullptr) {}

  bool readComplete(const Byte* data, size_t size) override {
    std::string record(reinterpret_cast<const char*>(data), size);
    bool more = onRecord ? onRecord(record) : true;
    std::lock_guard<std::mutex> lock(mutex);
    records.push_back(record);
    changed.notify_all();
    return more;
  }
  void readFailed() override {
    std::lock_guard<std::mutex> lock(mutex);
    ++failures;
    changed.notify_all();
  }

  // Waits until `done` holds, or a few seconds pass.
  bool waitFor(const std::function<bool()>& done) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(5), done);
  }
  int failureCount() {
    std::lock_guard<std::mutex> lock(mutex);
    return failures;
  }
  std::vector<std::string> snapshot() {
    std::lock_guard<std::mutex> lock(mutex);
    return records;
  }

  std::function<bool(const std::string&)> onRecord;
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> records;
  int failures = 0;
};

// Records "00000000", "00000001", ... of 8 bytes, written until stopped.
class NumberedSender {
 public:
  explicit NumberedSender(int fd)
      : thread_([this, fd] {
          char record[9];
          for (uint32_t n = 0; !stop_; ++n) {
            std::snprintf(record, sizeof record, "%08u", n);
            if (::send(fd, record, 8, MSG_NOSIGNAL) != 8) break;
          }
        }) {}
  ~NumberedSender() {
    stop_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace

TEST(BackgroundRead, DeliversRecordsOfTheRequestedSizeInOrder) {
  Connection c;
  Recorder recorder(4);
  // The callback sets the size of the next read.
  recorder.onRecord = [&](const std::string& record) {
    recorder.readSize = record == "head" ? 6 : 4;
    return true;
  };
  c.client.readAsync(&recorder);
  sendAll(c.peer.get(), "headpayloadabc");
  ASSERT_TRUE(recorder.waitFor([&] { return recorder.records.size() == 3; }));
  EXPECT_EQ(recorder.snapshot(), (std::vector<std::string>{"head", "payloa", "dabc"}));
  EXPECT_EQ(recorder.failureCount(), 0);
  c.client.close();
}

TEST(BackgroundRead, ShortRecordAtPeerCloseThenOneFailure) {
  Connection c;
  Recorder recorder(10);
  c.client.readAsync(&recorder);
  sendAll(c.peer.get(), "0123456789abc");
  c.peer.reset();
  ASSERT_TRUE(recorder.waitFor([&] { return recorder.failures == 1; }));
  EXPECT_EQ(recorder.snapshot(), (std::vector<std::string>{"0123456789", "abc"}));
  EXPECT_TRUE(c.client.isConnected());
  c.client.close();  // the reader is gone: no handshake to wait for
  EXPECT_FALSE(c.client.isConnected());
  EXPECT_EQ(recorder.failureCount(), 1);
}

TEST(BackgroundRead, CancelBeforeTheReaderStarts) {
  // Closing right after readAsync usually stops a thread that hasn't run
  // yet; the handshake must work whichever came first.
  for (int i = 0; i < 100; ++i) {
    Connection c;
    Recorder recorder(1);
    sendAll(c.peer.get(), "z");
    c.client.readAsync(&recorder);
    c.client.close();
    const size_t delivered = recorder.snapshot().size();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(recorder.snapshot().size(), delivered);
    EXPECT_LE(delivered, 1u);
    EXPECT_EQ(recorder.failureCount(), 0);
  }
}

TEST(BackgroundRead, CloseFromInsideTheCallbackDoesNotBlock) {
  Connection c;
  Recorder recorder(3);
  recorder.onRecord = [&](const std::string&) {
    c.client.close();
    return true;  // the reader must stop all the same
  };
  c.client.readAsync(&recorder);
  sendAll(c.peer.get(), "onetwothree");
  ASSERT_TRUE(recorder.waitFor([&] { return !recorder.records.empty(); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(recorder.snapshot(), std::vector<std::string>{"one"});
  EXPECT_FALSE(c.client.isConnected());
  EXPECT_EQ(recorder.failureCount(), 0);
}

TEST(BackgroundRead, CancelIsHonouredWithDataAlwaysReady) {
  Connection c;
  Recorder recorder(8);
  {
    NumberedSender sender(c.peer.get());
    c.client.readAsync(&recorder);
    ASSERT_TRUE(recorder.waitFor([&] { return recorder.records.size() > 1000; }));
    c.client.close();
    const size_t delivered = recorder.snapshot().size();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(recorder.snapshot().size(), delivered);
  }
}

TEST(BackgroundRead, SecondReadAsyncTakesOverAtARecordBoundary) {
  Connection c;
  Recorder first(8), second(8);
  size_t firstCount;
  {
    NumberedSender sender(c.peer.get());
    c.client.readAsync(&first);
    ASSERT_TRUE(first.waitFor([&] { return first.records.size() > 500; }));
    c.client.readAsync(&second);
    firstCount = first.snapshot().size();
    ASSERT_TRUE(second.waitFor([&] { return second.records.size() > 500; }));
    c.client.close();
  }

  // The first reader got nothing after the switch, and together they saw
  // every record exactly once, in order.
  const std::vector<std::string> a = first.snapshot(), b = second.snapshot();
  EXPECT_EQ(a.size(), firstCount);
  std::vector<std::string> all(a);
  all.insert(all.end(), b.begin(), b.end());
  for (size_t i = 0; i < all.size(); ++i) {
    char expected[24];
    std::snprintf(expected, sizeof expected, "%08zu", i);
    ASSERT_EQ(all[i], expected) << "record " << i;
  }
}

// A reader whose callback refuses stops after that record, without a
// failure, and leaves what it received ahead to whoever reads next: a reader
// started from outside or from inside its callback, or a plain read.
TEST(BackgroundRead, BytesReceivedAheadGoToTheNextReader) {
  enum Next { ReaderFromOutside, ReaderFromCallback, PlainRead };
  for (Next next : {ReaderFromOutside, ReaderFromCallback, PlainRead}) {
    Connection c;
    Recorder first(4), second(4);
    std::atomic<bool> handedOver{false};
    first.onRecord = [&](const std::string&) {
      if (next == ReaderFromCallback) c.client.readAsync(&second);
      handedOver = true;
      return false;
    };
    c.client.readAsync(&first);  // before any data: its callback may call readAsync too
    sendAll(c.peer.get(), "0000111122223333");
    ::shutdown(c.peer.get(), SHUT_WR);  // a lost byte shows as a short read, not a hang
    while (!handedOver) std::this_thread::yield();
    if (next == ReaderFromOutside) c.client.readAsync(&second);
    if (next == PlainRead) {
      // A plain read can't stop the reader: give it time to end by itself.
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      size_t size = 12;
      std::unique_ptr<Byte[]> bytes = c.client.read(size);
      second.readComplete(bytes.get(), size);
    }
    std::string text;
    second.waitFor([&] {
      text.clear();
      for (const std::string& record : second.records) text += record;
      return text.size() >= 12;
    });
    c.client.close();
    EXPECT_EQ(first.snapshot(), std::vector<std::string>{"0000"}) << next;
    EXPECT_EQ(first.failureCount(), 0) << next;
    EXPECT_EQ(text, "111122223333") << next;
  }
}
