// Net::AddressFamily: the IP family of an address, a table or a request.
//
// The numbering is part of every record that carries a family word
// (IpGenAddr): 1 is IPv4, 2 is IPv6, and 0 in such a word means "not set".
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Net {

enum class AddressFamily : uint32_t { ipv4 = 1, ipv6 = 2 };

// "ipv4" or "ipv6"; a value outside the enumeration prints as "AddressFamily(<n>)".
std::string toString( AddressFamily af );
std::ostream& operator<<( std::ostream& os, AddressFamily af );

// Reads "ipv4" or "ipv6"; anything else raises DeserializationError naming
// attribute "addressFamily".
AddressFamily parseAddressFamily( std::string_view text );

}  // namespace Net
