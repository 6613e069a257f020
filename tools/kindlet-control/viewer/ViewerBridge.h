// The viewer's side on the registry's thread: takes the renders' passes
// (an ImageConsumer) and hands them to the viewer as frames, tells the
// viewer which renders there are and what their scenes' camera and lights
// are, and sends the page's edits through the registry.
//
// It also counts the updates each session has been sent (the script's too),
// so that the page learns which scene state an edit leads to and can time
// the edit to the first pixels that show it.
#pragma once

#include <chrono>
#include <map>
#include <set>
#include <string>

#include "ImageReceiver.h"
#include "RegistryServer.h"
#include "ViewerHub.h"

namespace KindletControl {

class ViewerBridge : public ImageConsumer {
 public:
  // `also`: another consumer that gets every pass too (--images), or null.
  ViewerBridge(ViewerHub& hub, ImageConsumer* also);

  void pass(const ImageSource& source, const ImageOpen& image, const ImagePass& pass,
            const unsigned char* pixels) override;
  void closed(const ImageSource& source, const ImageOpen& image) override;

  // After each poll: the renders' list when it changed, then the page's edits.
  void serve(RegistryServer& registry);
  // An update sent to the sessions `target` names (null: all), counted.
  void countUpdate(const RegistryServer& registry, const long* target);

 private:
  std::string sessionKey(const Session& session) const;
  std::string rendersJson(const RegistryServer& registry);
  // The camera and lights of an Op tree file, as JSON (cached per file).
  const std::string& sceneFacts(const std::string& opTreeFile);

  ViewerHub& hub;
  ImageConsumer* also;
  const std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
  std::map<std::string, uint64_t> updatesSent;        // by "<pid>/<session>"
  std::map<long, std::set<std::string>> imageNames;   // by sequence ID
  std::map<std::string, std::string> scenes;          // by Op tree file
  std::string lastRenders;
  bool imagesChanged = true;
};

}  // namespace KindletControl
