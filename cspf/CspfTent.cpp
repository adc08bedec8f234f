#include "cspf/CspfTent.h"

#include <algorithm>
#include <cstring>

#include "cspf/CspfHashMap.h"
#include "platform/Assert.h"
#include "topo/TopoKeys.h"

namespace Cspf {

namespace {

uint64_t load64( const uint8_t* p ) {
    uint64_t w;
    std::memcpy( &w, p, sizeof( w ) );
    return w;
}

}  // namespace

uint32_t CspfTent::doHash( const CspfLinkInfoKey& key ) {
    // teNeighborOf and teNeighborId follow from the level and the neighbor
    // key within one run; leaving them out keeps equal keys equal here.
    static_assert( sizeof( Routing::Topology::NeighborKey ) == 36 );
    uint8_t nk[40] = {};
    std::memcpy( nk, &key.allTopoNeighborKey().neighborKey(), 36 );
    const Net::IpGenAddr& rin = key.routerInNetwork();
    uint64_t h = uint64_t{ key.cost() } << 8 |
                 static_cast<uint8_t>( key.allTopoNeighborKey().topoId() );
    h = cspfMix( h ^ load64( nk ) );
    h = cspfMix( h ^ load64( nk + 8 ) ^ load64( nk + 16 ) * 0x9e3779b97f4a7c15ull );
    h = cspfMix( h ^ load64( nk + 24 ) ^ load64( nk + 32 ) * 0x9e3779b97f4a7c15ull );
    if ( rin.isSet() ) {
        h ^= CspfAddrKey::hash( rin );
    }
    return static_cast<uint32_t>( h ^ ( h >> 32 ) );
}

namespace {

// A router id as a number that orders as the id does: protocol (clamped,
// which keeps the order), rtrIdValue, lblSpace.
uint64_t routerIdWord( const Mpls::RouterId& id ) {
    return uint64_t{ std::min<uint32_t>( static_cast<uint32_t>( id.protocol() ), 255 ) }
               << 48 |
           uint64_t{ id.rtrIdValue() } << 16 | id.lblSpaceValue();
}

}  // namespace

CspfTent::Entry CspfTent::doEntry( const CspfLinkInfoKey& key, uint32_t at ) {
    // The prefixes pack fields that the key's order compares first, most
    // significant first, each in a width that holds it whole or clamped
    // (which keeps the order): equal prefixes leave the decision to the full
    // compare.
    uint64_t kind = 1;
    uint64_t prefix;
    uint64_t prefix2 = 0;
    const AllTopoNeighborKey& link = key.allTopoNeighborKey();
    if ( key.neighborType() == Routing::Topology::neighborTypeNetwork() &&
         key.routerLink() ) {
        kind = 2;
        // Address family, then the first bytes of the address as a
        // big-endian number; a family word beyond the known ones sorts last.
        const Net::IpGenAddr& rin = key.routerInNetwork();
        uint64_t bytes;
        std::memcpy( &bytes, rin.bytes(), sizeof( bytes ) );
        prefix = rin.afWord() > 2
                     ? UINT64_MAX
                     : uint64_t{ rin.afWord() } << 62 | __builtin_bswap64( bytes ) >> 2;
    } else {
        if ( key.neighborType() == Routing::Topology::neighborTypeNetwork() ) {
            kind = 0;
        }
        // The level and the advertising router; then, the neighbor type
        // being the same within a kind, the far router (or the LAN's
        // designated router).
        const Routing::Topology::NeighborKey& neighborKey = link.neighborKey();
        prefix = uint64_t{ static_cast<uint8_t>( link.topoId() ) } << 56 |
                 routerIdWord( neighborKey.routerId() );
        prefix2 = routerIdWord( neighborKey.farRouterId() );
    }
    return Entry{ uint64_t{ key.cost() } << 32 | kind << kPoolBits | at, prefix,
                  prefix2 };
}

uint32_t CspfTent::doFind( const CspfLinkInfoKey& key ) const {
    if ( index_.empty() ) {
        return kNone;
    }
    const uint32_t h = doHash( key );
    const size_t mask = index_.size() - 1;
    for ( size_t i = h & mask;; i = ( i + 1 ) & mask ) {
        const Slot& slot = index_[i];
        if ( !slot.at ) {
            return kNone;
        }
        if ( slot.hash == h && members_[slot.at - 1].info.cspfLinkInfoKey() == key ) {
            return slot.at - 1;
        }
    }
}

bool CspfTent::insert( const CspfLinkInfo& info ) {
    if ( ( size_ + 1 ) * 2 > index_.size() ) {
        doRehash( index_.empty() ? 64 : index_.size() * 2 );
    }
    const CspfLinkInfoKey& key = info.cspfLinkInfoKey();
    const uint32_t h = doHash( key );
    const size_t mask = index_.size() - 1;
    size_t i = h & mask;
    for ( ; index_[i].at; i = ( i + 1 ) & mask ) {
        if ( index_[i].hash == h &&
             members_[index_[i].at - 1].info.cspfLinkInfoKey() == key ) {
            return false;
        }
    }
    uint32_t at;
    if ( free_.empty() ) {
        CSPF_ASSERT( members_.size() < kPoolMask );
        at = static_cast<uint32_t>( members_.size() );
        members_.push_back( Member{ info, h } );
        live_.push_back( 1 );
    } else {
        at = free_.back();
        free_.pop_back();
        members_[at] = Member{ info, h };
        live_[at] = 1;
    }
    index_[i] = Slot{ at + 1, h };
    const Entry entry = doEntry( key, at );
    const uint32_t cost = key.cost();
    if ( size_ == 0 ) {
        // Nothing waits (doFront emptied every bucket): start from here.
        last_ = cost;
    } else if ( cost < last_ ) {
        doRebase( cost );
    }
    ++size_;
    const unsigned bucket = doBucket( cost );
    if ( bucket ) {
        buckets_[bucket].push_back( entry );
        return true;
    }
    std::vector<Entry>& current = buckets_[0];
    auto before = [this]( const Entry& a, const Entry& b ) { return doBefore( a, b ); };
    current.insert( std::upper_bound( current.begin() + ptrdiff_t( head_ ), current.end(),
                                      entry, before ),
                    entry );
    return true;
}

const CspfLinkInfo* CspfTent::find( const CspfLinkInfoKey& key ) const {
    const uint32_t at = doFind( key );
    return at == kNone ? nullptr : &members_[at].info;
}

const CspfLinkInfo& CspfTent::first() const {
    CSPF_ASSERT( size_ > 0 );
    return members_[buckets_[0][head_].word & kPoolMask].info;
}

CspfLinkInfo CspfTent::takeFirst() {
    CSPF_ASSERT( size_ > 0 );
    const Entry& front = buckets_[0][head_++];
    const uint32_t at = static_cast<uint32_t>( front.word & kPoolMask );
    const CspfLinkInfo info = members_[at].info;
    doUnlink( at );
    live_[at] = 0;
    doFree( front );
    --size_;
    doFront();
    return info;
}

bool CspfTent::erase( const CspfLinkInfoKey& key ) {
    const uint32_t at = doFind( key );
    if ( at == kNone ) {
        return false;
    }
    doUnlink( at );
    live_[at] = 0;
    --size_;
    doFront();
    return true;
}

void CspfTent::clear() {
    // The storage goes too (swapped out: assigning {} would keep it): a
    // run's tent is cleared once, at its end.
    members_.clear();
    std::vector<uint8_t>().swap( live_ );
    std::vector<uint32_t>().swap( free_ );
    std::vector<Slot>().swap( index_ );
    for ( std::vector<Entry>& bucket : buckets_ ) {
        std::vector<Entry>().swap( bucket );
    }
    head_ = 0;
    last_ = 0;
    size_ = 0;
}

std::vector<CspfLinkInfo> CspfTent::inOrder() const {
    std::vector<CspfLinkInfo> out;
    out.reserve( size_ );
    for ( size_t at = 0; at < members_.size(); ++at ) {
        if ( live_[at] ) {
            out.push_back( members_[at].info );
        }
    }
    std::sort( out.begin(), out.end(),
               []( const CspfLinkInfo& a, const CspfLinkInfo& b ) {
                   return a.cspfLinkInfoKey() < b.cspfLinkInfoKey();
               } );
    return out;
}

void CspfTent::doUnlink( uint32_t at ) {
    const size_t mask = index_.size() - 1;
    size_t i = members_[at].hash & mask;
    while ( index_[i].at != at + 1 ) {
        i = ( i + 1 ) & mask;
    }
    // Backward shift: the entries after the gap that would no longer be
    // found past it move into it (linear probing needs no tombstones).
    for ( size_t j = ( i + 1 ) & mask; index_[j].at; j = ( j + 1 ) & mask ) {
        const size_t home = index_[j].hash & mask;
        const bool stays = i <= j ? ( home > i && home <= j ) : ( home > i || home <= j );
        if ( !stays ) {
            index_[i] = index_[j];
            i = j;
        }
    }
    index_[i] = Slot();
}

void CspfTent::doRehash( size_t capacity ) {
    // From the old index, which holds the hashes: the pool is not read.
    std::vector<Slot> old( capacity, Slot() );
    old.swap( index_ );
    const size_t mask = capacity - 1;
    for ( const Slot& slot : old ) {
        if ( slot.at ) {
            size_t i = slot.hash & mask;
            while ( index_[i].at ) {
                i = ( i + 1 ) & mask;
            }
            index_[i] = slot;
        }
    }
}

void CspfTent::doFront() {
    std::vector<Entry>& current = buckets_[0];
    for ( ;; ) {
        while ( head_ < current.size() && !live_[current[head_].word & kPoolMask] ) {
            doFree( current[head_++] );
        }
        if ( head_ < current.size() ) {
            return;
        }
        current.clear();
        head_ = 0;
        unsigned b = 1;
        while ( b < kBuckets && buckets_[b].empty() ) {
            ++b;
        }
        if ( b == kBuckets ) {
            return;
        }
        // Split bucket b around its cheapest live member: everything in it
        // lands in a lower bucket, the cheapest in bucket 0.
        std::vector<Entry>& split = buckets_[b];
        bool any = false;
        uint32_t cheapest = 0;
        for ( const Entry& e : split ) {
            if ( live_[e.word & kPoolMask] && ( !any || doCost( e ) < cheapest ) ) {
                cheapest = doCost( e );
                any = true;
            }
        }
        if ( any ) {
            last_ = cheapest;
        }
        for ( const Entry& e : split ) {
            if ( !live_[e.word & kPoolMask] ) {
                doFree( e );
                continue;
            }
            const unsigned to = doBucket( doCost( e ) );
            CSPF_ASSERT( to < b );
            buckets_[to].push_back( e );
        }
        split.clear();
        std::sort(
            current.begin(), current.end(),
            [this]( const Entry& x, const Entry& y ) { return doBefore( x, y ); } );
    }
}

void CspfTent::doRebase( uint32_t cost ) {
    std::vector<Entry> all;
    all.reserve( size_ );
    for ( unsigned b = 0; b < kBuckets; ++b ) {
        for ( size_t i = b ? 0 : head_; i < buckets_[b].size(); ++i ) {
            const Entry& e = buckets_[b][i];
            if ( live_[e.word & kPoolMask] ) {
                all.push_back( e );
            } else {
                doFree( e );
            }
        }
        buckets_[b].clear();
    }
    head_ = 0;
    last_ = cost;
    for ( const Entry& e : all ) {
        buckets_[doBucket( doCost( e ) )].push_back( e );
    }
    std::sort( buckets_[0].begin(), buckets_[0].end(),
               [this]( const Entry& x, const Entry& y ) { return doBefore( x, y ); } );
}

}  // namespace Cspf
