// The analytics report of the render process: opened after the bootstrap
// when the parent names a directory, closed from the shutdown registry.
#pragma once

// Opens the report when SELVANE_ANALYTICS_DIR is set, with the build record
// from SELVANE_RELEASE, and registers its closing in the ShutdownRegistry.
void openAnalytics();

// Closes and flushes AnalyticsManager::g_instance; the argument is ignored.
void reportAnalyticsAtShutdown(void* ignored);
