#pragma once
// BaseReference: what a node keeps about where its base came from, beside
// the base system itself: the asset's id and version, and how the node
// follows new versions of it.

#include <cstdint>
#include <string>

#include "orvix/host/ref.h"
#include "orvix/host/result.h"

namespace orvix::nodes {

// When a node takes a new version of its base asset.
enum class ASSET_UPDATE_POLICY : int32_t {
  NEVER = 0,
  EXPLICIT = 1,  // when the user asks
  IMPLICIT = 2,  // as soon as it exists
};

class BaseReference : public RefCounted {
 public:
  std::string assetId;
  std::string version;
  ASSET_UPDATE_POLICY updatePolicy = ASSET_UPDATE_POLICY::IMPLICIT;

  // A new reference with the same content, for a writer that must not touch
  // a shared one.
  Result<Ref<BaseReference>> Clone() const {
    ORVIX_TRY_ASSIGN(Ref<BaseReference> copy, NewRef<BaseReference>());
    copy->assetId = assetId;
    copy->version = version;
    copy->updatePolicy = updatePolicy;
    return copy;
  }
};

}  // namespace orvix::nodes
