// Cspf::CspfData: the inputs and outputs of one CSPF computation.
//
// The scheduler makes one per run over the constraint's topology view, names
// the wanted tunnel end points, and hands it to a CspfRun, which fills the
// shortest-path tree (settled routers with their equal-cost last links),
// the cost of every settled LAN and the owner of every TEP found. Nothing of
// it survives to the next run.
//
// The tables are laid out for the run's hot loop: the tent is a heap with a
// key index (CspfTent), the others flat hash maps whose members sit in one
// vector (CspfHashMap), iterated in the order they were added.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "cspf/CspfHashMap.h"
#include "cspf/CspfLinkInfo.h"
#include "cspf/CspfLinkInfoKey.h"
#include "cspf/CspfPath.h"
#include "cspf/CspfTent.h"
#include "platform/Ptr.h"
#include "records/IpGenAddr.h"
#include "topo/AllTopoDbView.h"
#include "topo/AllTopoKeys.h"

namespace Cspf {

class CspfData : public Platform::RefCounted {
  public:
    using ShortestPathMap = CspfHashMap<Net::IpGenAddr, CspfPath, CspfAddrKey>;
    using NetworkCostMap = CspfHashMap<AllTopoNetworkId, uint32_t, CspfNetworkIdKey>;
    using TepMap = CspfHashMap<Net::IpGenAddr, bool, CspfAddrKey>;
    using RouterWithTepMap = CspfHashMap<Net::IpGenAddr, Net::IpGenAddr, CspfAddrKey>;

    CspfData( std::shared_ptr<const AllTopoDbView> allTopoDbView,
              const Net::IpGenAddr& source );

    const std::shared_ptr<const AllTopoDbView>& allTopoDbView() const {
        return allTopoDbView_;
    }
    const Net::IpGenAddr& source() const { return source_; }

    // tent: the caller makes sure the key is absent before tentIs.
    void tentIs( const CspfLinkInfo& info ) { tent_.insert( info ); }
    // Inserts unless the key is there; whether it was inserted. One search
    // where tentHas then tentIs take two.
    bool tentAdd( const CspfLinkInfo& info ) { return tent_.insert( info ); }
    CspfLinkInfo tent( const CspfLinkInfoKey& key ) const;
    bool tentHas( const CspfLinkInfoKey& key ) const { return tent_.has( key ); }
    size_t tents() const { return tent_.size(); }
    void tentDel( const CspfLinkInfoKey& key ) { tent_.erase( key ); }
    void tentDelAll() { tent_.clear(); }
    // The cheapest member, and taking it out; the tent must not be empty.
    const CspfLinkInfo& tentFirst() const { return tent_.first(); }
    CspfLinkInfo tentDelFirst() { return tent_.takeFirst(); }
    // The members in tent order (a copy).
    std::vector<CspfLinkInfo> tentInOrder() const { return tent_.inOrder(); }

    // Inserts or replaces under the path's teRouterId.
    void shortestPathIs( const CspfPath& path );
    void shortestPathIs( CspfPath&& path );
    // The empty path when absent.
    CspfPath shortestPath( const Net::IpGenAddr& teRouterId ) const;
    // The stored path itself, null when absent: lets the run add a last link
    // without copying the path out and back. Valid until a path is deleted.
    CspfPath* shortestPathFind( const Net::IpGenAddr& teRouterId ) {
        return shortestPath_.find( teRouterId );
    }
    const CspfPath* shortestPathFind( const Net::IpGenAddr& teRouterId ) const {
        return shortestPath_.find( teRouterId );
    }
    bool shortestPathHas( const Net::IpGenAddr& teRouterId ) const {
        return shortestPath_.count( teRouterId ) != 0;
    }
    size_t shortestPaths() const { return shortestPath_.size(); }
    void shortestPathDel( const Net::IpGenAddr& teRouterId ) {
        shortestPath_.erase( teRouterId );
    }
    void shortestPathDelAll() { shortestPath_.clear(); }
    // In the order the routers were settled.
    const ShortestPathMap& shortestPathColl() const { return shortestPath_; }

    void shortestPathForNetworkIs( const AllTopoNetworkId& id, uint32_t cost ) {
        shortestPathForNetwork_.insert_or_assign( id, cost );
    }
    // 0 when absent.
    uint32_t shortestPathForNetwork( const AllTopoNetworkId& id ) const;
    // Null when absent.
    const uint32_t* shortestPathForNetworkFind( const AllTopoNetworkId& id ) const {
        return shortestPathForNetwork_.find( id );
    }
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
    void tepIs( const Net::IpGenAddr& tep, bool wanted = true ) {
        tep_.insert_or_assign( tep, wanted );
    }
    bool tepHas( const Net::IpGenAddr& tep ) const { return tep_.count( tep ) != 0; }
    size_t teps() const { return tep_.size(); }
    void tepDel( const Net::IpGenAddr& tep ) { tep_.erase( tep ); }
    void tepDelAll() { tep_.clear(); }
    const TepMap& tepColl() const { return tep_; }
    TepMap::const_iterator begin() const { return tep_.begin(); }
    TepMap::const_iterator end() const { return tep_.end(); }

    void routerWithTepIs( const Net::IpGenAddr& tep, const Net::IpGenAddr& router ) {
        routerWithTep_.insert_or_assign( tep, router );
    }
    // The zero address when the TEP was not found.
    Net::IpGenAddr routerWithTep( const Net::IpGenAddr& tep ) const;
    // Null when the TEP was not found.
    const Net::IpGenAddr* routerWithTepFind( const Net::IpGenAddr& tep ) const {
        return routerWithTep_.find( tep );
    }
    bool routerWithTepHas( const Net::IpGenAddr& tep ) const {
        return routerWithTep_.count( tep ) != 0;
    }
    size_t routerWithTeps() const { return routerWithTep_.size(); }
    void routerWithTepDel( const Net::IpGenAddr& tep ) { routerWithTep_.erase( tep ); }
    void routerWithTepDelAll() { routerWithTep_.clear(); }
    const RouterWithTepMap& routerWithTepColl() const { return routerWithTep_; }

    // Gives back the room the tables grew into beyond their members: the
    // results are kept as long as the scheduler needs them, the room never
    // serves again.
    void shrinkToFit();

  private:
    const std::shared_ptr<const AllTopoDbView> allTopoDbView_;
    const Net::IpGenAddr source_;
    CspfTent tent_;
    ShortestPathMap shortestPath_;
    NetworkCostMap shortestPathForNetwork_;
    TepMap tep_;
    RouterWithTepMap routerWithTep_;
};

Platform::Ptr<CspfData> cspfDataFactory(
    std::shared_ptr<const AllTopoDbView> allTopoDbView, const Net::IpGenAddr& source );

}  // namespace Cspf
