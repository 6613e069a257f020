// The path tracer's engine, independent of the plug-in table: a batch render
// of the whole image, or a live render that refines pass after pass on its
// own thread and starts over whenever queued updates are applied.
#pragma once

#include <tbb/task_arena.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ImagePublisher.h"
#include "Log.h"
#include "MeshFile.h"
#include "RenderScene.h"
#include "SceneTree.h"

namespace pathtracer {

struct RendererOptions {
  int threads = 0;             // 0: as many as the machine has
  int samples = 0;             // overrides the scene's when > 0
  std::string output;          // overrides the scene's when not empty
  bool writeImages = true;     // off for measurements of the passes alone
  // For measurements of the sampling itself.
  LightSampling lightSampling = LightSampling::kBoth;
  bool uniformDome = false;    // the dome image's brightness not used to sample it
  // This render's share of the sample sequence: indices sampleOffset,
  // sampleOffset + sampleStride, ... below the scene's samples. Several
  // kindlets with the same stride and different offsets render disjoint
  // samples of one image, which a controller merges.
  int sampleOffset = 0;
  int sampleStride = 1;
};

// Why `options` cannot be used ("" when they can).
std::string shareError(const RendererOptions& options);

class Renderer {
 public:
  explicit Renderer(RendererOptions options);
  ~Renderer();
  Renderer(const Renderer&) = delete;
  Renderer& operator=(const Renderer&) = delete;

  // Takes a new scene; the live render, if any, must be stopped.
  void load(const SceneTree& tree);

  // Renders every sample and writes the image. False if it could not be
  // written (the reason is logged).
  bool renderBatch();

  // Live render: refinement on a thread of our own until stopLive.
  void startLive();
  void stopLive();
  // Held, refinement adds no samples; the quick first image of a new state
  // still comes, so edits stay visible.
  void holdRefinement(bool hold);
  // Any thread, any time: queues under a short lock.
  void submitUpdate(const GroupAttribute& update);
  bool hasQueuedUpdates();
  // Applies all that is queued and restarts refinement. One thread at a time.
  void applyQueuedUpdates();

  // For tests and benchmarks. A state is a count of applied batches.
  uint64_t state();
  // Waits until the image of `state` holds at least `samples` samples per
  // pixel; false on time-out or when the state has moved on.
  bool waitForSamples(uint64_t state, int samples, std::chrono::milliseconds timeout);
  // Waits until the current state has an image at all, the quick first one
  // included; false on time-out or when the state has moved on.
  bool waitForImage(uint64_t state, std::chrono::milliseconds timeout);
  // The last complete image of the current state, width * height * 3, and
  // its samples per pixel (0 for the quick first image).
  std::vector<float> image(int* width = nullptr, int* samples = nullptr);
  // The same with every output, laid out as scene().layout says.
  std::vector<float> outputs();
  const SceneTree& tree() const { return sceneTree; }
  const RenderScene& scene() const { return *compiled; }
  // The output path of the current frame, "" when none was set.
  std::string outputPath() const;

 private:
  void liveLoop();
  void recompile(bool reuseGeometry);
  void startOverLocked();  // a new state with an empty image; stateMutex held
  std::vector<float> average(int samples) const;
  // The passes of this render's share of `samples`, and the sequence index of pass `pass`.
  int sharePasses(int samples) const;
  int sampleIndex(int pass) const { return options.sampleOffset + pass * options.sampleStride; }
  bool writeImage(const std::vector<float>& pixels);
  bool writeImageTo(const std::string& path, int width, int height,
                    const std::vector<float>& pixels, const std::vector<std::string>& channels);

  RendererOptions options;
  RTCDevice device = nullptr;
  tbb::task_arena arena;
  MeshCache meshes;
  OnceReporter reporter;

  // Touched by the thread that loads and applies only, or while the live
  // thread is idle (busy false, paused true).
  SceneTree sceneTree;
  std::unique_ptr<RenderScene> compiled;
  std::vector<float> sums;
  std::set<std::string> batchImages;  // written by renderBatch, never overwritten

  std::mutex queueMutex;
  std::vector<GroupAttribute> queue;
  uint64_t queuedSceneState = 0;  // the image service's count of the newest queued update
  // The scene state the passes render: the newest update applied (under stateMutex).
  uint64_t sceneState = 0;
  ImagePublisher publisher;

  std::mutex stateMutex;
  std::condition_variable stateChanged;
  std::thread liveThread;
  bool stopping = false, paused = false, busy = false, held = false;
  uint64_t generation = 0;
  int samplesDone = 0;
  // After every start-over, one pass of direct light only comes first.
  static constexpr int kPreviewDepth = 1;
  bool previewPending = false;
  std::vector<float> latest;  // the image of samplesDone samples
  std::atomic<bool> cancel{false};
};

}  // namespace pathtracer
