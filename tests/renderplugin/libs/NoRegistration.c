/* A valid shared library that offers no renderer. */
int notARendererPlugin(void) { return 1; }
