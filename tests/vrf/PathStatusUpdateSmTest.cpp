// The publisher of a path's result: when it asks for a computation, when it
// writes, and what the client's record holds after each write.
#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/StateTree.h"
#include "records/Client.h"
#include "root/DedupConstraintTable.h"
#include "tests/support/ShmTableKit.h"
#include "tests/support/TempDir.h"
#include "tests/support/Traces.h"
#include "vrf/ConstraintInfoTableNotifiee.h"
#include "vrf/PathStatusUpdateSm.h"

using namespace Cspf;
using Net::IpGenAddr;
using Platform::Ptr;

namespace {

Ptr<PathArray> hops( std::initializer_list<const char*> addrs ) {
    auto array = Platform::create<PathArray>();
    for ( const char* a : addrs ) {
        array->pathIs( HopIndex::fromWide( array->length() ), IpGenAddr( a ) );
    }
    return array;
}

class PathStatusUpdateSmTest : public ::testing::Test {
  protected:
    void SetUp() override {
        status_ = Platform::create<Status>(
            tmp_.tree, nullptr,
            pathStatusTablePath( L3::VrfName( "red" ), Net::AddressFamily::ipv4,
                                 "te1" ) );
        constraints_->dedupTableNotifieeIs( notifiee_.get() );
        handle_ = constraints_->dedup( DedupConstraintContent() );
        constraintInfo_ = infos_->constraintInfo( handle_.ptr() );
        info_ = Platform::create<PathStatusInfo>( key_, status_ );
        info_->constraintIs( handle_ );
    }
    Ptr<PathStatusUpdateSm> makeSm() {
        return Platform::create<PathStatusUpdateSm>( info_, cache_, constraintInfo_ );
    }
    void pending( uint32_t reason ) {
        info_->refreshReasonIs( reason );
        info_->refreshNeededIs( true );
    }
    void computed( Ptr<PathArray> path ) {
        cache_->pathIs( path );
        cache_->refreshedCountInc();
    }
    PathStatus record() const { return status_->pathStatus( key_.pathKey() ); }
    void seed( Ptr<PathArray> path, uint32_t changeCount, uint32_t respSeq ) {
        PathStatus s;
        s.key = key_.pathKey();
        s.changeCount = changeCount;
        s.refreshRespSeq = respSeq;
        s.lastUpdated = 1.5;
        s.hops.set( path->pathColl().data(), path->length() );
        status_->pathStatusIs( s );
        cache_->pathIs( path );
    }
    bool traced( const std::string& line ) const { return traces_.has( line ); }

    Platform::ManualClockScope clock_;
    TestKit::TempTree tmp_{ "pathstatusupdate" };
    TestKit::TraceCapture traces_;
    Ptr<Status> status_;
    Ptr<ConstraintInfoTable> infos_ = Platform::create<ConstraintInfoTable>();
    Ptr<ConstraintInfoTableNotifiee> notifiee_ =
        Platform::create<ConstraintInfoTableNotifiee>( infos_ );
    Ptr<DedupConstraintTable> constraints_ = Platform::create<DedupConstraintTable>();
    Ptr<DedupConstraint> handle_;
    Ptr<ConstraintInfo> constraintInfo_;
    const PathInfoKey key_{ "te1", PathKey( IpGenAddr( "10.0.0.1" ), 7 ) };
    Ptr<PathStatusInfo> info_;
    Ptr<PathStatusCache> cache_ = Platform::create<PathStatusCache>( key_ );
};

}  // namespace

