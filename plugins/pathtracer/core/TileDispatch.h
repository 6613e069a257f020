// Spreads numbered work items over the threads of a task arena. Kept apart,
// behind a plain function pointer, so that sanitizer builds can compile the
// task library's templates without instrumentation, like the library itself.
#pragma once

#include <tbb/task_arena.h>

namespace pathtracer {

// Calls body(context, begin, end) for sub-ranges covering [0, count), on the
// arena's threads, and returns when all have returned.
void forEachRange(tbb::task_arena& arena, int count, void (*body)(void*, int, int),
                  void* context);

}  // namespace pathtracer
