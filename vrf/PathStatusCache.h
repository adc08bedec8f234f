// Cspf::PathStatusCache: the last computed result of one path request.
//
// ConstraintInfoSm stores a fresh PathArray here after every computation of
// the path's constraint and counts the refresh, whether or not the hops
// changed; PathStatusUpdateSm watches the count and publishes. Until the first
// computation VrfRootSm fills the cache from the client's existing PathStatus,
// so that a restarted agent agrees with what the client already holds.
#pragma once

#include <cstddef>

#include "platform/Attribute.h"
#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "platform/Ptr.h"
#include "vrf/PathArray.h"
#include "vrf/PathInfoKey.h"

namespace Cspf {

class PathStatusCache : public Platform::Entity {
  public:
    explicit PathStatusCache( const PathInfoKey& pathInfoKey )
        : pathInfoKey_( pathInfoKey ) {}

    const PathInfoKey& pathInfoKey() const { return pathInfoKey_; }

    // The hops of the last result; null and empty both mean "no path".
    CSPF_ATTR( Platform::Ptr<const PathArray>, path )
    // +1 for every computation that refreshed this entry.
    CSPF_COUNTER( refreshedCount )

    // The number of hops: 0 for a null path.
    size_t hopCount() const { return path_ ? path_->length() : 0; }

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    const PathInfoKey pathInfoKey_;
};

}  // namespace Cspf