TEST_F( PathStatusUpdateSmTest, FirstResultIsWrittenAfterItsComputationOnly ) {
    info_->lastRefreshReqSeqIs( 3 );
    pending( refreshReasonConfigChanged );
    auto sm = makeSm();  // a refresh pending before the reactor is acted on
    EXPECT_EQ( constraintInfo_->cspfRequestCount(), 1u );
    EXPECT_FALSE( status_->pathStatusHas( key_.pathKey() ) );
    EXPECT_TRUE( info_->refreshNeeded() );

    clock_->advance( 2 );
    computed( nullptr );  // no path found
    const PathStatus first = record();
    EXPECT_EQ( first.hops.size(), 0u );
    EXPECT_EQ( first.changeCount, 1u );
    EXPECT_EQ( first.refreshRespSeq, 3u );
    EXPECT_EQ( first.lastUpdated, 1002.0 );
    EXPECT_EQ( info_->refreshReason(), 0u );
    EXPECT_FALSE( info_->refreshNeeded() );
    EXPECT_EQ( constraintInfo_->cspfRequestCount(), 1u );

    // Another path's computation refreshes this cache: nothing is pending here.
    clock_->advance( 2 );
    computed( hops( { "10.1.0.1" } ) );
    EXPECT_EQ( record(), first );
}

TEST_F( PathStatusUpdateSmTest, ExplicitRefreshAloneIsAnsweredWithoutComputation ) {
    seed( hops( { "10.1.0.1", "10.1.0.2" } ), 2, 4 );
    auto sm = makeSm();
    info_->lastRefreshReqSeqIs( 5 );
    pending( refreshReasonExplicit );
    EXPECT_EQ( constraintInfo_->cspfRequestCount(), 0u );
    EXPECT_EQ( record().changeCount, 3u );
    EXPECT_EQ( record().refreshRespSeq, 5u );
    EXPECT_FALSE( info_->refreshNeeded() );

    // With a topology reason as well, the answer waits for the computation.
    info_->lastRefreshReqSeqIs( 6 );
    pending( refreshReasonExplicit | refreshReasonTopoChanged );
    EXPECT_EQ( constraintInfo_->cspfRequestCount(), 1u );
    EXPECT_EQ( record().changeCount, 3u );
    computed( hops( { "10.1.0.1", "10.1.0.3" } ) );
    EXPECT_EQ( record().hops[HopIndex( 1 )], IpGenAddr( "10.1.0.3" ) );
    EXPECT_EQ( record().changeCount, 4u );
    EXPECT_EQ( record().refreshRespSeq, 6u );
}

// Our own table, but others can write into it: a record that does not decode
// (1025 hops) is read as none and written anew (the table's corruption
// handler is told; here it goes to stderr).
TEST_F( PathStatusUpdateSmTest, RecordThatDoesNotDecodeIsWrittenAnew ) {
    seed( hops( { "10.1.0.1", "10.1.0.2" } ), 2, 4 );
    const std::string file = tmp_.tree.filePath( status_->statePath() );
    const auto slots = TestKit::liveSlots( TestKit::readFile( file ) );
    ASSERT_EQ( slots.size(), 1u );
    const auto value = TestKit::load<uint64_t>( TestKit::readFile( file ),
                                                slots.begin()->second.offset + 16 );
    const uint32_t tooMany = 1025;
    ASSERT_TRUE( TestKit::patchFile( file, value + 40, &tooMany, 4 ) );

    auto sm = makeSm();
    info_->lastRefreshReqSeqIs( 5 );
    pending( refreshReasonExplicit );
    EXPECT_FALSE( info_->refreshNeeded() );
    EXPECT_EQ( record().hops.size(), 2u );
    EXPECT_EQ( record().changeCount, 1u );
    EXPECT_EQ( record().refreshRespSeq, 5u );
}

TEST_F( PathStatusUpdateSmTest, EveryWriteRaisesChangeCountByExactlyOne ) {
    auto sm = makeSm();
    const std::vector<Ptr<PathArray>> results = {
        hops( { "10.1.0.1" } ), hops( { "10.1.0.1", "10.2.0.1" } ),
        hops( { "10.1.0.1", "10.2.0.2" } ), hops( {} ) };
    Ptr<PathArray> previous;
    uint32_t writes = 0;
    double lastWrite = 0;
    for ( int i = 0; i < 60; ++i ) {
        clock_->advance( 0.5 );
        // Every third computation gives the hops the client already has, in
        // a new array.
        const bool same = i % 3 == 2;
        Ptr<PathArray> result = results[i % 4];
        if ( same ) {
            result = Platform::create<PathArray>();
            for ( const IpGenAddr& hop : previous->pathColl() ) {
                result->pathIs( HopIndex::fromWide( result->length() ), hop );
            }
        }
        pending( refreshReasonTopoChanged );
        computed( result );
        if ( !same ) {
            ++writes;
            lastWrite = Platform::now();
        }
        ASSERT_EQ( record().changeCount, writes ) << i;
        ASSERT_EQ( record().lastUpdated, lastWrite ) << i;
        previous = result;
    }
    EXPECT_EQ( writes, 40u );
}

