// Dump output: the indentation rule, children, duplicates and limits.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "platform/DumpContext.h"

using namespace Platform;

namespace {

// Captures what a dump writes to a pipe.
class Capture {
  public:
    Capture() { EXPECT_EQ( pipe( fds_ ), 0 ); }
    ~Capture() {
        close( fds_[0] );
        if ( fds_[1] >= 0 ) {
            close( fds_[1] );
        }
    }
    int fd() const { return fds_[1]; }
    std::string text() {
        close( fds_[1] );
        fds_[1] = -1;
        std::string out;
        char buf[4096];
        ssize_t n;
        while ( ( n = read( fds_[0], buf, sizeof( buf ) ) ) > 0 ) {
            out.append( buf, static_cast<size_t>( n ) );
        }
        return out;
    }

  private:
    int fds_[2];
};

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

TEST( DumpContext, IndentationRuleAndChildren ) {
    Node leaf{ "leaf", {} };
    Node mid{ "mid", { &leaf } };
    Node root{ "root", { &mid, &leaf } };
    Capture cap;
    {
        DumpContext ctx( cap.fd() );
        ctx.dumpDuplicatesIs( true );
        ObjDumpChild( &root, ctx, 0 );
        objDumpLine( ctx, 3, "%s: %s%s\n", "Last Updated ", "1.5s", " ago\n" );
    }
    EXPECT_EQ( cap.text(),
               "Node root\n  Node mid\n    Node leaf\n  Node leaf\n"
               "   Last Updated : 1.5s ago\n\n" );
}

TEST( DumpContext, DuplicatesSkippedUnlessAskedForAndLimitsHold ) {
    Node leaf{ "leaf", {} };
    Node root{ "root", { &leaf, &leaf } };
    Capture cap;
    {
        DumpContext ctx( cap.fd() );
        ObjDumpChild( &root, ctx, 0 );
    }
    EXPECT_EQ( cap.text(), "Node root\n  Node leaf\n" );

    Node deep{ "deep", { &root } };
    Capture capped;
    {
        DumpContext ctx( capped.fd(), 2, 20 );
        ctx.dumpDuplicatesIs( true );
        ObjDumpChild( &deep, ctx, 0 );
    }
    // Depth 2 stops before the leaves; 20 bytes cut the rest.
    EXPECT_EQ( capped.text(), "Node deep\n  Node roo" );
}

TEST( DumpContext, LongLinesAreNotCut ) {
    std::string big( 3000, 'x' );
    Capture cap;
    {
        DumpContext ctx( cap.fd() );
        objDumpPrintf( ctx, "%s\n", big.c_str() );
    }
    EXPECT_EQ( cap.text(), big + "\n" );
}

}  // namespace
