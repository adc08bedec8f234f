// Client registrations: the table form, what the agent reads of it, and the
// table paths built from a client's name.
#include <gtest/gtest.h>

#include "platform/Error.h"
#include "records/AgentStatus.h"
#include "records/Client.h"
#include "records/ClientStatus.h"
#include "tests/support/TempDir.h"

using namespace Cspf;

TEST( Client, RegistrationListsVrfsAndFamiliesPerEntry ) {
    TestKit::TempTree tmp( "clienttest" );
    Platform::StateTree& tree = tmp.tree;
    auto writer = Platform::create<ClientWriter>( tree, nullptr, clientPath( "rsvp" ) );
    auto client = Platform::create<Client>( tree, nullptr, clientPath( "rsvp" ) );
    std::vector<ClientEntry> changed;
    auto sub =
        Platform::subscribe( client.get(), Client::recordTag,
                             [&]( const ClientEntry& e ) { changed.push_back( e ); } );
    writer->vrfIs( L3::VrfName( "red" ) );
    writer->vrfIs( L3::VrfName() );
    writer->addressFamilyIs( Net::AddressFamily::ipv4 );
    client->sync();
    EXPECT_EQ( client->name(), "rsvp" );
    EXPECT_EQ( changed.size(), 3u );
    EXPECT_TRUE( client->vrf( L3::VrfName( "red" ) ) );
    EXPECT_FALSE( client->addressFamily( Net::AddressFamily::ipv6 ) );
    EXPECT_EQ( client->toString(),
               "Value('Cspf::Client', ** {'name': rsvp, 'vrf': [default, red], "
               "'addressFamily': [ipv4]})" );

    changed.clear();
    writer->vrfDel( L3::VrfName( "red" ) );
    client->sync();
    ASSERT_EQ( changed.size(), 1u );
    EXPECT_EQ( changed[0], ClientEntry::ofVrf( L3::VrfName( "red" ) ) );
    EXPECT_FALSE( client->vrf( L3::VrfName( "red" ) ) );
}

TEST( Client, BadEntriesAndNamesAreRefused ) {
    uint8_t key[ClientEntryRecord::keySize] = {};
    key[0] = 2;
    key[1] = 9;  // no such family
    EXPECT_THROW( ClientEntryRecord::decodeKey( key ), Platform::DeserializationError );
    key[0] = 7;  // no such kind
    EXPECT_THROW( ClientEntryRecord::decodeKey( key ), Platform::DeserializationError );
    ClientEntryRecord::encodeKey( ClientEntry::ofVrf( L3::VrfName( "blue" ) ), key );
    EXPECT_EQ( ClientEntryRecord::decodeKey( key ).vrf, L3::VrfName( "blue" ) );
    key[1] = 1;  // a VRF entry naming a family too
    EXPECT_THROW( ClientEntryRecord::decodeKey( key ), Platform::DeserializationError );
    const uint8_t flag[4] = { 2, 0, 0, 0 };
    EXPECT_THROW( AgentStatusRecord::decodeValue( flag, 4 ),
                  Platform::DeserializationError );
    EXPECT_THROW( ClientEntryRecord::decodeValue( flag, 4 ),
                  Platform::DeserializationError );
    for ( const char* bad : { "", "..", "a/b", "tab\there" } ) {
        EXPECT_THROW( clientPath( bad ), Platform::NameError ) << bad;
    }
    EXPECT_EQ(
        pathConfigTablePath( L3::VrfName( "red" ), Net::AddressFamily::ipv6, "rsvp" ),
        "te/cspf/config/vrf/red/ipv6/rsvp" );
    EXPECT_EQ( pathStatusTablePath( L3::VrfName(), Net::AddressFamily::ipv4, "rsvp" ),
               "te/cspf/status/vrf/default/ipv4/rsvp" );
}

// Why a client is not served: one line per part, cut to fit, and records no
// agent would write refused on reading.
TEST( Client, StatusSaysWhyAndRefusesWhatNoAgentWrites ) {
    std::vector<uint8_t> out;
    ClientStatusRecord::encodeValue( std::string( 5000, 'x' ), out );
    ASSERT_EQ( out.size(), ClientStatusRecord::maxValueSize );
    EXPECT_EQ( std::string( out.end() - 4, out.end() ), "...\n" );
    const uint8_t nul[3] = { 'a', 0, 'b' };
    EXPECT_THROW( ClientStatusRecord::decodeValue( nul, 3 ),
                  Platform::DeserializationError );
    uint8_t key[ClientStatusRecord::keySize] = {};
    EXPECT_THROW( ClientStatusRecord::decodeKey( key ), Platform::DeserializationError );
    ClientStatusRecord::encodeKey( "rsvp", key );
    EXPECT_EQ( ClientStatusRecord::decodeKey( key ), "rsvp" );
    key[7] = 'x';  // after the name's end
    EXPECT_THROW( ClientStatusRecord::decodeKey( key ), Platform::DeserializationError );

    TestKit::TempTree tmp( "clientstatustest" );
    auto writer =
        Platform::create<ClientStatusWriter>( tmp.tree, nullptr, kClientStatusPath );
    auto reader =
        Platform::create<ClientStatusReader>( tmp.tree, nullptr, kClientStatusPath );
    writer->reasonIs( "rsvp", "vrf red ipv4", "cannot attach: x" );
    writer->reasonIs( "rsvp", "", "not a client" );
    reader->sync();
    EXPECT_EQ( reader->get( "rsvp" ), "not a client\nvrf red ipv4: cannot attach: x\n" );
    writer->reasonDel( "rsvp", "" );
    writer->reasonDel( "rsvp", "vrf red ipv4" );
    reader->sync();
    EXPECT_FALSE( reader->has( "rsvp" ) );
}
