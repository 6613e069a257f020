// Images from a renderer plug-in (the image service's C API, called here as a
// plug-in would) through a live-render client to kindlet-control's registry,
// on both paths: in the client's memory file and in the message.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>
#include <zmq.h>

#include <chrono>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>

#include "LiveRendering/LiveRenderClient.h"
#include "LiveRendering/LiveRenderProtocol.h"
#include "RegistryServer.h"
#include "XoImageOut/ImageRegion.h"
#include "XoImageOut/XoImageOutC.h"

namespace live = Morrigo::Selvane::LiveRendering;
using KindletControl::ImageOpen;
using KindletControl::ImagePass;
using KindletControl::ImageSource;

namespace {

struct Received {
  std::string name;
  uint64_t pass, samples, sceneState;
  std::vector<unsigned char> pixels;
};

class Recorder : public KindletControl::ImageConsumer {
 public:
  void pass(const ImageSource&, const ImageOpen& image, const ImagePass& pass,
            const unsigned char* pixels) override {
    std::this_thread::sleep_for(delay);
    std::lock_guard<std::mutex> lock(mutex);
    passes.push_back({image.name, pass.pass, pass.samples, pass.sceneState,
                      std::vector<unsigned char>(pixels, pixels + image.pixelBytes())});
  }
  std::vector<Received> all() {
    std::lock_guard<std::mutex> lock(mutex);
    return passes;
  }
  std::chrono::milliseconds delay{0};

 private:
  std::mutex mutex;
  std::vector<Received> passes;
};

// Half values that a float converts to exactly, and their bits.
std::vector<float> exactHalves(size_t count, std::vector<uint16_t>& bits, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<float> values(count);
  bits.resize(count);
  for (size_t i = 0; i < count; ++i) {
    const int mantissa = int(random() % 2048) - 1024;  // 11 bits fit a half exactly
    const int exponent = int(random() % 10) - 4;  // normal halves, below the largest
    values[i] = std::ldexp(float(mantissa), exponent);
    uint32_t f;
    std::memcpy(&f, &values[i], 4);
    // Reference conversion for these normal or zero values.
    const uint32_t sign = (f >> 16) & 0x8000u, magnitude = f & 0x7fffffffu;
    bits[i] = uint16_t(magnitude == 0 ? sign : sign | ((magnitude - 0x38000000u) >> 13));
  }
  return values;
}

class ImageChannel : public testing::TestWithParam<bool> {
 protected:
  // GetParam(): the controller runs "on this machine" (a region, pixels in
  // the client's memory file) or not (pixels in the messages).
  ImageChannel() : registry(KindletControl::RegistryServer::kDefaultBacklogLimit, GetParam()) {
    registry.receiveImages(recorder);
    EXPECT_TRUE(registry.bind(port));
    client.initializeSession("LiveRenderSession_1", 7, "scene",
                             Arbolite3::internal::XoScenegraphIterator(), info, "127.0.0.1", port,
                             [](const Arbolite3::internal::XoAttribute::GroupAttribute&) {},
                             [&](const std::string& text) {
                               std::lock_guard<std::mutex> lock(mutex);
                               commands.push_back(text);
                             });
    while (registry.sessions().empty()) registry.poll(10);
  }
  template <typename Done>
  bool serveUntil(Done done, int seconds = 20) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!done() && std::chrono::steady_clock::now() < end) registry.poll(2);
    return done();
  }

  Recorder recorder;
  KindletControl::RegistryServer registry;
  unsigned short port = 0;
  Arbolite3::internal::XoRendererInfo::XoRendererInfoPlugin info;
  live::LiveRenderClient client;
  std::mutex mutex;
  std::vector<std::string> commands;
};

TEST_P(ImageChannel, PixelsArriveBitExactWholeAndInTilesThatKeepTheRestOfTheImage) {
  const char* channels[] = {"R", "G", "B", "A"};
  const int width = 40, height = 24;
  XoImageOutImage* image = XoImageOutOpen("beauty", width, height, 4, channels, kXoImageHalf);
  ASSERT_NE(image, nullptr);
  ASSERT_TRUE(serveUntil([&] { return XoImageOutWanted(image) == 1; }));

  std::vector<uint16_t> first, tile;
  const std::vector<float> whole = exactHalves(size_t(width) * height * 4, first, 1);
  ASSERT_EQ(XoImageOutWrite(image, 0, 0, width, height, whole.data(), width * 16, kXoImageFloat,
                            4, 3),
            0);
  ASSERT_EQ(XoImageOutPassDone(image), 0);
  ASSERT_TRUE(serveUntil([&] { return recorder.all().size() == 1; }));
  // A pass that writes one tile of 8x6, as halves, at (16, 12): the rest
  // of the image is the last pass's.
  const std::vector<float> tileFloats = exactHalves(8 * 6 * 4, tile, 2);
  std::vector<uint16_t> expected = first;
  for (int y = 0; y < 6; ++y)
    for (int x = 0; x < 8 * 4; ++x) expected[size_t(12 + y) * width * 4 + 16 * 4 + x] = tile[y * 32 + x];
  ASSERT_EQ(XoImageOutWrite(image, 16, 12, 8, 6, tile.data(), 8 * 8, kXoImageHalf, 5, 4), 0);
  ASSERT_EQ(XoImageOutPassDone(image), 0);
  ASSERT_TRUE(serveUntil([&] { return recorder.all().size() == 2; }));

  const std::vector<Received> got = recorder.all();
  ASSERT_EQ(got[0].pixels.size(), first.size() * 2);
  EXPECT_EQ(std::memcmp(got[0].pixels.data(), first.data(), got[0].pixels.size()), 0);
  EXPECT_EQ(std::memcmp(got[1].pixels.data(), expected.data(), got[1].pixels.size()), 0);
  EXPECT_EQ(got[0].name, "beauty");
  EXPECT_EQ(got[0].pass, 1u);
  EXPECT_EQ(got[0].samples, 4u);
  EXPECT_EQ(got[0].sceneState, 3u);
  // The tile's pass holds the older pass's pixels too: the least of both.
  EXPECT_EQ(got[1].samples, 4u);
  EXPECT_EQ(got[1].sceneState, 3u);
  XoImageOutClose(image);
}

