// The three reactors that turn changes into pending refreshes: a client's
// write (PathConfigInfoSm), a topology stamp (PathRefreshSm) and a change of
// constraint (PathStatusInfoSm). PathManagementScenarioTest runs them wired
// together in a VRF.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/StateTree.h"
#include "records/Client.h"
#include "root/DedupConstraintTable.h"
#include "tests/support/TempDir.h"
#include "tests/support/Traces.h"
#include "vrf/ConstraintInfoTableNotifiee.h"
#include "vrf/PathConfigInfoSm.h"
#include "vrf/PathRefreshSm.h"
#include "vrf/PathStatusInfoSm.h"

using namespace Cspf;
using Net::IpGenAddr;
using Platform::Ptr;

namespace {

class PathRefreshTest : public ::testing::Test {
  protected:
    void SetUp() override {
        const L3::VrfName vrf( "red" );
        const auto af = Net::AddressFamily::ipv4;
        writer_ = Platform::create<ConfigWriter>( tmp_.tree, nullptr,
                                                  pathConfigTablePath( vrf, af, "te1" ) );
        auto config = Platform::create<Config>( tmp_.tree, nullptr,
                                                pathConfigTablePath( vrf, af, "te1" ) );
        status_ = Platform::create<Status>( tmp_.tree, nullptr,
                                            pathStatusTablePath( vrf, af, "te1" ) );
        constraints_->dedupTableNotifieeIs( notifiee_.get() );
        configInfo_ = Platform::create<PathConfigInfo>( key_, config );
        info_ = Platform::create<PathStatusInfo>( key_, status_ );
    }
    // The client writes its request and path intake counts the write.
    void write( uint32_t seq, const char* exclude ) {
        writer_->pathConfigIs( PathConfig( key_.pathKey(), seq, true,
                                           PathConstraint( Net::IntfId( exclude ) ) ) );
        configInfo_->changeCountInc();
    }
    Ptr<DedupConstraint> handleOf( const char* exclude ) {
        return constraints_->dedup(
            DedupConstraintContent( PathConstraint( Net::IntfId( exclude ) ) ) );
    }
    Ptr<ConstraintInfo> infoOf( const Ptr<DedupConstraint>& handle ) {
        return infos_->constraintInfo( handle.ptr() );
    }
    void published() {
        info_->refreshReasonIs( 0 );
        info_->refreshNeededIs( false );
    }
    bool traced( const std::string& line ) const { return traces_.has( line ); }

    TestKit::TempTree tmp_{ "pathrefresh" };
    TestKit::TraceCapture traces_;
    Ptr<ConfigWriter> writer_;
    Ptr<Status> status_;
    Ptr<ConstraintInfoTable> infos_ = Platform::create<ConstraintInfoTable>();
    Ptr<ConstraintInfoTableNotifiee> notifiee_ =
        Platform::create<ConstraintInfoTableNotifiee>( infos_ );
    Ptr<DedupConstraintTable> constraints_ = Platform::create<DedupConstraintTable>();
    const PathInfoKey key_{ "te1", PathKey( IpGenAddr( "10.0.0.1" ), 7 ) };
    Ptr<PathConfigInfo> configInfo_;
    Ptr<PathStatusInfo> info_;
};

}  // namespace

TEST_F( PathRefreshTest, WritesSetConstraintAndSequenceAndTheRightReason ) {
    writer_->pathConfigIs( PathConfig( key_.pathKey(), 4, true, PathConstraint() ) );
    auto sm = Platform::create<PathConfigInfoSm>( configInfo_, info_, constraints_ );
    // Never written since the record was made: nothing is read.
    EXPECT_FALSE( info_->constraint() );
    EXPECT_EQ( info_->lastRefreshReqSeq(), 0u );

    write( 4, "Ethernet1" );
    EXPECT_EQ( info_->constraint(), handleOf( "Ethernet1" ) );
    EXPECT_EQ( info_->lastRefreshReqSeq(), 4u );
    EXPECT_EQ( info_->refreshReason(), uint32_t( refreshReasonConfigChanged ) );
    EXPECT_TRUE( info_->refreshNeeded() );
    published();

    write( 4, "Ethernet1" );  // a rewrite that changes nothing asks for nothing
    EXPECT_FALSE( info_->refreshNeeded() );
    write( 5, "Ethernet1" );
    EXPECT_EQ( info_->refreshReason(), uint32_t( refreshReasonExplicit ) );
    EXPECT_EQ( info_->lastRefreshReqSeq(), 5u );
    published();
    write( 3, "Ethernet1" );  // lowered: taken, but nothing to answer
    EXPECT_EQ( info_->lastRefreshReqSeq(), 3u );
    EXPECT_FALSE( info_->refreshNeeded() );

    // A count that wraps back to 0 reads nothing, whatever the table holds.
    writer_->pathConfigIs( PathConfig( key_.pathKey(), 9, true,
                                       PathConstraint( Net::IntfId( "Ethernet2" ) ) ) );
    configInfo_->changeCountInc( UINT32_MAX - configInfo_->changeCount() + 1 );
    EXPECT_EQ( configInfo_->changeCount(), 0u );
    // Nor does a write of a request that is gone again.
    writer_->pathConfigDel( key_.pathKey() );
    configInfo_->changeCountInc();
    EXPECT_EQ( info_->constraint(), handleOf( "Ethernet1" ) );
    EXPECT_EQ( info_->lastRefreshReqSeq(), 3u );
    EXPECT_FALSE( info_->refreshNeeded() );
}

