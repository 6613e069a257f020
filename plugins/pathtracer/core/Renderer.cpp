#include "Renderer.h"

#include <sstream>

#include "ImageFile.h"
#include "Pass.h"
#include "XoImageOut/XoImageOutC.h"

namespace pathtracer {

namespace {

void reportDeviceError(void*, RTCError code, const char* text) {
  PT_ERROR("Ray tracing kernel error " << int(code) << ": " << (text ? text : ""));
}

int arenaSize(int threads) {
  return threads > 0 ? threads : tbb::task_arena::automatic;
}

}  // namespace

std::string shareError(const RendererOptions& options) {
  if (options.sampleStride < 1 || options.sampleOffset < 0 ||
      options.sampleOffset >= options.sampleStride)
    return "Invalid sample share: -sampleOffset " + std::to_string(options.sampleOffset) +
           " -sampleStride " + std::to_string(options.sampleStride) +
           ": expected a stride of at least 1 and an offset from 0 to the stride less 1";
  return "";
}

int Renderer::sharePasses(int samples) const {
  if (samples <= options.sampleOffset) return 0;
  return (samples - options.sampleOffset + options.sampleStride - 1) / options.sampleStride;
}

Renderer::Renderer(RendererOptions options_)
    : options(std::move(options_)), arena(arenaSize(options.threads)) {
  device = rtcNewDevice(nullptr);
  if (!device) throw std::runtime_error("cannot create a ray tracing device");
  rtcSetDeviceErrorFunction(device, &reportDeviceError, nullptr);
  compiled = compileScene(sceneTree, device, meshes, reporter, nullptr, false);
}

Renderer::~Renderer() {
  stopLive();
  compiled.reset();
  rtcReleaseDevice(device);
}

void Renderer::load(const SceneTree& tree) {
  sceneTree = tree;
  recompile(false);
  std::lock_guard<std::mutex> lock(stateMutex);
  startOverLocked();
}

void Renderer::recompile(bool reuseGeometry) {
  compiled = compileScene(sceneTree, device, meshes, reporter, compiled.get(), reuseGeometry);
  if (options.samples > 0) compiled->settings.samples = options.samples;
  compiled->lightSampling = options.lightSampling;
  compiled->dome.uniformSampling = options.uniformDome;
}

void Renderer::startOverLocked() {
  try {
    sums.assign(size_t(compiled->settings.width) * compiled->settings.height *
                    compiled->layout.channels, 0.0f);
  } catch (const std::bad_alloc&) {
    PT_ERROR("Cannot allocate the image of " << compiled->settings.width << "x"
                                             << compiled->settings.height << " pixels");
    compiled->settings.valid = false;
    sums.clear();
  }
  samplesDone = 0;
  latest.clear();
  if (compiled->settings.valid)
    publisher.resize(compiled->settings.width, compiled->settings.height, compiled->layout);
  // A deeper first pass would keep the new state off screen for longer.
  previewPending = compiled->settings.maxDepth > kPreviewDepth;
  ++generation;
}

std::string Renderer::outputPath() const {
  const std::string& pattern = options.output.empty() ? compiled->settings.output : options.output;
  return pattern.empty() ? pattern : outputPathForFrame(pattern, compiled->settings.frame);
}

std::vector<float> Renderer::average(int samples) const {
  std::vector<float> pixels(sums.size());
  const float scale = samples > 0 ? 1.0f / float(samples) : 0.0f;  // an empty share
  for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = sums[i] * scale;
  return pixels;
}

bool Renderer::writeImage(const std::vector<float>& pixels) {
  const std::string path = outputPath();
  if (path.empty()) {
    reporter.warnOnce("no output", "No output image path (renderSettings.output or -outputImage); "
                                   "the image is not written");
    return false;
  }
  return writeImageTo(path, compiled->settings.width, compiled->settings.height, pixels,
                      compiled->layout.names);
}

bool Renderer::writeImageTo(const std::string& path, int width, int height,
                            const std::vector<float>& pixels,
                            const std::vector<std::string>& channels) {
  std::string error;
  if (!writeImageAtomically(path, width, height, pixels, error, channels)) {
    PT_ERROR("Cannot write image \"" << path << "\": " << error);
    return false;
  }
  return true;
}

bool Renderer::renderBatch() {
  const RenderSettings& s = compiled->settings;
  if (!s.valid) {
    PT_ERROR("Nothing rendered: the scene's renderSettings are invalid");
    return false;
  }
  // kindlet renders a sequence's files one after the other with one plug-in;
  // without a frame of their own they would all write the same file.
  const std::string path = options.writeImages ? outputPath() : std::string();
  if (!path.empty() && !batchImages.insert(path).second) {
    PT_ERROR("Nothing rendered: image \"" << path << "\" was already written by this render"
             << (s.frameGiven ? "" : "; give each scene file its own renderSettings.frame"));
    return false;
  }
  PT_INFO("Rendering " << s.width << "x" << s.height << ", " << s.samples
                       << " samples per pixel, " << compiled->triangleCount() << " triangles");
  const std::atomic<bool> never{false};
  int reported = 0;  // in tenths
  const int passes = sharePasses(s.samples);
  for (int sample = 0; sample < passes; ++sample) {
    renderPass(*compiled, sampleIndex(sample), sums, arena, never);
    if (publisher.wanted()) publisher.publish(average(sample + 1), uint64_t(sample + 1), sceneState);
    const int tenths = (sample + 1) * 10 / passes;
    if (tenths > reported && sample + 1 < passes) {
      reported = tenths;
      PT_INFO("Rendered " << tenths * 10 << "%");
    }
  }
  std::vector<float> pixels = average(passes);
  const bool written = !options.writeImages || writeImage(pixels);
  if (written && options.writeImages) PT_INFO("Wrote image " << outputPath());
  {
    std::lock_guard<std::mutex> lock(stateMutex);
    samplesDone = passes;
    latest = std::move(pixels);
  }
  stateChanged.notify_all();
  return written;
}

void Renderer::startLive() {
  std::lock_guard<std::mutex> lock(stateMutex);
  if (liveThread.joinable()) return;
  stopping = false;
  paused = false;
  liveThread = std::thread([this] { liveLoop(); });
}

void Renderer::stopLive() {
  {
    std::lock_guard<std::mutex> lock(stateMutex);
    if (!liveThread.joinable()) return;
    stopping = true;
    cancel = true;
  }
  stateChanged.notify_all();
  liveThread.join();
  std::lock_guard<std::mutex> lock(stateMutex);
  liveThread = std::thread();
  cancel = false;
}

void Renderer::holdRefinement(bool hold) {
  {
    std::lock_guard<std::mutex> lock(stateMutex);
    held = hold;
  }
  stateChanged.notify_all();
}

void Renderer::liveLoop() {
  std::unique_lock<std::mutex> lock(stateMutex);
  for (;;) {
    stateChanged.wait(lock, [&] {
      return stopping || (!paused && compiled->settings.valid &&
                          (previewPending ||
                           (!held && samplesDone < sharePasses(compiled->settings.samples))));
    });
    if (stopping) return;
    busy = true;
    const uint64_t passGeneration = generation;
    const int sample = samplesDone;
    const bool preview = previewPending;
    lock.unlock();
    std::vector<float> pixels;
    bool complete;
    if (preview) {
      // A cheap pass of its own buffer, shown at once and never averaged in.
      pixels.assign(sums.size(), 0.0f);
      complete = renderPass(*compiled, 0, pixels, arena, cancel, kPreviewDepth);
    } else {
      complete = renderPass(*compiled, sampleIndex(sample), sums, arena, cancel);
      if (complete) pixels = average(sample + 1);
    }
    lock.lock();
    const bool current = complete && passGeneration == generation;
    if (current) {
      if (preview) previewPending = false;
      else samplesDone = sample + 1;
      latest = pixels;
      // The quick first image of a state counts no samples: it is direct light only.
      publisher.publish(pixels, preview ? 0 : uint64_t(sample + 1), sceneState);
    }
    // Written after the image is published and with the pass marked done, so
    // neither a viewer nor an update waits for the file.
    std::string path;
    int width = 0, height = 0;
    std::vector<std::string> channels;
    if (current && options.writeImages) {
      path = outputPath();
      width = compiled->settings.width;
      height = compiled->settings.height;
      channels = compiled->layout.names;
      if (path.empty()) writeImage(pixels);  // only warns
    }
    busy = false;
    lock.unlock();
    stateChanged.notify_all();
    if (!path.empty()) writeImageTo(path, width, height, pixels, channels);
    lock.lock();
  }
}

void Renderer::submitUpdate(const GroupAttribute& update) {
  std::lock_guard<std::mutex> lock(queueMutex);
  queue.push_back(update);
  // Read on the thread that delivers the update: it counts this one.
  queuedSceneState = XoImageOutUpdateCount();
}

bool Renderer::hasQueuedUpdates() {
  std::lock_guard<std::mutex> lock(queueMutex);
  return !queue.empty();
}

void Renderer::applyQueuedUpdates() {
  std::vector<GroupAttribute> batch;
  uint64_t batchState;
  {
    std::lock_guard<std::mutex> lock(queueMutex);
    batch.swap(queue);
    batchState = queuedSceneState;
  }
  if (batch.empty()) return;
  {
    // Stop the pass in flight: its samples belong to the old scene.
    std::unique_lock<std::mutex> lock(stateMutex);
    paused = true;
    cancel = true;
    stateChanged.wait(lock, [&] { return !busy; });
  }
  UpdateEffect effect;
  for (const GroupAttribute& update : batch) {
    const UpdateEffect one = sceneTree.apply(update);
    effect.geometryChanged |= one.geometryChanged;
    effect.anythingChanged |= one.anythingChanged;
  }
  if (effect.anythingChanged) recompile(!effect.geometryChanged);
  {
    std::lock_guard<std::mutex> lock(stateMutex);
    sceneState = batchState;
    startOverLocked();
    cancel = false;
    paused = false;
  }
  stateChanged.notify_all();
}

uint64_t Renderer::state() {
  std::lock_guard<std::mutex> lock(stateMutex);
  return generation;
}

bool Renderer::waitForSamples(uint64_t state, int samples, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(stateMutex);
  stateChanged.wait_for(lock, timeout, [&] {
    return generation != state || samplesDone >= samples;
  });
  return generation == state && samplesDone >= samples;
}

bool Renderer::waitForImage(uint64_t state, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(stateMutex);
  stateChanged.wait_for(lock, timeout, [&] { return generation != state || !latest.empty(); });
  return generation == state && !latest.empty();
}

std::vector<float> Renderer::image(int* width, int* samples) {
  std::lock_guard<std::mutex> lock(stateMutex);
  if (width) *width = compiled->settings.width;
  if (samples) *samples = samplesDone;
  const size_t channels = size_t(compiled->layout.channels);
  if (channels == 3) return latest;
  std::vector<float> beauty(latest.size() / channels * 3);
  for (size_t i = 0; i < beauty.size() / 3; ++i)
    std::copy_n(&latest[i * channels], 3, &beauty[3 * i]);
  return beauty;
}

std::vector<float> Renderer::outputs() {
  std::lock_guard<std::mutex> lock(stateMutex);
  return latest;
}

}  // namespace pathtracer
