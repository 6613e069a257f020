/* A renderer whose every slot does nothing and succeeds: the baseline for
 * measuring what the process itself costs. Written in C to keep the plug-in
 * headers honest for C authors. */
#include <stdlib.h>

#include "XoRendererPlugin/XoRendererPluginDefine.h"

static XoRendererPluginHandle nullCreate(XoSgIteratorStruct* iterator, XoAttributeStruct* arguments) {
  (void)iterator;
  (void)arguments;
  /* Any non-NULL value would do; a real allocation keeps leak checkers honest. */
  return malloc(1);
}

static void nullDestroy(XoRendererPluginHandle handle) { free(handle); }

static int32_t nullSlot(XoRendererPluginHandle handle) {
  (void)handle;
  return 0;
}

static int32_t nullCommand(XoRendererPluginHandle handle, const char* command) {
  (void)handle;
  (void)command;
  return 0;
}

static int32_t nullUpdate(XoRendererPluginHandle handle, XoAttributeStruct* update) {
  (void)handle;
  (void)update;
  return 0;
}

static int32_t nullIterator(XoRendererPluginHandle handle, XoSgIteratorStruct* iterator) {
  (void)handle;
  (void)iterator;
  return 0;
}

static const XoRendererPluginSuite nullSuite = {
    nullCreate,   /* 0 create */
    nullDestroy,  /* 1 destroy */
    nullSlot,     /* 2 start */
    nullSlot,     /* 3 pauseRerender */
    NULL,         /* 4 reserved */
    nullSlot,     /* 5 stop */
    nullSlot,     /* 6 startLiveEditing */
    nullSlot,     /* 7 stopLiveEditing */
    nullCommand,  /* 8 handleControlCommand */
    nullUpdate,   /* 9 submitUpdate */
    nullSlot,     /* 10 hasQueuedUpdates: never anything queued */
    nullSlot,     /* 11 applyQueuedUpdates */
    NULL,         /* 12 reserved */
    nullIterator, /* 13 setSceneIterator */
    nullSlot,     /* 14 setup */
    nullSlot,     /* 15 teardown */
};

XO_DEFINE_RENDERER_PLUGIN("null", &nullSuite, NULL)
