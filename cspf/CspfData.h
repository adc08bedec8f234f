// Cspf::CspfData: the inputs and outputs of one CSPF computation.
//
// The scheduler makes one per run over the constraint's topology view, names
// the wanted tunnel end points, and hands it to a CspfRun, which fills the
// shortest-path tree (settled routers with their equal-cost last links),
// the cost of every settled LAN and the owner of every TEP found. Nothing of
// it survives to the next run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <unordered_map>

#include "cspf/CspfLinkInfo.h"
#include "cspf/CspfLinkInfoKey.h"
#include "cspf/CspfPath.h"
#include "platform/Ptr.h"
#include "records/IpGenAddr.h"
#include "topo/AllTopoDbView.h"
#include "topo/AllTopoKeys.h"

namespace Cspf {

class CspfData : public Platform::RefCounted {
  public:
    // The tentative list: its first member is always the cheapest candidate.
    using Tent = std::map<CspfLinkInfoKey, CspfLinkInfo>;
    using ShortestPathMap = std::unordered_map<Net::IpGenAddr, CspfPath>;
    using NetworkCostMap = std::unordered_map<AllTopoNetworkId, uint32_t>;
    using TepMap = std::unordered_map<Net::IpGenAddr, bool>;
    using RouterWithTepMap = std::unordered_map<Net::IpGenAddr, Net::IpGenAddr>;

    CspfData( std::shared_ptr<const AllTopoDbView> allTopoDbView,
              const Net::IpGenAddr& source );

    const std::shared_ptr<const AllTopoDbView>& allTopoDbView() const {
        return allTopoDbView_;
    }
    const Net::IpGenAddr& source() const { return source_; }

    // tent: the caller makes sure the key is absent before tentIs.
    void tentIs( const CspfLinkInfo& info ) {
        tent_.emplace( info.cspfLinkInfoKey(), info );
    }
    // Inserts unless the key is there; whether it was inserted. One search
    // where tentHas then tentIs take two.
    bool tentAdd( const CspfLinkInfo& info ) {
        return tent_.emplace( info.cspfLinkInfoKey(), info ).second;
    }
    CspfLinkInfo tent( const CspfLinkInfoKey& key ) const;
    bool tentHas( const CspfLinkInfoKey& key ) const { return tent_.count( key ) != 0; }
    size_t tents() const { return tent_.size(); }
    void tentDel( const CspfLinkInfoKey& key ) { tent_.erase( key ); }
    Tent::iterator tentDel( Tent::const_iterator it ) { return tent_.erase( it ); }
    void tentDelAll() { tent_.clear(); }
    const Tent& tentColl() const { return tent_; }

    // Inserts or replaces under the path's teRouterId.
    void shortestPathIs( const CspfPath& path );
    // The empty path when absent.
    CspfPath shortestPath( const Net::IpGenAddr& teRouterId ) const;
    // The stored path itself, null when absent: lets the run add a last link
    // without copying the path out and back.
    CspfPath* shortestPathFind( const Net::IpGenAddr& teRouterId );
    const CspfPath* shortestPathFind( const Net::IpGenAddr& teRouterId ) const;
    bool shortestPathHas( const Net::IpGenAddr& teRouterId ) const {
        return shortestPath_.count( teRouterId ) != 0;
    }
    size_t shortestPaths() const { return shortestPath_.size(); }
    void shortestPathDel( const Net::IpGenAddr& teRouterId ) {
        shortestPath_.erase( teRouterId );
    }
    void shortestPathDelAll() { shortestPath_.clear(); }
    const ShortestPathMap& shortestPathColl() const { return shortestPath_; }

    void shortestPathForNetworkIs( const AllTopoNetworkId& id, uint32_t cost ) {
        shortestPathForNetwork_[id] = cost;
    }
    // 0 when absent.
    uint32_t shortestPathForNetwork( const AllTopoNetworkId& id ) const;
    bool shortestPathForNetworkHas( const AllTopoNetworkId& id ) const {
        return shortestPathForNetwork_.count( id ) != 0;
    }
    size_t shortestPathForNetworks() const { return shortestPathForNetwork_.size(); }
    void shortestPathForNetworkDel( const AllTopoNetworkId& id ) {
        shortestPathForNetwork_.erase( id );
    }
    void shortestPathForNetworkDelAll() { shortestPathForNetwork_.clear(); }
    const NetworkCostMap& shortestPathForNetworkColl() const {
        return shortestPathForNetwork_;
    }

    // The wanted TEPs; the value is always true.
    void tepIs( const Net::IpGenAddr& tep, bool wanted = true ) { tep_[tep] = wanted; }
    bool tepHas( const Net::IpGenAddr& tep ) const { return tep_.count( tep ) != 0; }
    size_t teps() const { return tep_.size(); }
    void tepDel( const Net::IpGenAddr& tep ) { tep_.erase( tep ); }
    void tepDelAll() { tep_.clear(); }
    const TepMap& tepColl() const { return tep_; }
    TepMap::const_iterator begin() const { return tep_.begin(); }
    TepMap::const_iterator end() const { return tep_.end(); }

    void routerWithTepIs( const Net::IpGenAddr& tep, const Net::IpGenAddr& router ) {
        routerWithTep_[tep] = router;
    }
    // The zero address when the TEP was not found.
    Net::IpGenAddr routerWithTep( const Net::IpGenAddr& tep ) const;
    bool routerWithTepHas( const Net::IpGenAddr& tep ) const {
        return routerWithTep_.count( tep ) != 0;
    }
    size_t routerWithTeps() const { return routerWithTep_.size(); }
    void routerWithTepDel( const Net::IpGenAddr& tep ) { routerWithTep_.erase( tep ); }
    void routerWithTepDelAll() { routerWithTep_.clear(); }
    const RouterWithTepMap& routerWithTepColl() const { return routerWithTep_; }

  private:
    const std::shared_ptr<const AllTopoDbView> allTopoDbView_;
    const Net::IpGenAddr source_;
    Tent tent_;
    ShortestPathMap shortestPath_;
    NetworkCostMap shortestPathForNetwork_;
    TepMap tep_;
    RouterWithTepMap routerWithTep_;
};

Platform::Ptr<CspfData> cspfDataFactory(
    std::shared_ptr<const AllTopoDbView> allTopoDbView, const Net::IpGenAddr& source );

}  // namespace Cspf
