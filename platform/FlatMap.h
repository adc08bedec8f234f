// Platform::FlatMap: a map kept as a vector of pairs in insertion order.
//
// The map counterpart of FlatSet, for the small maps a computation builds by
// the thousand (a settled router's equal-cost last links): no allocation per
// member, no hashing, a deterministic iteration order. Lookup is a linear
// search.
#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

namespace Platform {

template <typename K, typename V>
class FlatMap {
  public:
    using value_type = std::pair<K, V>;
    using iterator = typename std::vector<value_type>::iterator;
    using const_iterator = typename std::vector<value_type>::const_iterator;

    // Inserts unless `k` is present: the member and whether it was added.
    std::pair<iterator, bool> emplace( const K& k, const V& v ) {
        auto it = find( k );
        if ( it != items_.end() ) {
            return { it, false };
        }
        items_.emplace_back( k, v );
        return { items_.end() - 1, true };
    }
    void insert_or_assign( const K& k, const V& v ) {
        auto [it, added] = emplace( k, v );
        if ( !added ) {
            it->second = v;
        }
    }
    iterator find( const K& k ) {
        return std::find_if( items_.begin(), items_.end(),
                             [&]( const value_type& m ) { return m.first == k; } );
    }
    const_iterator find( const K& k ) const {
        return std::find_if( items_.begin(), items_.end(),
                             [&]( const value_type& m ) { return m.first == k; } );
    }
    size_t count( const K& k ) const { return find( k ) != items_.end() ? 1 : 0; }
    size_t erase( const K& k ) {
        auto it = find( k );
        if ( it == items_.end() ) {
            return 0;
        }
        items_.erase( it );
        return 1;
    }
    void clear() { items_.clear(); }
    size_t size() const { return items_.size(); }
    bool empty() const { return items_.empty(); }
    const_iterator begin() const { return items_.begin(); }
    const_iterator end() const { return items_.end(); }

    // Equal members, whatever their order.
    bool operator==( const FlatMap& other ) const {
        if ( items_.size() != other.items_.size() ) {
            return false;
        }
        for ( const value_type& m : items_ ) {
            auto it = other.find( m.first );
            if ( it == other.end() || !( it->second == m.second ) ) {
                return false;
            }
        }
        return true;
    }

  private:
    std::vector<value_type> items_;
};

}  // namespace Platform
