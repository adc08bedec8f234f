// Cspf::PathInfoKey: the agent-wide key of one path request, the client's name
// with the client's own PathKey, so that equal keys of two clients stay apart.
//
// Every per-path table, reactor collection and constraint path set of a VRF
// is keyed by it, a hundred thousand times over, so a key is cheap to copy,
// hash and compare: the client name is interned (one shared, immutable copy
// per distinct name, with its hash computed once), and a key is a pointer and
// a PathKey. Interning is not thread safe, like the rest of the runtime.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <iterator>
#include <string>
#include <string_view>

#include "platform/Ptr.h"
#include "records/PathKey.h"

namespace Cspf {

// One interned client name. Only PathInfoKey makes them.
class InternedClientName : public Platform::RefCounted {
  public:
    const std::string& text() const { return text_; }
    uint32_t hash() const { return hash_; }

    // The one copy of `name`, made on first use.
    static Platform::Ptr<const InternedClientName> intern( std::string_view name );

  protected:
    void lastRefGone() override;

  private:
    InternedClientName( std::string_view text, uint32_t hash )
        : text_( text ), hash_( hash ) {}
    const std::string text_;
    const uint32_t hash_;
};

class PathInfoKey {
  public:
    // The empty key: empty name, default PathKey. It tests false.
    PathInfoKey() = default;
    PathInfoKey( std::string_view clientName, const PathKey& pathKey );
    // Reads the string form back; raises DeserializationError naming
    // "pathInfoKey" (or the PathKey's own attribute for a bad path key). A
    // destination printed as 0.0.0.0 reads as the unset address.
    explicit PathInfoKey( std::string_view text );
    template <std::input_iterator It>
    requires std::same_as < std::iter_value_t<It>,
    char > PathInfoKey( It begin, It end )
        : PathInfoKey( std::string_view( std::string( begin, end ) ) ) {}

    const std::string& clientName() const;
    const PathKey& pathKey() const { return pathKey_; }

    explicit operator bool() const { return name_ || !( pathKey_ == PathKey() ); }

    bool operator==( const PathInfoKey& other ) const {
        return name_ == other.name_ && pathKey_ == other.pathKey_;
    }
    // By client name, then by the PathKey's own order.
    bool operator<( const PathInfoKey& other ) const;
    uint32_t hash() const;

    // "Value('Cspf::PathInfoKey', ** {'clientName': c1, 'pathKey': <PathKey>})"
    std::string toString() const;

  private:
    // Null for the empty name, so that default keys allocate nothing.
    Platform::Ptr<const InternedClientName> name_;
    PathKey pathKey_;
};

std::ostream& operator<<( std::ostream& os, const PathInfoKey& key );

}  // namespace Cspf

template <>
struct std::hash<Cspf::PathInfoKey> {
    size_t operator()( const Cspf::PathInfoKey& key ) const { return key.hash(); }
};
