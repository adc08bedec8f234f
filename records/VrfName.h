// L3::VrfName: the name of a VRF, and its fixed 64-byte record form.
//
// VRF names become path components of the state tree (one directory per VRF),
// so they follow the path component rules; they are also bounded by the record
// form, at most 63 bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

namespace L3 {

class VrfName {
  public:
    static constexpr size_t kMaxLength = 63;

    VrfName() : name_( "default" ) {}
    // Raises NameError "invalid VRF name '<name>': <reason>".
    explicit VrfName( std::string_view name );

    const std::string& name() const { return name_; }
    const std::string& toString() const { return name_; }
    bool isDefault() const { return name_ == "default"; }

    bool operator==( const VrfName& other ) const = default;
    bool operator<( const VrfName& other ) const { return name_ < other.name_; }
    // Stable across processes: FNV-1a over the name's bytes.
    uint32_t hash() const;

  private:
    std::string name_;
};

std::ostream& operator<<( std::ostream& os, const VrfName& vrf );

// The record form: a length byte and the name's bytes, the rest zero.
struct VrfNameRecord {
    uint8_t length = 0;
    char bytes[VrfName::kMaxLength] = {};

    static VrfNameRecord encode( const VrfName& vrf );
    // Never trusts the record: a length above 63, a non-zero byte after the
    // name or a name that breaks the rules raises DeserializationError
    // naming attribute "vrfName".
    VrfName decode() const;
};

static_assert( sizeof( VrfNameRecord ) == 64 );
static_assert( alignof( VrfNameRecord ) == 1 );
static_assert( std::is_standard_layout_v<VrfNameRecord> );
static_assert( std::is_trivially_copyable_v<VrfNameRecord> );

}  // namespace L3

template <>
struct std::hash<L3::VrfName> {
    size_t operator()( const L3::VrfName& vrf ) const { return vrf.hash(); }
};
