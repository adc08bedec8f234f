#include "agent/PathSm.h"

#include <sstream>
#include <utility>
#include <vector>

#include "platform/Assert.h"
#include "platform/Clock.h"
#include "platform/Error.h"
#include "platform/Mivlog.h"

namespace Cspf {

using Platform::Ptr;

PathSm::PathSm( Net::AddressFamily af, const L3::VrfName& vrfName, std::string name,
                Ptr<Config> cspfConfig, Ptr<Status> cspfStatus,
                Ptr<PathConfigInfoTable> configInfoTable,
                Ptr<PathStatusInfoTable> statusInfoTable )
    : af_( af ),
      vrfName_( vrfName ),
      name_( std::move( name ) ),
      cspfConfig_( std::move( cspfConfig ) ),
      cspfStatus_( std::move( cspfStatus ) ),
      pathConfigInfoTable_( std::move( configInfoTable ) ),
      pathStatusInfoTable_( std::move( statusInfoTable ) ) {
    CSPF_ASSERT( pathConfigInfoTable() );
    CSPF_ASSERT( pathStatusInfoTable() );
    CSPF_ASSERT( cspfConfig_ && cspfStatus_ );
    watch(
        cspfConfig_.get(), Config::pathConfigTag,
        static_cast<void ( PathSm::* )( const PathKey& )>( &PathSm::handleCspfConfig ) );
}

void PathSm::handleInitialized() {
    TRACE4( "Initializing PathSm for client " << name_ << ", vrf " << vrfName_ << ", af "
                                              << af_ );
    doCleanupStalePathEntries();
    handleCspfConfig();
}

namespace {

// The keys of a table as of its last sync, copied: handlers change the table.
template <typename Table>
std::vector<PathKey> keysOf( const Table& table ) {
    std::vector<PathKey> keys;
    for ( const auto& entry : table.keys() ) {
        if constexpr ( requires { entry.first; } ) {
            keys.push_back( entry.first );
        } else {
            keys.push_back( entry );
        }
    }
    return keys;
}

}  // namespace

void PathSm::handleCspfConfig() {
    for ( const PathKey& key : keysOf( *cspfConfig_ ) ) {
        handleCspfConfig( key );
    }
}

void PathSm::handleCspfConfig( const PathKey& key ) {
    // A missing (or unreadable) request reads as the default one.
    const PathConfig config = cspfConfig_->pathConfig( key );
    if ( config == PathConfig() ) {
        doDeletePath( key );
        return;
    }
    TRACE4( "Adding PathConfigInfo/PathStatusInfo for "
            << key.destination << ", id: " << key.id
            << " Refresh seq num: " << config.refreshReqSeq << " client " << name_
            << ", vrf " << vrfName_ << ", af " << af_ );
    const PathInfoKey infoKey( name_, key );
    CSPF_ASSERT( pathConfigInfoTable() );
    pathConfigInfoTable_->pathConfigInfoIs( infoKey, cspfConfig_ )->changeCountInc();
    pathStatusInfoTable_->pathStatusInfoIs( infoKey, cspfStatus_ );
}

void PathSm::doDeletePath( const PathKey& key ) {
    TRACE4( "Deleting PathConfigInfo/PathStatusInfo and PathStatus for "
            << key.destination << ", id: " << key.id << " client " << name_ << ", vrf "
            << vrfName_ << ", af " << af_ );
    const PathInfoKey infoKey( name_, key );
    pathConfigInfoTable_->pathConfigInfoDel( infoKey );
    pathStatusInfoTable_->pathStatusInfoDel( infoKey );
    cspfStatus_->pathStatusDel( key );
}

void PathSm::doCleanupStalePathEntries() {
    try {
        for ( const PathKey& key : keysOf( *cspfStatus_ ) ) {
            if ( !cspfConfig_->pathConfigHas( key ) ) {
                TRACE4( "deleting pathStatus for " << key.destination << " id: " << key.id
                                                   << " client " << name_ << ", vrf "
                                                   << vrfName_ << ", af " << af_ );
                cspfStatus_->pathStatusDel( key );
            }
        }
    } catch ( const Platform::Error& e ) {
        TRACE0( "stale path clean-up for client " << name_ << ", vrf " << vrfName_
                                                  << ", af " << af_
                                                  << " ended: " << e.what() );
    }
}

void PathSm::doPrepareToDie() {
    TRACE4( "Deleting PathSm for client " << name_ << ", vrf " << vrfName_ << ", af "
                                          << af_ );
    for ( const PathKey& key : keysOf( *cspfConfig_ ) ) {
        doDeletePath( key );
    }
}

namespace {

void dumpStatus( Platform::DumpContext& context, unsigned indent,
                 const PathStatus& status ) {
    using Platform::objDumpLine;
    objDumpLine( context, indent, "PathStatus -- RefreshRespSeq: %u ChangeCount:%u ",
                 status.refreshRespSeq, status.changeCount );
    objDumpLine( context, indent, "\n" );
    for ( const Net::IpGenAddr& hop : status.hops ) {
        objDumpLine( context, indent, " %s\n", hop.toString().c_str() );
    }
    std::ostringstream elapsed;
    elapsed << Platform::clock().now() - status.lastUpdated << "s";
    // The last piece ends in a newline of its own: an empty line follows.
    objDumpLine( context, indent, "%s: %s%s\n", "Last Updated ", elapsed.str().c_str(),
                 " ago\n" );
}

}  // namespace

void PathSm::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    using Platform::objDumpLine;
    objDumpLine( context, indent, "%s\n", Net::toString( af_ ).c_str() );
    for ( const PathKey& key : keysOf( *cspfConfig_ ) ) {
        const PathConfig config = cspfConfig_->pathConfig( key );
        objDumpLine( context, indent,
                     "Dest: %s Id: %u RefreshReqSeq: %u AutoUpdate: %s, Constraint: %s\n",
                     key.destination.toString().c_str(), key.id, config.refreshReqSeq,
                     config.autoUpdate ? "Yes" : "No",
                     config.constraint.toString().c_str() );
        if ( cspfStatus_->pathStatusHas( key ) ) {
            dumpStatus( context, indent, cspfStatus_->pathStatus( key ) );
        }
    }
    for ( const PathKey& key : cspfStatus_->keys() ) {
        if ( cspfConfig_->pathConfigHas( key ) ) {
            continue;
        }
        objDumpLine( context, indent,
                     "Dest: %s Id: %u is present in PathStatus, but has no PathConfig\n",
                     key.destination.toString().c_str(), key.id );
        dumpStatus( context, indent, cspfStatus_->pathStatus( key ) );
    }
}

}  // namespace Cspf
