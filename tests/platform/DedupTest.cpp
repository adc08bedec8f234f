// Dedup tables: find-or-insert, removal at the last reference, and the
// notifications that tie per-content state to a handle's life. Life-time
// notifiers are tested through the constraint table (tests/root).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Dedup.h"

using namespace Platform;

namespace {

class NameHandle : public DedupHandle {
  public:
    explicit NameHandle( std::string n ) : name( std::move( n ) ) {}
    const char* fwkType() const override { return "NameHandle"; }
    uint32_t hash() const override { return hashOf( name ); }
    bool compare( const DedupHandle& o ) const override {
        return name == static_cast<const NameHandle&>( o ).name;
    }
    // Collide deliberately so that bucket chains are exercised.
    static uint32_t hashOf( const std::string& n ) { return n.empty() ? 0 : n[0]; }
    std::string name;
};

struct Log : DedupTableNotifiee {
    void handleInsert( DedupHandle& h ) override {
        events.push_back( "+" + static_cast<NameHandle&>( h ).name );
        // A notifiee may take and drop references during the notification.
        Ptr<DedupHandle> keep( &h );
    }
    void handleRemove( DedupHandle& h ) override {
        events.push_back( "-" + static_cast<NameHandle&>( h ).name );
        Ptr<DedupHandle> keep( &h );
    }
    void handleNotificationStop( DedupHashTable& ) override {
        events.push_back( "stop" );
    }
    std::vector<std::string> events;
};

Ptr<DedupHandle> byContent( DedupHashTable& t, const std::string& name ) {
    return t.findOrInsert(
        NameHandle::hashOf( name ),
        [&]( const DedupHandle& h ) {
            return static_cast<const NameHandle&>( h ).name == name;
        },
        [&] { return Ptr<DedupHandle>( new NameHandle( name ) ); } );
}

TEST( Dedup, EqualContentSharesOneHandleUntilTheLastReference ) {
    Log log;
    Ptr<DedupHashTable> t( new DedupHashTable );
    t->notifieeIs( &log );
    Ptr<DedupHandle> a = byContent( *t, "red" );
    Ptr<DedupHandle> b = t->dedup( Ptr<DedupHandle>( new NameHandle( "red" ) ) );
    Ptr<DedupHandle> c = byContent( *t, "rose" );  // same bucket, other content
    EXPECT_EQ( a, b );  // the candidate that lost was dropped unlinked
    EXPECT_NE( a, c );
    EXPECT_EQ( t->size(), 2u );
    a.reset();
    EXPECT_EQ( t->size(), 2u );  // b still holds "red"
    b.reset();
    EXPECT_EQ( t->size(), 1u );
    c.reset();
    EXPECT_EQ( log.events,
               ( std::vector<std::string>{ "+red", "+rose", "-red", "-rose" } ) );
}

TEST( Dedup, GrowsAndFindsEveryHandle ) {
    Ptr<DedupHashTable> t( new DedupHashTable );
    std::vector<Ptr<DedupHandle>> held;
    for ( int i = 0; i < 1000; ++i ) {
        held.push_back( byContent( *t, "n" + std::to_string( i ) ) );
    }
    for ( int i = 0; i < 1000; ++i ) {
        EXPECT_EQ( byContent( *t, "n" + std::to_string( i ) ), held[i] );
    }
    size_t visited = 0;
    t->forEach( [&]( const DedupHandle& ) { ++visited; } );
    EXPECT_EQ( visited, 1000u );
    held.clear();
    EXPECT_EQ( t->size(), 0u );
}

TEST( Dedup, HandlesOutliveTheirTable ) {
    Log log;
    Ptr<DedupHashTable> t( new DedupHashTable );
    t->notifieeIs( &log );
    Ptr<DedupHandle> h = byContent( *t, "gold" );
    t.reset();
    EXPECT_FALSE( h->linked() );
    h.reset();  // no removal notification: the table is gone
    EXPECT_EQ( log.events, ( std::vector<std::string>{ "+gold", "stop" } ) );
}

}  // namespace
