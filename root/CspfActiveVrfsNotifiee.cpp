#include "root/CspfActiveVrfsNotifiee.h"

#include "platform/Mivlog.h"
#include "root/CspfRoot.h"
#include "root/DedupVrfHandle.h"

namespace Cspf {

void CspfActiveVrfsNotifiee::handleInsert( Platform::DedupHandle& handle ) {
    const L3::VrfName vrfName = DedupVrfHandle::fromDedupHandle( handle ).vrfName();
    TRACE4( "Adding active VRF: " << vrfName );
    CspfRoot& root = *cspfRoot_;
    auto vrfRoot = root.vrfRootIs( vrfName, root.af(), root.entityMgr(), root.teConfig(),
                                   root.topoDbClientDir(), root.taskScheduler() );
    root.vrfRootSmIs( vrfName, vrfRoot );
    root.allClientInfo()->pathConfigInfoTableIs( vrfName,
                                                 vrfRoot->pathConfigInfoTable() );
    root.allClientInfo()->pathStatusInfoTableIs( vrfName,
                                                 vrfRoot->pathStatusInfoTable() );
}

void CspfActiveVrfsNotifiee::handleRemove( Platform::DedupHandle& handle ) {
    const L3::VrfName vrfName = DedupVrfHandle::fromDedupHandle( handle ).vrfName();
    TRACE4( "Deleting active VRF: " << vrfName );
    CspfRoot& root = *cspfRoot_;
    root.vrfRootSmDel( vrfName );
    if ( const auto vrfRoot = root.vrfRoot( vrfName ) ) {
        vrfRoot->handleDestruction();
    }
    root.vrfRootDel( vrfName );
    root.allClientInfo()->pathConfigInfoTableDel( vrfName );
    root.allClientInfo()->pathStatusInfoTableDel( vrfName );
}

void CspfActiveVrfsNotifiee::handleNotificationStop( Platform::DedupHashTable& ) {
    TRACE4( "active VRF table going away" );
}

}  // namespace Cspf
