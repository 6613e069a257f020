/* Defines the two exported registration functions of a plug-in library that
 * offers one renderer. Use once, at file scope, in one source file:
 *
 *   static const XoRendererPluginSuite mySuite = { ... };
 *   XO_DEFINE_RENDERER_PLUGIN("myRenderer", &mySuite, NULL)
 *
 * `suite` and `info` must be addresses of objects with static storage. */
#ifndef XORENDERERPLUGIN_DEFINE_H
#define XORENDERERPLUGIN_DEFINE_H

#include <stddef.h>

#include "XoRendererPlugin/XoRendererPluginRegistration.h"

#ifdef __cplusplus
#define XO_PLUGIN_EXTERN_C extern "C"
#else
#define XO_PLUGIN_EXTERN_C
#endif

#define XO_DEFINE_RENDERER_PLUGIN(name, suite, info)                                  \
  XO_PLUGIN_EXTERN_C XO_PLUGIN_EXPORT int XoPluginRegistrationCount(void) { return 1; } \
  XO_PLUGIN_EXTERN_C XO_PLUGIN_EXPORT const XoRendererPluginRegistration*              \
  XoPluginRegistrationAt(int index) {                                                  \
    static const XoRendererPluginRegistration registration = {                         \
        XO_RENDERER_PLUGIN_API_VERSION, (name), (suite), (info)};                      \
    return index == 0 ? &registration : NULL;                                          \
  }

#endif
