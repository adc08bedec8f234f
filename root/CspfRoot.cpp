#include "root/CspfRoot.h"

#include <utility>

#include "platform/Mivlog.h"

namespace Cspf {

using Platform::Ptr;

CspfRoot::CspfRoot( Net::AddressFamily af, Platform::EntityManager& entityMgr,
                    Ptr<TrafficEngineering::Config> teConfig,
                    Ptr<Platform::DirectoryWatch> topoDbClientDir,
                    Platform::TaskScheduler& taskScheduler )
    : af_( af ),
      entityMgr_( &entityMgr ),
      teConfig_( std::move( teConfig ) ),
      topoDbClientDir_( std::move( topoDbClientDir ) ),
      taskScheduler_( &taskScheduler ) {}

CspfRoot::~CspfRoot() {
    // The VRFs go before their tables' owner does; the active-VRF table is
    // left with handles that its holders (the client reactors) release.
    if ( allClientInfo_ ) {
        allClientInfo_->activeVrfsDedupTable()->lifeTimeNotifieeIs( nullptr );
    }
    vrfRootSmDelAll();
    vrfRootDelAll();
}

void CspfRoot::handleInitialized() {
    TRACE4( "Initializing CspfRoot for af " << af_ );
    lifeTimeNotifiee_ = Platform::create<CspfActiveVrfsNotifiee>( this );
    allClientInfo_ = Platform::create<AllClientInfo>( this );
}

Ptr<VrfRoot> CspfRoot::vrfRootIs( const L3::VrfName& vrfName, Net::AddressFamily af,
                                  Platform::EntityManager& entityMgr,
                                  Ptr<TrafficEngineering::Config> teConfig,
                                  Ptr<Platform::DirectoryWatch> topoDbClientDir,
                                  Platform::TaskScheduler& taskScheduler ) {
    const Platform::ValidPtr<VrfRoot> vrfRoot =
        vrfRootFactory( vrfName, af, entityMgr, std::move( teConfig ),
                        std::move( topoDbClientDir ), taskScheduler );
    vrfRootIs( vrfName, vrfRoot );
    return vrfRoot;
}

Ptr<VrfRootSm> CspfRoot::vrfRootSmIs( const L3::VrfName& vrfName, Ptr<VrfRoot> vrfRoot ) {
    const Platform::ValidPtr<VrfRootSm> sm =
        Platform::create<VrfRootSm>( vrfName, std::move( vrfRoot ) );
    vrfRootSmIs( vrfName, sm );
    return sm;
}

void CspfRoot::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    using Platform::objDumpLine;
    using Platform::objDumpPrintf;
    objDumpLine( context, indent, "----CSPF Root " );
    objDumpPrintf( context, "%s----\n", Net::toString( af_ ).c_str() );
    const Net::IpGenAddr routerId =
        teConfig_ ? teConfig_->routerId() : Net::IpGenAddr::v4( 0 );
    objDumpLine( context, indent, "Our TE Router ID: %s\n", routerId.toString().c_str() );
    // The running indent is never reset: each further VRF is printed two
    // columns deeper than the one before, as this dump always has been.
    unsigned running = indent + 2;
    for ( const auto& [vrfName, vrfRoot] : vrfRootColl() ) {
        objDumpLine( context, running, "VRF %s\n", vrfName.name().c_str() );
        running += 2;
        Platform::ObjDumpChild( vrfRoot, context, running );
    }
}

}  // namespace Cspf
