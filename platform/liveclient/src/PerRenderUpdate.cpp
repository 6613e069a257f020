#include "LiveRendering/PerRenderUpdate.h"

namespace Morrigo {
namespace Selvane {
namespace LiveRendering {

using Arbolite3::internal::XoAttribute::Attribute;
using Arbolite3::internal::XoAttribute::GroupAttribute;
using Arbolite3::internal::XoAttribute::GroupBuilder;
using Arbolite3::internal::XoAttribute::kTypeGroup;

const char kPerRenderUpdateKey[] = "__perRenderUpdateAttributes";

GroupAttribute foldPerRenderUpdate(const GroupAttribute& update, const std::string& sequenceID,
                                   PerRenderPart* outcome) {
  const Attribute reserved = update.getChildByName(kPerRenderUpdateKey);
  if (!reserved.isValid() || reserved.getType() != kTypeGroup) {
    if (outcome) *outcome = reserved.isValid() ? PerRenderPart::NotGroup : PerRenderPart::None;
    return update;
  }
  if (outcome) *outcome = PerRenderPart::Folded;
  GroupBuilder builder;
  GroupAttribute own(GroupAttribute(reserved).getChildByName(sequenceID));
  if (own.isValid()) builder.update(own);
  builder.update(update);
  builder.del(kPerRenderUpdateKey);
  return builder.build(GroupBuilder::BuildAndFlush);
}

}  // namespace LiveRendering
}  // namespace Selvane
}  // namespace Morrigo