TEST_P(ImageChannel, ASlowControllerGetsTheNewestPassInOrderAndNeverHoldsUpTheRenderer) {
  recorder.delay = std::chrono::milliseconds(30);
  const char* channels[] = {"Y"};
  XoImageOutImage* image = XoImageOutOpen("slow", 256, 256, 1, channels, kXoImageFloat);
  ASSERT_TRUE(serveUntil([&] { return XoImageOutWanted(image) == 1; }));
  // The renderer publishes 300 passes while the registry serves on its own
  // thread; scene states rise every 50 passes.
  std::atomic<bool> done{false};
  std::thread serving([&] { serveUntil([&] { return done.load(); }, 60); });
  std::vector<float> pixels(256 * 256);
  for (int pass = 1; pass <= 300; ++pass) {
    std::fill(pixels.begin(), pixels.end(), float(pass));
    XoImageOutWrite(image, 0, 0, 256, 256, pixels.data(), 256 * 4, kXoImageFloat, uint64_t(pass),
                    uint64_t(pass / 50));
    XoImageOutPassDone(image);
  }
  const auto newest = [&] {
    const std::vector<Received> got = recorder.all();
    return !got.empty() && got.back().pass == 300;
  };
  for (int i = 0; i < 2000 && !newest(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  done = true;
  serving.join();
  const std::vector<Received> got = recorder.all();
  ASSERT_TRUE(newest());
  EXPECT_LT(got.size(), 100u);  // a backlog would be all 300
  for (size_t i = 0; i < got.size(); ++i) {
    float value;
    std::memcpy(&value, got[i].pixels.data(), 4);
    EXPECT_EQ(value, float(got[i].pass));
    EXPECT_EQ(got[i].samples, got[i].pass);
    if (i == 0) continue;
    EXPECT_GT(got[i].pass, got[i - 1].pass);
    EXPECT_GE(got[i].sceneState, got[i - 1].sceneState);
  }
  XoImageOutClose(image);
}

INSTANTIATE_TEST_SUITE_P(Paths, ImageChannel, testing::Values(true, false),
                         [](const testing::TestParamInfo<bool>& info) {
                           return info.param ? "InItsMemoryFile" : "InTheMessage";
                         });

// A controller that asks for images and never answers one gets one pass of
// each, while its commands still reach the client and the renderer never waits.
TEST(ImageChannelWithoutAnswers, NeitherTheRendererNorTheCommandsWait) {
  void* context = zmq_ctx_new();
  void* router = zmq_socket(context, ZMQ_ROUTER);
  const int linger = 0;
  zmq_setsockopt(router, ZMQ_LINGER, &linger, sizeof linger);
  zmq_bind(router, "tcp://127.0.0.1:*");
  char endpoint[64];
  size_t size = sizeof endpoint;
  zmq_getsockopt(router, ZMQ_LAST_ENDPOINT, endpoint, &size);
  const unsigned short port = static_cast<unsigned short>(std::stoi(std::strrchr(endpoint, ':') + 1));
  std::atomic<int> commands{0};
  Arbolite3::internal::XoRendererInfo::XoRendererInfoPlugin info;
  live::LiveRenderClient client;
  client.initializeSession("LiveRenderSession_1", 1, "scene",
                           Arbolite3::internal::XoScenegraphIterator(), info, "127.0.0.1", port,
                           [](const Arbolite3::internal::XoAttribute::GroupAttribute&) {},
                           [&](const std::string&) { ++commands; });
  auto receive = [&](std::string& identity) {
    char buffer[1 << 16];
    const int n = zmq_recv(router, buffer, sizeof buffer, 0);
    identity.assign(buffer, size_t(std::max(n, 0)));
    const int m = zmq_recv(router, buffer, sizeof buffer, 0);
    return std::string(buffer, size_t(std::max(m, 0)));
  };
  std::string session;
  ASSERT_EQ(receive(session)[0], char(live::kRegister));
  for (const std::string& message : {live::encodeRegistered(), live::encodeImagesWanted({"*"})}) {
    zmq_send(router, session.data(), session.size(), ZMQ_SNDMORE);
    zmq_send(router, message.data(), message.size(), 0);
  }
  const char* channels[] = {"Y"};
  XoImageOutImage* image = XoImageOutOpen("unanswered", 64, 64, 1, channels, kXoImageFloat);
  std::string imageConnection;
  ASSERT_EQ(receive(imageConnection)[0], char(live::kImageHello));
  while (!XoImageOutWanted(image)) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  std::vector<float> pixels(64 * 64, 1.0f);
  int passes = 0;
  auto drain = [&](int milliseconds) {
    std::string from;
    zmq_pollitem_t item = {router, 0, ZMQ_POLLIN, 0};
    while (zmq_poll(&item, 1, milliseconds) > 0)
      if (receive(from)[0] == char(live::kImagePass)) ++passes;
  };
  for (int i = 0; i < 500; ++i) {
    XoImageOutWrite(image, 0, 0, 64, 64, pixels.data(), 64 * 4, kXoImageFloat, 1, 0);
    XoImageOutPassDone(image);
    const std::string command = live::encodeCommand("c");
    zmq_send(router, session.data(), session.size(), ZMQ_SNDMORE);
    zmq_send(router, command.data(), command.size(), 0);
    drain(0);
  }
  for (int i = 0; i < 2000 && (commands < 500 || passes == 0); ++i) drain(5);
  drain(200);  // time for a second pass, were one sent
  EXPECT_EQ(commands, 500);
  EXPECT_EQ(passes, 1);
  XoImageOutClose(image);
  zmq_close(router);
  zmq_ctx_term(context);
}

// A controller that takes passes from the memory file, against a region
// laid out by hand as the protocol page describes it.
TEST(ImageRegionByHand, PassesAreTakenAsTheHeaderSaysAndALyingHeaderStopsTheImage) {
  const size_t slotBytes = 4096;
  const int file = memfd_create("by-hand", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  ASSERT_EQ(ftruncate(file, off_t(XoImageOut::regionFileBytes(slotBytes))), 0);
  ASSERT_EQ(fcntl(file, F_ADD_SEALS, F_SEAL_SHRINK), 0);
  auto* base = static_cast<unsigned char*>(mmap(nullptr, XoImageOut::regionFileBytes(slotBytes),
                                                PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
  auto* header = reinterpret_cast<XoImageOut::RegionHeader*>(base + 3 * slotBytes);
  int bell[2];
  ASSERT_EQ(pipe2(bell, O_NONBLOCK | O_CLOEXEC), 0);
  const std::string fds = "/proc/" + std::to_string(getpid()) + "/fd/";
  Recorder recorder;
  KindletControl::ImageReceiver receiver(recorder);
  ImageSource source{"LiveRenderSession_1", 1, getpid()};
  ImageOpen open;
  open.image = 9;
  open.name = "hand";
  open.width = open.height = 32;
  open.channels = {"Y"};
  open.region = fds + std::to_string(file);
  open.slotBytes = slotBytes;
  open.doorbell = fds + std::to_string(bell[0]);
  receiver.handle("c", live::encodeImageHello(source));
  receiver.handle("c", live::encodeImageOpen(open));
  ASSERT_EQ(receiver.doorbells().size(), 1u);

  // The writer holds 0, the word 1, the reader 2; the writer hands over 0.
  header->readerSlot = 2;
  std::memset(base, 0x5a, slotBytes);
  header->slots[0] = {4, 16, 3, 0};
  header->exchange = 0 | XoImageOut::kExchangeFresh;
  EXPECT_TRUE(receiver.takePasses());  // took it, then sleeps
  std::vector<Received> got = recorder.all();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].pass, 4u);
  EXPECT_EQ(got[0].samples, 16u);
  EXPECT_EQ(got[0].sceneState, 3u);
  EXPECT_EQ(got[0].pixels, std::vector<unsigned char>(open.pixelBytes(), 0x5a));
  EXPECT_EQ(header->readerSlot, 0u);
  EXPECT_EQ(header->exchange, 2u | XoImageOut::kExchangeReaderSleeps);

  // A header that hands over a buffer beyond the three: one line, no more passes.
  header->exchange = 3 | XoImageOut::kExchangeFresh;
  testing::internal::CaptureStderr();
  receiver.takePasses();
  header->exchange = 1 | XoImageOut::kExchangeFresh;
  receiver.takePasses();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "kindlet-control: dropped an image message of session LiveRenderSession_1 pid " +
                std::to_string(getpid()) +
                ": the region of image hand hands over a buffer that does not exist or is the "
                "reader's\n");
  EXPECT_EQ(recorder.all().size(), 1u);
  munmap(base, XoImageOut::regionFileBytes(slotBytes));
  close(file);
  close(bell[0]);
  close(bell[1]);
}

}  // namespace
