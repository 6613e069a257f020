// One progressive pass: one more sample in every pixel, spread over the
// worker threads of an arena in tiles.
#pragma once

#include <tbb/task_arena.h>

#include <atomic>
#include <vector>

#include "RenderScene.h"

namespace pathtracer {

// Adds sample number `sampleIndex` of every pixel into `sums` (width *
// height * scene.layout.channels floats). Returns false, leaving `sums` partly updated, when
// `cancel` became true meanwhile (checked before every tile). Paths are cut
// at `maxDepth` segments when it is above 0, else at the scene's.
bool renderPass(const RenderScene& scene, int sampleIndex, std::vector<float>& sums,
                tbb::task_arena& arena, const std::atomic<bool>& cancel, int maxDepth = 0);

}  // namespace pathtracer
