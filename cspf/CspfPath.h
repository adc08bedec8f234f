// Cspf::CspfPath: the settled result of a CSPF run for one router, its TE
// router id and every last link by which it is reached at the shortest cost.
// More than one last link means equal-cost alternatives; all carry the same
// cost. Only the source's own path has none.
//
// Accessors follow the collection convention: lastLink( key ) a member (the
// empty info when absent), lastLinks() the count, lastLinkColl() or
// begin()/end() for iteration in the order the links came.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>

#include "cspf/CspfLinkInfo.h"
#include "cspf/CspfLinkInfoKey.h"
#include "platform/FlatMap.h"
#include "records/IpGenAddr.h"

namespace Cspf {

class CspfPath {
  public:
    // Usually one member, rarely a handful: a flat map in the order the
    // links arrived, whose first member lives in the path itself (a run
    // settles every router of the topology; one allocation each would add up).
    using LastLinkMap = Platform::FlatMap<CspfLinkInfoKey, CspfLinkInfo, 1>;

    // The empty path: zero teRouterId, no last links.
    CspfPath() = default;
    explicit CspfPath( const Net::IpGenAddr& teRouterId ) : teRouterId_( teRouterId ) {}

    // TypeError "!\"No String constructor for CspfPath - has collection\"".
    [[noreturn]] static CspfPath fromString( std::string_view text );

    const Net::IpGenAddr& teRouterId() const { return teRouterId_; }

    // Adds a member under the info's key; a key already there keeps its
    // member. Returns whether it added.
    bool newLastLink( const CspfLinkInfo& info );
    // Adds, or replaces the member under the same key.
    void lastLinkIs( const CspfLinkInfo& info );
    CspfLinkInfo lastLink( const CspfLinkInfoKey& key ) const;
    bool lastLinkHas( const CspfLinkInfoKey& key ) const {
        return lastLink_.count( key ) != 0;
    }
    void lastLinkDel( const CspfLinkInfoKey& key ) { lastLink_.erase( key ); }
    void lastLinkDelAll() { lastLink_.clear(); }
    size_t lastLinks() const { return lastLink_.size(); }
    const LastLinkMap& lastLinkColl() const { return lastLink_; }
    LastLinkMap::const_iterator begin() const { return lastLink_.begin(); }
    LastLinkMap::const_iterator end() const { return lastLink_.end(); }

    // Same router, and the same members under the same keys.
    bool operator==( const CspfPath& other ) const = default;
    bool operator!() const { return *this == CspfPath(); }

    // "Value('Cspf::CspfPath', ** {'teRouterId': ..., 'lastLink': {<key>:
    // <info>, ...}})", the members in key order so that equal paths print the
    // same whatever their history.
    std::string toString() const;

  private:
    Net::IpGenAddr teRouterId_;
    LastLinkMap lastLink_;
};

std::ostream& operator<<( std::ostream& os, const CspfPath& path );

}  // namespace Cspf
