#include "TileDispatch.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

namespace pathtracer {

void forEachRange(tbb::task_arena& arena, int count, void (*body)(void*, int, int),
                  void* context) {
  arena.execute([&] {
    tbb::parallel_for(tbb::blocked_range<int>(0, count),
                      [&](const tbb::blocked_range<int>& r) { body(context, r.begin(), r.end()); });
  });
}

}  // namespace pathtracer
