#include "client/ResultTable.h"

#include "client/RecordConversion.h"
#include "platform/DirectoryWatch.h"
#include "platform/Error.h"
#include "platform/StateTree.h"
#include "records/Client.h"
#include "records/PathTables.h"

namespace cspf {

ResultTable::ResultTable( Platform::StateTree& tree, Platform::Inotify& inotify,
                          const Table& table, const std::string& client )
    : tree_( tree ),
      inotify_( inotify ),
      table_( table ),
      statePath_( Cspf::pathStatusTablePath(
          toVrfName( table.vrf ), toAddressFamily( table.family ), client ) ) {}

ResultTable::~ResultTable() = default;

bool ResultTable::doOpen( bool reportHeld ) {
    if ( reader_ ) {
        return true;
    }
    // A reader would make the directories of a table that is not there; the
    // directory watch waits for it instead.
    if ( !tree_.exists( statePath_ ) ) {
        return false;
    }
    Platform::Ptr<Cspf::StatusReader> reader(
        new Cspf::StatusReader( tree_, &inotify_, statePath_ ) );
    // A corrupt record reads as absent until the agent writes it again; it is
    // no failure of the client's.
    reader->corruptionHandlerIs( []( const Platform::Error& ) {} );
    reader->handleInitialized();
    reader_ = reader;
    // A table that appears while followed is news, whichever call opened it.
    if ( following() ) {
        doFollowReader( reportHeld );
    }
    return true;
}

std::optional<PathResult> ResultTable::doLookup( const Cspf::PathKey& key ) const {
    if ( !reader_ || !reader_->has( key ) ) {
        return std::nullopt;
    }
    const Cspf::PathStatus status = reader_->get( key );
    if ( !( status.key == key ) ) {
        return std::nullopt;  // the record failed its checks
    }
    return toResult( status );
}

std::optional<PathResult> ResultTable::result( const Cspf::PathKey& key ) {
    if ( !doOpen() ) {
        return std::nullopt;
    }
    reader_->sync();
    return doLookup( key );
}

std::vector<PathResult> ResultTable::results() {
    std::vector<PathResult> out;
    if ( !doOpen() ) {
        return out;
    }
    reader_->sync();
    for ( const auto& entry : reader_->keys() ) {
        if ( auto result = doLookup( entry.first ) ) {
            out.push_back( std::move( *result ) );
        }
    }
    return out;
}

void ResultTable::doFollowReader( bool reportHeld ) {
    readerSub_ = Platform::subscribe(
        reader_.get(), Cspf::StatusReader::recordTag,
        [this]( const Cspf::PathKey& key ) { pending_.insert( key ); } );
    for ( const auto& entry : reader_->keys() ) {
        ( reportHeld ? pending_ : known_ ).insert( entry.first );
    }
}

void ResultTable::followingIs( bool following, bool reportHeld ) {
    if ( following == this->following() ) {
        return;
    }
    pending_.clear();
    known_.clear();
    if ( !following ) {
        readerSub_.reset();
        dir_.reset();
        return;
    }
    const std::string directory = statePath_.substr( 0, statePath_.rfind( '/' ) );
    dir_ =
        Platform::create<Platform::DirectoryWatch>( tree_, inotify_, directory, false );
    if ( reader_ ) {
        reader_->sync();
        doFollowReader( reportHeld );
    } else {
        doOpen( reportHeld );
    }
}

void ResultTable::afterAttach() {
    if ( !following() ) {
        return;
    }
    if ( reader_ ) {
        // A reader whose directory was removed and made again no longer hears
        // of its file; looking costs one failed open.
        if ( !reader_->attached() ) {
            reader_->sync();
        }
        return;
    }
    try {
        if ( !doOpen() ) {
            return;
        }
    } catch ( const Platform::Error& e ) {
        // Told once; tried again at every look, as the agent may replace it.
        if ( refused_ == e.what() ) {
            return;
        }
        refused_ = e.what();
        throw;
    }
    refused_.clear();
}

void ResultTable::changesTake( std::vector<ResultChange>& out ) {
    for ( const Cspf::PathKey& key : pending_ ) {
        std::optional<PathResult> now = doLookup( key );
        const bool was = known_.erase( key ) > 0;
        if ( now ) {
            known_.insert( key );
        } else if ( !was ) {
            continue;  // came and went between two looks
        }
        out.push_back( ResultChange{ table_, key.destination.toString(), key.id,
                                     std::move( now ) } );
    }
    pending_.clear();
}

}  // namespace cspf
