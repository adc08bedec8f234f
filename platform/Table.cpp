#include "platform/Table.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/Assert.h"
#include "platform/EventLoop.h"
#include "platform/Inotify.h"
#include "platform/StateTree.h"

namespace Platform {

namespace {

std::string baseName( const std::string& path ) {
    const size_t slash = path.rfind( '/' );
    return slash == std::string::npos ? path : path.substr( slash + 1 );
}

std::string dirName( const std::string& path ) {
    const size_t slash = path.rfind( '/' );
    return slash == std::string::npos ? "" : path.substr( 0, slash );
}

TableFileMode modeOf( const StateTree& tree ) {
    TableFileMode mode;
    mode.fileMode = tree.fileMode();
    mode.group =
        tree.permissions().group ? static_cast<int>( *tree.permissions().group ) : -1;
    return mode;
}

}  // namespace

// ---------------------------------------------------------------- reader

TableReaderBase::TableReaderBase( StateTree& tree, Inotify* inotify,
                                  std::string statePath, TableLayout layout,
                                  bool unsoundAsAbsent )
    : statePath_( std::move( statePath ) ),
      inotify_( inotify ),
      core_( ( tree.makeParents( statePath_ ), TablePath( tree.root(), statePath_ ) ),
             std::move( layout ), unsoundAsAbsent ) {
    core_.corruptionHandlerIs( [this]( const std::string& detail ) {
        doCorruption( CorruptionError( statePath_, detail ) );
    } );
    if ( !inotify_ ) {
        return;
    }
    // The directory tells of the file's creation, replacement and removal;
    // the file itself of its writer's bell, and of its writer's descriptor
    // closing: a writer that dies holding its bell (inside a batch) rings
    // nothing, but the kernel closes its descriptor, and what it wrote is
    // then taken in.
    const std::string name = baseName( statePath_ );
    const TreeDir dir = tree.directory( dirName( statePath_ ) );
    if ( !dir.complete() ) {
        throw Error( "cannot watch table " + core_.path() + ": its directory went" );
    }
    dirWatch_ =
        inotify_->watch( dir.fd(), dirName( core_.path() ),
                         IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_ONLYDIR,
                         [this, name]( uint32_t mask, std::string_view n ) {
                             if ( n == name || ( mask & IN_Q_OVERFLOW ) ) {
                                 sync();
                             }
                         } );
    doWatchFile();
}

void TableReaderBase::corruptionHandlerIs( CorruptionHandler handler ) {
    corruption_ = std::move( handler );
    if ( corruption_ && !attachProblemTold_ && !core_.attachProblem().empty() ) {
        attachProblemTold_ = true;
        corruption_( CorruptionError( statePath_, core_.attachProblem() ) );
    }
}

void TableReaderBase::handleInitialized() {
    sync();  // what changed before the watches were in place
}

TableReaderBase::~TableReaderBase() = default;

bool TableReaderBase::doWatchFile() {
    if ( !inotify_ ) {
        return false;
    }
    if ( !core_.attached() ) {
        fileWatch_.reset();
        return false;
    }
    // Watch the inode the reader has mapped, through its descriptor: a
    // replaced file is a new inode, and the writer rings the bell of the new
    // one, which the reader watches once it moved there.
    struct stat mapped;
    if ( fstat( core_.fd(), &mapped ) != 0 ) {
        return false;
    }
    if ( fileWatch_ && fileWatch_->active() && mapped.st_ino == watchedInode_ ) {
        return false;
    }
    fileWatch_.reset();
    try {
        fileWatch_ = inotify_->watch( core_.fd(), core_.path(),
                                      IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE,
                                      [this]( uint32_t, std::string_view ) { sync(); } );
        watchedInode_ = mapped.st_ino;
        return true;
    } catch ( const Error& ) {
        // The file went between the sync and the watch: the directory watch
        // brings the reader back when it returns.
        return false;
    }
}

void TableReaderBase::sync() {
    if ( syncing_ ) {
        again_ = true;  // a handler's change: taken in by the loop below
        return;
    }
    // A watcher told of a change may drop the last reference to this reader.
    Ptr<TableReaderBase> keep( this );
    syncing_ = true;
    do {
        again_ = false;
        try {
            core_.sync( [this]( const uint8_t* key ) { doKeyChanged( key ); } );
        } catch ( const Error& e ) {
            doCorruption( e );
        }
        // A bell rung on a new file before we watched it is not heard: after
        // a new watch, look once more.
        if ( doWatchFile() ) {
            again_ = true;
        }
    } while ( again_ );
    syncing_ = false;
}

void reportCorruption( const CorruptionHandler& handler, const std::string& statePath,
                       const Error& error ) {
    if ( handler ) {
        handler( error );
        return;
    }
    std::string line = "table " + statePath + ": " + error.what() + "\n";
    ssize_t ignored = ::write( STDERR_FILENO, line.data(), line.size() );
    (void)ignored;
}

// ---------------------------------------------------------------- writer

TableWriterBase::TableWriterBase( StateTree& tree, EventLoop* loop, std::string statePath,
                                  TableLayout layout )
    : statePath_( std::move( statePath ) ),
      loop_( loop ),
      core_( ( tree.makeParents( statePath_ ), TablePath( tree.root(), statePath_ ) ),
             std::move( layout ), modeOf( tree ) ),
      alive_( std::make_shared<bool>( true ) ) {}

TableWriterBase::~TableWriterBase() {
    *alive_ = false;
}

void TableWriterBase::bellRelease() {
    CSPF_ASSERT( bellHolds_ > 0 );
    if ( --bellHolds_ == 0 && core_.dirty() ) {
        doChanged();
    }
}

void TableWriterBase::doChanged() {
    if ( bellHolds_ > 0 ) {
        return;  // rung by the last bellRelease()
    }
    if ( !loop_ ) {
        core_.flush();
        return;
    }
    if ( flushQueued_ ) {
        return;
    }
    flushQueued_ = true;
    loop_->runAtRoundEnd( [this, alive = alive_] {
        if ( *alive ) {
            flushQueued_ = false;
            core_.flush();
        }
    } );
}

}  // namespace Platform
