#include "KINDLET/src/Analytics.h"

#include <boost/thread/once.hpp>
#include <rapidjson/document.h>

#include "KINDLET/src/KindletLog.h"
#include "KINDLET/src/ShutdownRegistry.h"
#include "XoConfiguration/Configuration.h"
#include "XoRenderServices/AnalyticsManager.h"

using Arbolite3::XoRenderServices::v1::AnalyticsManager;

namespace {

const char kSource[] = "KINDLET/src/kindlet";

AnalyticsManager& analyticsManager() {
  static boost::once_flag once = BOOST_ONCE_INIT;
  static AnalyticsManager* manager = nullptr;
  boost::call_once(once, [] { manager = new AnalyticsManager(""); });
  return *manager;
}

}  // namespace

void openAnalytics() {
  auto& config = Arbolite3::XoConfiguration::v1::Config();
  if (config.get("SELVANE_ANALYTICS_DIR").empty()) return;
  AnalyticsManager& manager = analyticsManager();
  AnalyticsManager::g_instance = &manager;
  if (ShutdownRegistry* registry = ShutdownRegistry::instance())
    registry->registerCallback(&reportAnalyticsAtShutdown, &manager);

  rapidjson::Document document;
  const std::string release = config.get("SELVANE_RELEASE");
  rapidjson::Value build(release.data(), static_cast<rapidjson::SizeType>(release.size()),
                         document.GetAllocator());
  manager.addRecord("selvane.build", build);
  if (kindletLog().infoEnabled())
    kindletLog().info("Analytics report will be written to: " + manager.getPath(), kSource,
                      __LINE__);
}

void reportAnalyticsAtShutdown(void*) {
  AnalyticsManager* manager = AnalyticsManager::g_instance;
  if (manager == nullptr) return;
  manager->close();
  manager->flush();
  if (kindletLog().infoEnabled())
    kindletLog().info("Analytics report was written to: " + manager->getPath(), kSource,
                      __LINE__);
}
