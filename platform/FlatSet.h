// Platform::FlatSet: a set kept as a vector in insertion order.
//
// For the small sets a computation builds by the thousand (a router's links
// and end points): no allocation per member, no hashing, and a deterministic
// order. Membership is a linear search, so it suits sets of tens of members;
// a few hundred still cost less than the records they come from.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace Platform {

template <typename T>
class FlatSet {
  public:
    using value_type = T;
    using const_iterator = typename std::vector<T>::const_iterator;

    // Adds `value` unless present; whether it was added.
    bool insert( const T& value ) {
        if ( count( value ) ) {
            return false;
        }
        items_.push_back( value );
        return true;
    }
    size_t erase( const T& value ) {
        auto it = std::find( items_.begin(), items_.end(), value );
        if ( it == items_.end() ) {
            return 0;
        }
        items_.erase( it );
        return 1;
    }
    size_t count( const T& value ) const {
        return std::find( items_.begin(), items_.end(), value ) != items_.end() ? 1 : 0;
    }
    size_t size() const { return items_.size(); }
    bool empty() const { return items_.empty(); }
    void clear() { items_.clear(); }
    const_iterator begin() const { return items_.begin(); }
    const_iterator end() const { return items_.end(); }

    // Equal members, whatever their order.
    bool operator==( const FlatSet& other ) const {
        if ( items_.size() != other.items_.size() ) {
            return false;
        }
        for ( const T& value : items_ ) {
            if ( !other.count( value ) ) {
                return false;
            }
        }
        return true;
    }

  private:
    std::vector<T> items_;
};

}  // namespace Platform
