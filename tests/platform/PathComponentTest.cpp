#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/PathComponent.h"

using Platform::isValidPathComponent;
using Platform::validatePathComponent;

namespace {

std::string refusal( std::string_view name, std::string_view what ) {
    try {
        validatePathComponent( name, what );
    } catch ( const Platform::NameError& e ) {
        EXPECT_FALSE( isValidPathComponent( name ) );
        return e.what();
    }
    ADD_FAILURE() << "accepted '" << name << "'";
    return {};
}

}  // namespace

TEST( PathComponent, AcceptsOrdinaryNamesUpToTheBound ) {
    for ( std::string name : std::vector<std::string>{
              "default", "a", "blue-vrf_2", "a..b", "a.", "x.hidden", "vrf é",
              "with space", std::string( 100, 'x' ) } ) {
        EXPECT_NO_THROW( validatePathComponent( name, "VRF" ) ) << name;
        EXPECT_TRUE( isValidPathComponent( name ) ) << name;
    }
}

TEST( PathComponent, RefusesNamesThatEscapeHideOrGarble ) {
    EXPECT_EQ( refusal( "/", "VRF" ), "invalid VRF name '/': contains '/'" );
    EXPECT_EQ( refusal( "", "client" ), "invalid client name '': is empty" );
    EXPECT_EQ( refusal( ".", "client" ),
               "invalid client name '.': is a relative directory name" );
    EXPECT_EQ( refusal( "..", "client" ),
               "invalid client name '..': is a relative directory name" );
    // Listings and directory watches skip dot names: one would never be served.
    EXPECT_EQ( refusal( ".hidden", "client" ),
               "invalid client name '.hidden': starts with '.'" );
    EXPECT_EQ( refusal( "...", "VRF" ), "invalid VRF name '...': starts with '.'" );
    // Control characters are escaped so that the text stays on one line.
    EXPECT_EQ( refusal( "a\nb", "interface" ),
               "invalid interface name 'a\\x0ab': contains a control character" );
    EXPECT_EQ( refusal( std::string( "a\0b", 3 ), "VRF" ),
               "invalid VRF name 'a\\x00b': contains a control character" );
    EXPECT_EQ( refusal( "del\x7f", "VRF" ),
               "invalid VRF name 'del\\x7f': contains a control character" );
    std::string text = refusal( std::string( 101, 'x' ), "VRF" );
    EXPECT_EQ( text, "invalid VRF name '" + std::string( 100, 'x' ) +
                         "...': is longer than 100 bytes" );
}
