/* A renderer registered against an API version this host does not speak. */
#include "XoRendererPlugin/XoRendererPluginRegistration.h"

static const XoRendererPluginSuite suite;

static const XoRendererPluginRegistration registration = {
    XO_RENDERER_PLUGIN_API_VERSION + 98, "wrongversion", &suite, NULL};

XO_PLUGIN_EXPORT int XoPluginRegistrationCount(void) { return 1; }

XO_PLUGIN_EXPORT const XoRendererPluginRegistration* XoPluginRegistrationAt(int index) {
  return index == 0 ? &registration : NULL;
}
