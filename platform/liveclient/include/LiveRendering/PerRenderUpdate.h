// One update can serve several renders: its reserved child
// "__perRenderUpdateAttributes" holds a group per render, named by the
// render's decimal sequence ID. Each render sees the common update with only
// its own part folded in.
#pragma once

#include <string>

#include "XoAttribute/Attribute.h"

namespace Morrigo {
namespace Selvane {
namespace LiveRendering {

extern const char kPerRenderUpdateKey[];

enum class PerRenderPart {
  None,      // no reserved child: the update is unchanged
  NotGroup,  // the reserved child is not a group: the update is unchanged
  Folded,    // the reserved child was a group: it is gone, this render's part is in
};

// The update as the render `sequenceID` sees it. The render's own part goes
// into a builder first and the common update over it, so a name in both is
// settled by the common update; the reserved key is deleted. A part that is
// not a group counts as absent.
Arbolite3::internal::XoAttribute::GroupAttribute foldPerRenderUpdate(
    const Arbolite3::internal::XoAttribute::GroupAttribute& update, const std::string& sequenceID,
    PerRenderPart* outcome = nullptr);

}  // namespace LiveRendering
}  // namespace Selvane
}  // namespace Morrigo
