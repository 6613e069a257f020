/* The renderer plug-in contract: a table of 16 function pointers and an
 * opaque instance handle. Every slot but 0 takes the handle first. */
#ifndef XORENDERERPLUGIN_SUITE_H
#define XORENDERERPLUGIN_SUITE_H

#include <stdint.h>

#include "XoAttribute/XoAttributeC.h"
#include "XoScenegraph/XoSgIteratorC.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef void* XoRendererPluginHandle;

typedef struct XoRendererPluginSuite {
  /* 0: make an instance for a scene and the process's arguments group. The
   * handles are borrowed: retain what you keep. NULL means failure. Called by
   * the plug-in manager only. */
  XoRendererPluginHandle (*create)(XoSgIteratorStruct* iterator, XoAttributeStruct* arguments);
  /* 1: destroy an instance. Called by the plug-in manager only. */
  void (*destroy)(XoRendererPluginHandle handle);
  /* 2 */ int32_t (*start)(XoRendererPluginHandle handle);
  /* 3 */ int32_t (*pauseRerender)(XoRendererPluginHandle handle);
  /* 4: reserved, may be NULL */ void (*reserved4)(void);
  /* 5 */ int32_t (*stop)(XoRendererPluginHandle handle);
  /* 6 */ int32_t (*startLiveEditing)(XoRendererPluginHandle handle);
  /* 7 */ int32_t (*stopLiveEditing)(XoRendererPluginHandle handle);
  /* 8: the command text is valid during the call only. */
  int32_t (*handleControlCommand)(XoRendererPluginHandle handle, const char* command);
  /* 9: the update (a group) is borrowed; retain it to keep it. May be called on
   * any thread, concurrently with every other slot. */
  int32_t (*submitUpdate)(XoRendererPluginHandle handle, XoAttributeStruct* update);
  /* 10: only the low byte of the result counts (non-zero: true). */
  int32_t (*hasQueuedUpdates)(XoRendererPluginHandle handle);
  /* 11 */ int32_t (*applyQueuedUpdates)(XoRendererPluginHandle handle);
  /* 12: reserved, may be NULL */ void (*reserved12)(void);
  /* 13: the iterator is borrowed; retain it to keep it. */
  int32_t (*setSceneIterator)(XoRendererPluginHandle handle, XoSgIteratorStruct* iterator);
  /* 14: 0 is success */ int32_t (*setup)(XoRendererPluginHandle handle);
  /* 15 */ int32_t (*teardown)(XoRendererPluginHandle handle);
} XoRendererPluginSuite;

#ifdef __cplusplus
}
#endif

#endif
