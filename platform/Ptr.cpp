#include "platform/Ptr.h"

#include "platform/Error.h"

namespace Platform {

void throwNullValidPtr() {
    throw RangeError( "null ValidPtr" );
}

}  // namespace Platform
