// Scenes for the renderer's in-process tests, written as Op tree JSON.
#pragma once

#include <gtest/gtest.h>

#include "Renderer.h"
#include "XoScenegraph/AttributeJson.h"

namespace pathtracer {

// An Op tree with `children` (JSON locations) under a root of these settings.
inline SceneTree sceneOf(const std::string& settings, const std::string& children) {
  std::string error;
  const auto it = Arbolite3::internal::XoScenegraphIterator::getIteratorFromText(
      R"({"optree": 1, "root": {"type": "root", "attributes": {"renderSettings": )" + settings +
          R"(}, "children": [)" + children + "]}}",
      &error);
  EXPECT_TRUE(it.isValid()) << error;
  return SceneTree::fromIterator(it);
}

inline GroupAttribute update(const std::string& json) {
  return GroupAttribute(Arbolite3::internal::attributeFromJsonText(json));
}

inline RendererOptions quiet(int threads = 2) {
  RendererOptions options;
  options.threads = threads;
  options.writeImages = false;
  return options;
}

}  // namespace pathtracer
