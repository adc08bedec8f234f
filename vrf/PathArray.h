// Cspf::PathArray: the hops of one computed path, first hop at index 0.
//
// A new array is built for every new result (ConstraintInfoSm, or VrfRootSm
// from a client's existing PathStatus) and is only read once a
// PathStatusCache holds it: publishers compare and copy it hop by hop. The
// index is the records' HopIndex (0 to 1023), so a 1025th hop is the
// HopIndex range error before it is ever stored.
#pragma once

#include <cstddef>
#include <vector>

#include "platform/DumpContext.h"
#include "platform/Entity.h"
#include "records/IpGenAddr.h"
#include "records/PathStatus.h"

namespace Cspf {

class PathArray : public Platform::Entity {
  public:
    // Notified per index, with the index, like a keyed collection.
    static constexpr Platform::KeyTag<HopIndex> pathTag{};

    PathArray() = default;
    // The hops in order, at once: a new array has no one to tell. More than
    // 1024 hops raise the HopIndex range error.
    explicit PathArray( const std::vector<Net::IpGenAddr>& hops );

    // The hop at `index`; the unset address past the end.
    Net::IpGenAddr path( HopIndex index ) const;
    size_t length() const { return hops_.size(); }
    bool empty() const { return hops_.empty(); }
    const std::vector<Net::IpGenAddr>& pathColl() const { return hops_; }

    // Appends when `index` is the length, replaces below it; an index past
    // the length would leave a hole and raises RangeError.
    void pathIs( HopIndex index, const Net::IpGenAddr& addr );
    // Removes the hop at `index`; the hops after it move down one index.
    // Nothing happens past the end.
    void pathDel( HopIndex index );
    void pathDelAll();

    // The same hops in the same order.
    bool operator==( const PathArray& other ) const { return hops_ == other.hops_; }

    // One line " <address>" per hop, in order.
    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    std::vector<Net::IpGenAddr> hops_;
};

}  // namespace Cspf
