// Names that become path components of the state tree.
//
// Client names, VRF names and interface names end up as directory or file
// names under the tree's root. A name that could climb out of its directory
// ("..", "a/b"), hide (".", ".hidden": listings skip dot names), or garble a listing
// (control characters) is refused where it enters, with a NameError that says what was
// wrong.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Platform {

constexpr size_t kMaxPathComponentLength = 100;

// Throws NameError "invalid <what> name '<name>': <reason>" unless `name` is
// non-empty, at most kMaxPathComponentLength bytes, has no '/', does not start
// with '.', and has no control characters (bytes below 0x20 and 0x7f).
void validatePathComponent( std::string_view name, std::string_view what );

bool isValidPathComponent( std::string_view name );

// `name` fit for one line of an error text: control characters and '\' as
// \xNN escapes, cut after 100 bytes with "...".
std::string printableName( std::string_view name );

}  // namespace Platform
