// Client registrations: names, collections and the table paths built from them.
#include <gtest/gtest.h>

#include "platform/Error.h"
#include "records/Client.h"

using namespace Cspf;

TEST( Client, RegistrationListsVrfsAndFamiliesAndBuildsTablePaths ) {
    auto c = Platform::create<Client>( "rsvp" );
    int vrfChanges = 0;
    auto sub = Platform::subscribe( c.get(), Client::vrfTag,
                                    [&]( const L3::VrfName& ) { ++vrfChanges; } );
    c->vrfIs( L3::VrfName( "red" ), true );
    c->vrfIs( L3::VrfName(), true );
    c->vrfIs( L3::VrfName( "red" ), true );
    c->addressFamilyIs( Net::AddressFamily::ipv4, true );
    EXPECT_EQ( vrfChanges, 2 );
    EXPECT_EQ( c->toString(),
               "Value('Cspf::Client', ** {'name': rsvp, 'vrf': [default, red], "
               "'addressFamily': [ipv4]})" );
    EXPECT_EQ(
        pathConfigTablePath( L3::VrfName( "red" ), Net::AddressFamily::ipv6, "rsvp" ),
        "te/cspf/config/vrf/red/ipv6/rsvp" );
    EXPECT_EQ( pathStatusTablePath( L3::VrfName(), Net::AddressFamily::ipv4, "rsvp" ),
               "te/cspf/status/vrf/default/ipv4/rsvp" );
}

TEST( Client, NamesThatCannotBePathComponentsAreRefused ) {
    for ( const char* bad : { "", "..", "a/b", "tab\there" } ) {
        EXPECT_THROW( Platform::create<Client>( bad ), Platform::NameError ) << bad;
    }
}
