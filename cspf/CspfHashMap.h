// Cspf::CspfHashMap: the hash maps of one run's working data (settled routers
// and LANs, wanted TEPs and their owners).
//
// Members live in a chunked vector in the order they came (they never move
// as it grows), and an open-addressing index of keys and positions finds
// them: one allocation per chunk rather than one per member, a probe that
// stays in one array, and iteration that does not depend on hashing. The
// hashes below mix whole words; the keys' own hash() functions, which go a
// byte at a time because other processes must agree with them, are not
// needed inside one run.
//
// Erasing moves the last member into the hole, so it changes the order of
// the ones left; pointers to members hold until the next erasure.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "cspf/CspfChunkedVector.h"
#include "records/IpGenAddr.h"
#include "topo/AllTopoKeys.h"

namespace Cspf {

inline uint64_t cspfMix( uint64_t h ) {
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdull;
    h ^= h >> 33;
    h *= 0xc4ceb9fe1a85ec53ull;
    h ^= h >> 33;
    return h;
}

// Hash and equality of the keys, for CspfHashMap.
struct CspfAddrKey {
    static uint64_t hash( const Net::IpGenAddr& addr ) {
        uint64_t lo;
        uint64_t hi;
        std::memcpy( &lo, addr.bytes(), sizeof( lo ) );
        std::memcpy( &hi, addr.bytes() + sizeof( lo ), sizeof( hi ) );
        return cspfMix( ( lo ^ cspfMix( hi ^ addr.afWord() ) ) * 0x9e3779b97f4a7c15ull );
    }
    // Equal addresses are equal bytes (the record has no padding).
    static bool equal( const Net::IpGenAddr& a, const Net::IpGenAddr& b ) {
        return std::memcmp( &a, &b, sizeof( a ) ) == 0;
    }
};

struct CspfNetworkIdKey {
    static uint64_t hash( const AllTopoNetworkId& id ) {
        const Mpls::RouterId& dr = id.networkId().dr;
        const uint64_t a = uint64_t{ dr.rtrIdValue() } << 32 | id.networkId().pseudonode;
        const uint64_t b = uint64_t{ static_cast<uint32_t>( dr.protocol() ) } << 24 ^
                           uint64_t { dr.lblSpaceValue() } << 8 ^
                           static_cast<uint64_t>( id.topoId() );
        return cspfMix( ( a ^ cspfMix( b ) ) * 0x9e3779b97f4a7c15ull );
    }
    static bool equal( const AllTopoNetworkId& a, const AllTopoNetworkId& b ) {
        return a == b;
    }
};

// `KeyOf` gives hash( k ) and equal( a, b ).
template <typename K, typename V, typename KeyOf>
class CspfHashMap {
  public:
    using value_type = std::pair<K, V>;
    using const_iterator = typename CspfChunkedVector<value_type>::const_iterator;

    V* find( const K& k ) {
        const uint32_t at = index_.empty() ? 0 : index_[doSlot( k )].at;
        return at ? &items_[at - 1].second : nullptr;
    }
    const V* find( const K& k ) const {
        const uint32_t at = index_.empty() ? 0 : index_[doSlot( k )].at;
        return at ? &items_[at - 1].second : nullptr;
    }
    // The member's position in iteration order, size() when absent: lets a
    // reader of a finished map keep its own data by position.
    size_t position( const K& k ) const {
        const uint32_t at = index_.empty() ? 0 : index_[doSlot( k )].at;
        return at ? at - 1 : items_.size();
    }
    const value_type& atPosition( size_t i ) const { return items_[i]; }
    size_t count( const K& k ) const {
        return !index_.empty() && index_[doSlot( k )].at ? 1 : 0;
    }

    // The member under `k`, added with `v` when absent; whether it was added.
    template <typename T>
    std::pair<V*, bool> emplace( const K& k, T&& v ) {
        if ( ( items_.size() + 1 ) * 2 > index_.size() ) {
            doRehash( index_.empty() ? 16 : index_.size() * 2 );
        }
        Slot& slot = index_[doSlot( k )];
        if ( slot.at ) {
            return { &items_[slot.at - 1].second, false };
        }
        items_.emplace_back( k, std::forward<T>( v ) );
        slot = Slot{ k, static_cast<uint32_t>( items_.size() ) };
        return { &items_.back().second, true };
    }
    template <typename T>
    void insert_or_assign( const K& k, T&& v ) {
        auto [member, added] = emplace( k, std::forward<T>( v ) );
        if ( !added ) {
            *member = std::forward<T>( v );
        }
    }

    size_t erase( const K& k ) {
        if ( index_.empty() ) {
            return 0;
        }
        const size_t i = doSlot( k );
        const uint32_t hole = index_[i].at;
        if ( !hole ) {
            return 0;
        }
        doUnlink( i );
        // The last member fills the hole, and its index entry follows it.
        const uint32_t last = static_cast<uint32_t>( items_.size() );
        if ( hole != last ) {
            index_[doSlot( items_.back().first )].at = hole;
            items_[hole - 1] = std::move( items_.back() );
        }
        items_.back() = value_type();  // lets go of what the member held
        items_.pop_back();
        return 1;
    }
    // Gives the room back too.
    void clear() {
        items_.clear();
        std::vector<Slot>().swap( index_ );
    }
    // Gives back the index's room grown beyond the members.
    void shrinkToFit() {
        const size_t capacity =
            std::max<size_t>( 16, std::bit_ceil( items_.size() * 2 ) );
        if ( capacity < index_.size() ) {
            doRehash( capacity );
            index_.shrink_to_fit();
        }
    }

    size_t size() const { return items_.size(); }
    bool empty() const { return items_.empty(); }
    const_iterator begin() const { return items_.begin(); }
    const_iterator end() const { return items_.end(); }

  private:
    // The index holds the keys too, so that a probe reads one array.
    struct Slot {
        K key{};
        uint32_t at = 0;  // position + 1 in items_; 0 is an empty slot
    };

    // The slot of `k`, or the empty slot where it would go.
    size_t doSlot( const K& k ) const {
        const size_t mask = index_.size() - 1;
        size_t i = KeyOf::hash( k ) & mask;
        while ( index_[i].at && !KeyOf::equal( index_[i].key, k ) ) {
            i = ( i + 1 ) & mask;
        }
        return i;
    }
    // Empties slot `i`, shifting back the slots after it that would no
    // longer be found past the gap (linear probing needs no tombstones).
    void doUnlink( size_t i ) {
        const size_t mask = index_.size() - 1;
        for ( size_t j = ( i + 1 ) & mask; index_[j].at; j = ( j + 1 ) & mask ) {
            const size_t home = KeyOf::hash( index_[j].key ) & mask;
            // Slot j may move to i unless its home lies in (i, j].
            const bool stays =
                i <= j ? ( home > i && home <= j ) : ( home > i || home <= j );
            if ( !stays ) {
                index_[i] = index_[j];
                i = j;
            }
        }
        index_[i] = Slot();
    }
    // From the old index, which holds the keys: the members are not read.
    void doRehash( size_t capacity ) {
        std::vector<Slot> old( capacity, Slot() );
        old.swap( index_ );
        const size_t mask = capacity - 1;
        for ( const Slot& slot : old ) {
            if ( slot.at ) {
                size_t i = KeyOf::hash( slot.key ) & mask;
                while ( index_[i].at ) {
                    i = ( i + 1 ) & mask;
                }
                index_[i] = slot;
            }
        }
    }

    CspfChunkedVector<value_type> items_;
    std::vector<Slot> index_;
};

}  // namespace Cspf
