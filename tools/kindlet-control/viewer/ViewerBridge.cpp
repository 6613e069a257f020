#include "ViewerBridge.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "ViewerFrame.h"
#include "XoScenegraph/AttributeJson.h"
#include "XoScenegraph/XoScenegraphIterator.h"

namespace KindletControl {

using Arbolite3::internal::XoScenegraphIterator;
using Arbolite3::internal::attributeToJsonText;
namespace XoAttribute = Arbolite3::internal::XoAttribute;

namespace {

std::string quoted(const std::string& text) {
  rapidjson::StringBuffer out;
  rapidjson::Writer<rapidjson::StringBuffer> writer(out);
  writer.String(text.c_str(), rapidjson::SizeType(text.size()));
  return out.GetString();
}

std::string location(const XoScenegraphIterator& at) {
  const std::string attributes = attributeToJsonText(at.getAttributes());
  return "{\"path\":" + quoted(at.getFullName()) +
         ",\"attributes\":" + (attributes.empty() ? "{}" : attributes) + "}";
}

// Depth first, in file order.
template <typename Visit>
void walk(const XoScenegraphIterator& at, Visit& visit) {
  visit(at);
  for (XoScenegraphIterator child = at.getFirstChild(); child.isValid(); child = child.getNextSibling())
    walk(child, visit);
}

}  // namespace

ViewerBridge::ViewerBridge(ViewerHub& hub, ImageConsumer* also) : hub(hub), also(also) {}

void ViewerBridge::pass(const ImageSource& source, const ImageOpen& image, const ImagePass& pass,
                        const unsigned char* pixels) {
  if (also) also->pass(source, image, pass, pixels);
  const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count();
  imagesChanged |= imageNames[source.sequenceID].insert(image.name).second;
  hub.publish(std::to_string(source.sequenceID) + "/" + image.name,
              std::make_shared<const std::string>(encodeFrame(source, image, pass, pixels, ms)));
}

void ViewerBridge::closed(const ImageSource& source, const ImageOpen& image) {
  if (also) also->closed(source, image);
}

std::string ViewerBridge::sessionKey(const Session& session) const {
  return std::to_string(session.registration.pid) + "/" + session.registration.sessionName;
}

void ViewerBridge::countUpdate(const RegistryServer& registry, const long* target) {
  for (const Session& session : registry.sessions())
    if (!target || session.registration.sequenceID == *target) ++updatesSent[sessionKey(session)];
}

const std::string& ViewerBridge::sceneFacts(const std::string& opTreeFile) {
  auto found = scenes.find(opTreeFile);
  if (found != scenes.end()) return found->second;
  std::string& facts = scenes[opTreeFile];
  const XoScenegraphIterator root = XoScenegraphIterator::getIteratorFromFile(opTreeFile);
  if (!root.isValid()) return facts = "null";
  const std::string cameraPath =
      XoAttribute::StringAttribute(root.getAttribute("renderSettings.camera")).getValue();
  std::string camera = "null", lights;
  auto visit = [&](const XoScenegraphIterator& at) {
    const std::string type = at.getType();
    if (type == "camera" && (at.getFullName() == cameraPath || (cameraPath.empty() && camera == "null")))
      camera = location(at);
    if (type == "light") lights += (lights.empty() ? "" : ",") + location(at);
  };
  walk(root, visit);
  return facts = "{\"camera\":" + camera + ",\"lights\":[" + lights + "]}";
}

std::string ViewerBridge::rendersJson(const RegistryServer& registry) {
  std::string text = "{\"type\":\"renders\",\"renders\":[";
  bool first = true;
  for (const Session& session : registry.sessions()) {
    const auto& r = session.registration;
    std::string images;
    for (const std::string& name : imageNames[r.sequenceID])
      images += (images.empty() ? "" : ",") + quoted(name);
    text += std::string(first ? "" : ",") + "{\"sequenceID\":" + std::to_string(r.sequenceID) +
            ",\"session\":" + quoted(r.sessionName) + ",\"pid\":" + std::to_string(r.pid) +
            ",\"renderer\":" + quoted(r.rendererName) + ",\"opTreeFile\":" + quoted(r.opTreeFile) +
            ",\"images\":[" + images + "],\"scene\":" + sceneFacts(r.opTreeFile) + "}";
    first = false;
  }
  return text + "]}";
}

void ViewerBridge::serve(RegistryServer& registry) {
  // The list is rebuilt only when a session or an image came or went.
  std::string signature;
  for (const Session& session : registry.sessions()) signature += sessionKey(session) + ";";
  if (signature != lastRenders || imagesChanged) {
    lastRenders = signature;
    imagesChanged = false;
    hub.setRenders(rendersJson(registry));
  }
  for (ViewerEdit& edit : hub.takeEdits()) {
    const long* target = edit.hasTarget ? &edit.target : nullptr;
    const size_t sent = registry.send(edit.message, target);
    std::map<long, uint64_t> states;
    if (edit.isUpdate && sent > 0) {
      countUpdate(registry, target);
      for (const Session& session : registry.sessions())
        if (!target || session.registration.sequenceID == *target)
          states[session.registration.sequenceID] = updatesSent[sessionKey(session)];
    }
    if (edit.done) edit.done(states);
  }
}

}  // namespace KindletControl
