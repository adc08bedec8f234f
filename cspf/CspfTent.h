// Cspf::CspfTent: the tentative list of a run, a priority queue of candidate
// links in CspfLinkInfoKey order that can also be asked for a key.
//
// A run takes links out in non-decreasing cost and puts in none cheaper
// than the last one taken, which a radix queue serves best: a member waits in
// the bucket of the highest bit in which its cost differs from the last cost
// taken, and a bucket is split only when everything below it is gone. Members
// of the current cost (bucket 0) are kept sorted in full tent order. A member
// cheaper than the last cost taken is still served right: the buckets are
// then laid out again around it.
//
// Buckets hold 24-byte entries: a word of the cost, the kind of link and the
// pool position, and two words that order like the start of the key within
// one kind, so that most comparisons are integer compares; only keys that
// agree on all three words are compared in full. The members sit in a pool with an
// open-addressing index that answers has() and find(). A member taken out
// from the middle (erase) is only marked, and dropped when its bucket is
// split or it comes to the front; the front is never such a member.
//
// The key order is total over the keys a run builds (equivalent keys are
// equal), so the members come out in exactly the order of an ordered map of
// the same keys.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "cspf/CspfChunkedVector.h"
#include "cspf/CspfLinkInfo.h"
#include "cspf/CspfLinkInfoKey.h"

namespace Cspf {

class CspfTent {
  public:
    // Adds unless the key is there; whether it was added.
    bool insert( const CspfLinkInfo& info );
    const CspfLinkInfo* find( const CspfLinkInfoKey& key ) const;
    bool has( const CspfLinkInfoKey& key ) const { return doFind( key ) != kNone; }
    // The smallest member; the tent must not be empty.
    const CspfLinkInfo& first() const;
    // Takes the smallest member out; the tent must not be empty.
    CspfLinkInfo takeFirst();
    // Whether the key was there.
    bool erase( const CspfLinkInfoKey& key );
    // Empties the tent and gives its storage back.
    void clear();
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    // The members in key order: a sorted copy, for tests and diagnostics.
    std::vector<CspfLinkInfo> inOrder() const;

  private:
    static constexpr uint32_t kNone = UINT32_MAX;
    static constexpr unsigned kPoolBits = 30;
    static constexpr uint64_t kPoolMask = ( uint64_t{ 1 } << kPoolBits ) - 1;

    // Two whole cache lines: a member is written once and read once, most
    // often after it has left the caches.
    struct alignas( 128 ) Member {
        CspfLinkInfo info;
        uint32_t hash = 0;
    };
    // An index entry: the hash beside the position, so that a probe reads
    // the pool only for a likely match.
    struct Slot {
        uint32_t at = 0;  // pool position + 1; 0 is an empty entry
        uint32_t hash = 0;
    };

    struct Entry {
        // Cost, then the kind in tent order (LAN, point-to-point, behind a
        // LAN), then the pool position, which decides nothing.
        uint64_t word;
        // Within one cost and kind, order as the key does where they differ
        // (and say nothing where equal): the router behind the LAN for that
        // kind; else the level and the advertising router, then the far
        // router or LAN.
        uint64_t prefix;
        uint64_t prefix2;
    };

    static uint32_t doHash( const CspfLinkInfoKey& key );
    static Entry doEntry( const CspfLinkInfoKey& key, uint32_t at );
    bool doBefore( const Entry& a, const Entry& b ) const {
        if ( ( a.word ^ b.word ) >> kPoolBits ) {
            return a.word < b.word;
        }
        if ( a.prefix != b.prefix ) {
            return a.prefix < b.prefix;
        }
        if ( a.prefix2 != b.prefix2 ) {
            return a.prefix2 < b.prefix2;
        }
        return members_[a.word & kPoolMask].info.cspfLinkInfoKey() <
               members_[b.word & kPoolMask].info.cspfLinkInfoKey();
    }
    static uint32_t doCost( const Entry& e ) { return uint32_t( e.word >> 32 ); }
    // The bucket of a cost: 0 for the last cost taken, else one more than
    // the highest bit in which the two differ.
    unsigned doBucket( uint32_t cost ) const {
        return cost == last_ ? 0 : 32 - unsigned( __builtin_clz( cost ^ last_ ) );
    }
    uint32_t doFind( const CspfLinkInfoKey& key ) const;
    void doUnlink( uint32_t at );
    void doRehash( size_t capacity );
    void doFree( const Entry& e ) { free_.push_back( uint32_t( e.word & kPoolMask ) ); }
    // Puts a live front in bucket 0 unless the tent is empty, splitting the
    // first bucket that holds anything live.
    void doFront();
    // Lays the buckets out again around `cost`, below every member.
    void doRebase( uint32_t cost );

    CspfChunkedVector<Member> members_;
    // Whether each pool member is in the tent, apart from the pool: bucket
    // splits test many members and read nothing else of them.
    std::vector<uint8_t> live_;
    std::vector<uint32_t> free_;
    std::vector<Slot> index_;
    static constexpr unsigned kBuckets = 33;
    std::vector<Entry> buckets_[kBuckets];
    // Bucket 0 is sorted; its members before head_ have been taken.
    size_t head_ = 0;
    uint32_t last_ = 0;
    size_t size_ = 0;
};

}  // namespace Cspf
