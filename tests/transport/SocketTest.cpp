#include <sys/socket.h>

#include <chrono>
#include <cstring>
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