TEST_F( PathStatusUpdateSmTest, RecordThenLengthThenHopsThenSequenceDecide ) {
    auto sm = makeSm();
    traces_.clear();
    const std::string check =
        "bool Cspf::PathStatusUpdateSm::isPathUpdateRequired() const: ";
    EXPECT_TRUE( sm->isPathUpdateRequired() );
    EXPECT_TRUE( traced( check +
                         "Path Status didn't previously exist for path: 10.0.0.1 from "
                         "client: te1" ) );

    seed( hops( { "10.1.0.1", "10.1.0.2" } ), 1, 0 );
    info_->lastRefreshReqSeqIs( 9 );
    cache_->pathIs( hops( { "10.1.0.1", "10.1.0.3", "10.1.0.4" } ) );
    traces_.clear();
    EXPECT_TRUE( sm->isPathUpdateRequired() );
    EXPECT_TRUE( traced( check + "Path array lengths from cache: 3 from shmtab: 2" ) );
    EXPECT_EQ( traces_.lines.size(), 2u );  // the check's first line and the length

    cache_->pathIs( hops( { "10.1.0.1", "10.1.0.3" } ) );
    traces_.clear();
    EXPECT_TRUE( sm->isPathUpdateRequired() );
    EXPECT_TRUE(
        traced( check + "Path status hop 1 10.1.0.2 differs from cache: 10.1.0.3" ) );
    EXPECT_EQ( traces_.lines.size(), 2u );  // the sequence was not looked at

    cache_->pathIs( hops( { "10.1.0.1", "10.1.0.2" } ) );
    EXPECT_TRUE( sm->isPathUpdateRequired() );
    EXPECT_TRUE( traced(
        check + "RefreshReqSeq needs updation for path: 10.0.0.1 from client: te1" ) );
    info_->lastRefreshReqSeqIs( 0 );
    EXPECT_FALSE( sm->isPathUpdateRequired() );

    // Reached through a publication, the check's lines name it all the same.
    info_->lastRefreshReqSeqIs( 9 );
    traces_.clear();
    pending( refreshReasonExplicit );
    EXPECT_TRUE(
        traced( "void Cspf::PathStatusUpdateSm::handleRefreshNeeded(): Explicit "
                "path refresh request for 10.0.0.1 from client: te1" ) );
    EXPECT_TRUE( traced(
        check + "RefreshReqSeq needs updation for path: 10.0.0.1 from client: te1" ) );
    EXPECT_TRUE(
        traced( "void Cspf::PathStatusUpdateSm::publishPathStatus(): Wrote new path "
                "status for path: 10.0.0.1 for client: te1 ChangeCount: 2 "
                "RefreshRespSeq: 9" ) );
}

TEST( PathStatusUpdateSmDeathTest, PendingRefreshWithoutAKnownReasonStops ) {
    const PathInfoKey key( "te1", PathKey( IpGenAddr( "10.0.0.1" ), 1 ) );
    auto info = Platform::create<PathStatusInfo>( key, nullptr );
    auto cache = Platform::create<PathStatusCache>( key );
    auto constraintInfo = Platform::create<ConstraintInfo>( nullptr, nullptr );
    for ( uint32_t reason : { 0u, 0x8u } ) {
        info->refreshReasonIs( reason );
        info->refreshNeededIs( true );
        EXPECT_DEATH( Platform::create<PathStatusUpdateSm>( info, cache, constraintInfo ),
                      "explicitRefresh" );
    }
}