TEST_F( PathRefreshTest, NewConstraintWithRaisedSequenceGivesOnlyTheConfigBit ) {
    auto sm = Platform::create<PathConfigInfoSm>( configInfo_, info_, constraints_ );
    write( 1, "Ethernet1" );
    info_->refreshReasonIs( refreshReasonTopoChanged );  // still pending
    // Whoever hears of the new constraint already sees the new sequence and
    // no new reason yet.
    std::vector<uint32_t> seen;
    auto sub = Platform::subscribe( info_.get(), PathStatusInfo::constraintTag, [&] {
        seen = { info_->lastRefreshReqSeq(), info_->refreshReason() };
    } );
    write( 2, "Ethernet2" );
    EXPECT_EQ( seen, ( std::vector<uint32_t>{ 2, refreshReasonTopoChanged } ) );
    EXPECT_EQ( info_->refreshReason(),
               uint32_t( refreshReasonTopoChanged | refreshReasonConfigChanged ) );
    // The first constraint had no other user: it left with the path.
    EXPECT_EQ( constraints_->size(), 1u );
}

TEST_F( PathRefreshTest, TopologyStampsMarkThePathAndStaleMarksAreDropped ) {
    auto handle = handleOf( "Ethernet1" );
    auto constraintInfo = infoOf( handle );
    constraintInfo->topoChangedAtIs( 900.0 );
    auto sm = Platform::create<PathRefreshSm>( constraintInfo, info_ );
    EXPECT_FALSE( info_->refreshNeeded() );  // a stamp from before is no news
    constraintInfo->topoChangedAtIs( 1000.5 );
    EXPECT_EQ( info_->refreshReason(), uint32_t( refreshReasonTopoChanged ) );
    EXPECT_TRUE( info_->refreshNeeded() );
    published();
    constraintInfo->topoChangedAtIs( 0.0 );
    EXPECT_FALSE( info_->refreshNeeded() );

    // A mark from the previous constraint goes; other reasons stay.
    info_->refreshReasonIs( refreshReasonTopoChanged | refreshReasonExplicit );
    info_->refreshNeededIs( true );
    sm = Platform::create<PathRefreshSm>( constraintInfo, info_ );
    EXPECT_EQ( info_->refreshReason(), uint32_t( refreshReasonExplicit ) );
    EXPECT_TRUE( info_->refreshNeeded() );
    info_->refreshReasonIs( refreshReasonTopoChanged );
    sm = Platform::create<PathRefreshSm>( constraintInfo, info_ );
    EXPECT_EQ( info_->refreshReason(), 0u );
    EXPECT_FALSE( info_->refreshNeeded() );
}

TEST_F( PathRefreshTest, PathFollowsItsConstraintIntoTheRightPathSet ) {
    auto first = handleOf( "Ethernet1" );
    info_->constraintIs( first );
    auto sm = Platform::create<PathStatusInfoSm>( info_, infos_ );
    EXPECT_TRUE( infoOf( first )->path( key_ ) );
    EXPECT_EQ( info_->constraintChangeCount(), 1u );

    auto second = handleOf( "Ethernet2" );
    info_->constraintIs( second );
    EXPECT_FALSE( infoOf( first )->pathHas( key_ ) );
    EXPECT_TRUE( infoOf( second )->path( key_ ) );
    EXPECT_EQ( info_->constraintChangeCount(), 2u );

    // The path held the only reference: the constraint leaves first, and
    // the path has no set to leave.
    const Platform::DedupHandle* gone = second.ptr();
    second = nullptr;
    traces_.clear();
    info_->constraintIs( nullptr );
    EXPECT_FALSE( infos_->constraintInfoHas( gone ) );
    EXPECT_TRUE(
        traced( "void Cspf::PathStatusInfoSm::doUpdateOldConstraint(): : "
                "constraintInfo deleted for " +
                key_.toString() ) );
    EXPECT_FALSE( sm->oldConstraint() );
    EXPECT_EQ( info_->constraintChangeCount(), 3u );

    info_->constraintIs( first );
    sm = nullptr;  // a path that goes leaves its set
    EXPECT_EQ( infoOf( first )->paths(), 0u );
    EXPECT_TRUE(
        traced( "void Cspf::PathStatusInfoSm::handleDestruction(): Removing dst: "
                "10.0.0.1 of client: te1 id: 7 from constraint: " +
                first->pathConstraint().toString() ) );
}

TEST_F( PathRefreshTest, PathMissingFromItsOldSetStops ) {
    auto first = handleOf( "Ethernet1" );
    info_->constraintIs( first );
    auto sm = Platform::create<PathStatusInfoSm>( info_, infos_ );
    infoOf( first )->pathDel( key_ );
    EXPECT_DEATH( info_->constraintIs( handleOf( "Ethernet2" ) ),
                  "constraintInfo->path\\( pathStatusInfo\\(\\)->pathInfoKey\\(\\) \\)" );
}
