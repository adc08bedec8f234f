// The "Value('Type', ** {...})" string form: nesting and refusals.
#include <gtest/gtest.h>

#include "platform/Error.h"
#include "platform/ValueForm.h"

using namespace Platform;

TEST( ValueForm, WritesAndReadsNestedForms ) {
    std::string inner = ValueFormWriter( "Cspf::PathKey" )
                            .field( "destination", "10.0.0.1" )
                            .field( "id", "7" )
                            .str();
    std::string outer = ValueFormWriter( "Cspf::PathInfoKey" )
                            .field( "clientName", "rsvp" )
                            .field( "pathKey", inner )
                            .str();
    EXPECT_EQ( outer,
               "Value('Cspf::PathInfoKey', ** {'clientName': rsvp, 'pathKey': "
               "Value('Cspf::PathKey', ** {'destination': 10.0.0.1, 'id': 7})})" );
    ValueForm f( outer, "Cspf::PathInfoKey", "pathInfoKey" );
    EXPECT_EQ( f.field( "clientName" ), "rsvp" );
    EXPECT_EQ( f.field( "pathKey" ), inner );
    ValueForm empty( ValueFormWriter( "X" ).field( "a", "" ).str(), "X", "x" );
    EXPECT_EQ( empty.field( "a" ), "" );
}

TEST( ValueForm, MalformedTextNamesTheAttribute ) {
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
