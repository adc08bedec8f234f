// What a call raised, for tables of bad input: the attribute that a
// DeserializationError names, the text of any other error of ours, or
// "accepted" when it raised nothing.
#pragma once

#include <string>

#include "platform/Error.h"

namespace TestKit {

template <typename F>
std::string errorOf( F fn ) {
    try {
        fn();
    } catch ( const Platform::DeserializationError& e ) {
        return e.attribute();
    } catch ( const Platform::Error& e ) {
        return e.what();
    }
    return "accepted";
}

}  // namespace TestKit
