#include "platform/MountGroup.h"

#include "platform/EventLoop.h"

namespace Platform {

MountMode mountModeOf( const std::string& mode ) {
    if ( mode == "r" ) {
        return MountMode::read;
    }
    if ( mode == "ri" ) {
        return MountMode::readImmediate;
    }
    if ( mode == "w" ) {
        return MountMode::write;
    }
    if ( mode == "wi" ) {
        return MountMode::writeImmediate;
    }
    throw Error( "unknown mount mode '" + mode + "' (expected r, ri, w or wi)" );
}

bool mountWrites( MountMode mode ) {
    return mode == MountMode::write || mode == MountMode::writeImmediate;
}

bool mountImmediate( MountMode mode ) {
    return mode == MountMode::readImmediate || mode == MountMode::writeImmediate;
}

EntityManager::EntityManager( StateTree& tree, Inotify& inotify, EventLoop* loop )
    : tree_( tree ), inotify_( inotify ), loop_( loop ) {}

Ptr<Entity> EntityManager::entity( const std::string& path ) const {
    auto it = entities_.find( path );
    return it == entities_.end() ? Ptr<Entity>() : it->second;
}

void MountGroup::doMounts( std::function<void( const MountStatus& )> done ) {
    MountStatus status;
    for ( const Mount& m : mounts_ ) {
        try {
            m.perform();
        } catch ( const Error& e ) {
            if ( mountImmediate( m.mode ) ) {
                status.skipped.emplace_back( m.path, e.what() );
                continue;
            }
            status.ok = false;
            status.failedPath = m.path;
            status.reason = e.what();
            break;
        }
    }
    mounts_.clear();
    if ( EventLoop* loop = manager_.loop() ) {
        loop->runAtRoundEnd( [done = std::move( done ), status] { done( status ); } );
    } else {
        done( status );
    }
}

}  // namespace Platform
