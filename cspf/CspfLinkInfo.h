// Cspf::CspfLinkInfo: the record a CSPF run keeps under a CspfLinkInfoKey, in
// its tentative list and in a settled router's last links. The key is all it
// holds, so equality, emptiness and hash are the key's.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <iterator>
#include <string>
#include <string_view>

#include "cspf/CspfLinkInfoKey.h"

namespace Cspf {

class CspfLinkInfo {
  public:
    // The empty info: the empty key, cost 0. It stands for the source.
    CspfLinkInfo() = default;
    explicit CspfLinkInfo( const CspfLinkInfoKey& key ) : cspfLinkInfoKey_( key ) {}
    // Reads the string form back; any failure raises DeserializationError.
    explicit CspfLinkInfo( std::string_view text );
    template <std::input_iterator It>
    requires std::same_as < std::iter_value_t<It>,
    char > CspfLinkInfo( It begin, It end )
        : CspfLinkInfo( std::string_view( std::string( begin, end ) ) ) {}

    const CspfLinkInfoKey& cspfLinkInfoKey() const { return cspfLinkInfoKey_; }
    uint32_t cost() const { return cspfLinkInfoKey_.cost(); }

    bool operator==( const CspfLinkInfo& other ) const = default;
    bool operator!() const { return !cspfLinkInfoKey_; }
    uint32_t hash() const { return cspfLinkInfoKey_.hash(); }

    // "Value('Cspf::CspfLinkInfo', ** {'cspfLinkInfoKey': <key>})"
    std::string toString() const;

  private:
    CspfLinkInfoKey cspfLinkInfoKey_;
};

std::ostream& operator<<( std::ostream& os, const CspfLinkInfo& info );

}  // namespace Cspf

template <>
struct std::hash<Cspf::CspfLinkInfo> {
    size_t operator()( const Cspf::CspfLinkInfo& info ) const { return info.hash(); }
};
