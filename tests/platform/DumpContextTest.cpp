// Dump output: the indentation rule, children, duplicates and limits.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/DumpText.h"

using namespace Platform;

namespace {

struct Node {
    std::string name;
    std::vector<const Node*> children;
    void dumpState( DumpContext& ctx, unsigned indent ) const {
        objDumpLine( ctx, indent, "Node %s\n", name.c_str() );
        for ( const Node* c : children ) {
            ObjDumpChild( c, ctx, indent + 2 );
        }
    }
};

TEST( DumpContext, IndentationRuleChildrenAndLongLines ) {
    Node leaf{ "leaf", {} };
    Node mid{ "mid", { &leaf } };
    Node root{ "root", { &mid, &leaf } };
    const std::string big( 3000, 'x' );
    EXPECT_EQ( TestKit::dumpWith( [&]( DumpContext& ctx ) {
                   ctx.dumpDuplicatesIs( true );
                   ObjDumpChild( &root, ctx, 0 );
                   objDumpLine( ctx, 3, "%s: %s%s\n", "Last Updated ", "1.5s", " ago\n" );
                   objDumpPrintf( ctx, "%s\n", big.c_str() );  // long lines are not cut
               } ),
               "Node root\n  Node mid\n    Node leaf\n  Node leaf\n"
               "   Last Updated : 1.5s ago\n\n" +
                   big + "\n" );
}

TEST( DumpContext, DuplicatesSkippedUnlessAskedForAndLimitsHold ) {
    Node leaf{ "leaf", {} };
    Node root{ "root", { &leaf, &leaf } };
    EXPECT_EQ(
        TestKit::dumpWith( [&]( DumpContext& ctx ) { ObjDumpChild( &root, ctx, 0 ); } ),
        "Node root\n  Node leaf\n" );

    Node deep{ "deep", { &root } };
    // Depth 2 stops before the leaves; 20 bytes cut the rest.
    EXPECT_EQ( TestKit::dumpWith(
                   [&]( DumpContext& ctx ) {
                       ctx.dumpDuplicatesIs( true );
                       ObjDumpChild( &deep, ctx, 0 );
                   },
                   2, 20 ),
               "Node deep\n  Node roo" );
}

}  // namespace
