/* How a shared library offers renderer plug-ins: it exports the two functions
 * below. Each registration names a renderer and gives its suite and,
 * optionally, its renderer info plug-in. */
#ifndef XORENDERERPLUGIN_REGISTRATION_H
#define XORENDERERPLUGIN_REGISTRATION_H

#include "XoRendererPlugin/XoRendererPluginSuite.h"

#ifdef __cplusplus
extern "C" {
#endif

#define XO_RENDERER_PLUGIN_API_VERSION 1

/* Facts about a renderer that a live-render session needs. */
typedef struct XoRendererInfoPluginSuite {
  /* The renderer's display name; may be NULL. */
  const char* (*getRendererName)(void);
  /* Render method names the renderer supports, NULL-terminated; may be NULL. */
  const char* const* (*getRenderMethods)(void);
} XoRendererInfoPluginSuite;

typedef struct XoRendererPluginRegistration {
  int apiVersion; /* XO_RENDERER_PLUGIN_API_VERSION */
  const char* name;
  const XoRendererPluginSuite* suite;
  const XoRendererInfoPluginSuite* info; /* may be NULL */
} XoRendererPluginRegistration;

#if defined(__GNUC__)
#define XO_PLUGIN_EXPORT __attribute__((visibility("default")))
#else
#define XO_PLUGIN_EXPORT
#endif

/* Exported by every plug-in library. */
typedef int (*XoPluginRegistrationCountFn)(void);
typedef const XoRendererPluginRegistration* (*XoPluginRegistrationAtFn)(int index);
#define XO_PLUGIN_REGISTRATION_COUNT_SYMBOL "XoPluginRegistrationCount"
#define XO_PLUGIN_REGISTRATION_AT_SYMBOL "XoPluginRegistrationAt"

#ifdef __cplusplus
}
#endif

#endif
