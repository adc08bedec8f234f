// Keyed collections of the runtime: a hash and an ordered variant over one
// interface, used by the collection declarations of Attribute.h.
#pragma once

#include <functional>
#include <map>
#include <type_traits>
#include <unordered_map>
#include <vector>

namespace Platform {

// Hash of a key: its own `hash()` when it has one, else std::hash.
template <typename K>
struct Hash {
    size_t operator()( const K& k ) const noexcept {
        if constexpr ( requires { k.hash(); } ) {
            return static_cast<size_t>( k.hash() );
        } else {
            return std::hash<K>()( k );
        }
    }
};

template <typename K, typename V, typename Map>
class BasicColl {
  public:
    using key_type = K;
    using mapped_type = V;
    using const_iterator = typename Map::const_iterator;

    // The value under `k`, or a default value when absent.
    V get( const K& k ) const {
        auto it = map_.find( k );
        return it == map_.end() ? V() : it->second;
    }
    const V* find( const K& k ) const {
        auto it = map_.find( k );
        return it == map_.end() ? nullptr : &it->second;
    }
    bool has( const K& k ) const { return map_.find( k ) != map_.end(); }
    size_t size() const { return map_.size(); }
    bool empty() const { return map_.empty(); }

    // Inserts or replaces; true when something changed.
    bool set( const K& k, const V& v ) {
        auto [it, inserted] = map_.try_emplace( k, v );
        if ( inserted ) {
            return true;
        }
        if ( it->second == v ) {
            return false;
        }
        it->second = v;
        return true;
    }
    bool erase( const K& k ) { return map_.erase( k ) != 0; }
    std::vector<K> keys() const {
        std::vector<K> out;
        out.reserve( map_.size() );
        for ( const auto& kv : map_ ) {
            out.push_back( kv.first );
        }
        return out;
    }

    const_iterator begin() const { return map_.begin(); }
    const_iterator end() const { return map_.end(); }

  private:
    Map map_;
};

template <typename K, typename V>
using HashColl = BasicColl<K, V, std::unordered_map<K, V, Hash<K>>>;
template <typename K, typename V>
using OrderedColl = BasicColl<K, V, std::map<K, V>>;

}  // namespace Platform
