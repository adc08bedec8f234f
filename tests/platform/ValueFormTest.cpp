// The "Value('Type', ** {...})" string form: what the records' own tests do
// not reach, an empty field and malformed text. Nested forms are written
// and read back by every record's string form.
#include <gtest/gtest.h>

#include "platform/Error.h"
#include "platform/ValueForm.h"

using namespace Platform;

TEST( ValueForm, EmptyFieldReadsBackAndMalformedTextNamesTheAttribute ) {
    ValueForm empty( ValueFormWriter( "X" ).field( "a", "" ).str(), "X", "x" );
    EXPECT_EQ( empty.field( "a" ), "" );
    for ( const char* bad : { "", "Value('Other', ** {'a': 1})", "Value('T', ** {'a': 1}",
                              "Value('T', ** {a: 1})", "Value('T', ** {'a': (1})",
                              "Value('T', ** {'a': 1,'b': 2})" } ) {
        try {
            ValueForm f( bad, "T", "thing" );
            ADD_FAILURE() << "accepted: " << bad;
        } catch ( const DeserializationError& e ) {
            EXPECT_EQ( e.attribute(), "thing" );
        }
    }
    ValueForm f( "Value('T', ** {'a': 1})", "T", "thing" );
    EXPECT_THROW( f.field( "b" ), DeserializationError );
}
