// Platform::FlatMap: a map kept as an array of pairs in insertion order.
//
// The map counterpart of FlatSet, for the small maps a computation builds by
// the thousand (a settled router's equal-cost last links): no hashing, a
// deterministic iteration order, and with `Inline` > 0 no allocation at all
// until a member more than `Inline` comes (then all of them move to the
// heap). Lookup is a linear search. Inline members need K and V to be
// default-constructible.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Platform {

template <typename K, typename V, size_t Inline = 0>
class FlatMap {
  public:
    using value_type = std::pair<K, V>;
    using iterator = value_type*;
    using const_iterator = const value_type*;

    // Inserts unless `k` is present: the member and whether it was added.
    std::pair<iterator, bool> emplace( const K& k, const V& v ) {
        iterator it = find( k );
        if ( it != end() ) {
            return { it, false };
        }
        if ( !spilled_ && size_ < Inline ) {
            inline_[size_] = value_type( k, v );
        } else {
            if ( !spilled_ ) {
                heap_.reserve( Inline + 1 );
                heap_.assign( inline_.begin(), inline_.begin() + size_ );
                spilled_ = true;
            }
            heap_.emplace_back( k, v );
        }
        ++size_;
        return { end() - 1, true };
    }
    void insert_or_assign( const K& k, const V& v ) {
        auto [it, added] = emplace( k, v );
        if ( !added ) {
            it->second = v;
        }
    }
    iterator find( const K& k ) {
        return std::find_if( begin(), end(),
                             [&]( const value_type& m ) { return m.first == k; } );
    }
    const_iterator find( const K& k ) const {
        return std::find_if( begin(), end(),
                             [&]( const value_type& m ) { return m.first == k; } );
    }
    size_t count( const K& k ) const { return find( k ) != end() ? 1 : 0; }
    size_t erase( const K& k ) {
        iterator it = find( k );
        if ( it == end() ) {
            return 0;
        }
        std::move( it + 1, end(), it );
        --size_;
        if ( spilled_ ) {
            heap_.pop_back();
        }
        return 1;
    }
    void clear() {
        heap_.clear();
        spilled_ = false;
        size_ = 0;
    }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    iterator begin() { return spilled_ ? heap_.data() : inline_.data(); }
    iterator end() { return begin() + size_; }
    const_iterator begin() const { return spilled_ ? heap_.data() : inline_.data(); }
    const_iterator end() const { return begin() + size_; }

    // Equal members, whatever their order.
    bool operator==( const FlatMap& other ) const {
        if ( size_ != other.size_ ) {
            return false;
        }
        for ( const value_type& m : *this ) {
            auto it = other.find( m.first );
            if ( it == other.end() || !( it->second == m.second ) ) {
                return false;
            }
        }
        return true;
    }

  private:
    // The count first, beside the first inline member: a reader of one small
    // map touches as few cache lines as it can.
    uint32_t size_ = 0;
    bool spilled_ = false;
    std::array<value_type, Inline> inline_{};
    std::vector<value_type> heap_;
};

}  // namespace Platform
