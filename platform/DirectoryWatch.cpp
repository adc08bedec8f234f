// The directory watch: the directory's own inotify watch while it exists, its
// nearest existing ancestor's while it does not.
//
// Attaching always watches first and looks second (scan the directory, or
// check that the next name is still missing): an entry made between the two
// is then both seen and reported by an event, and applying a late event to a
// name already seen changes nothing. Events are applied in order, so the
// collection ends where the directory ends.
#include "platform/DirectoryWatch.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "platform/DumpContext.h"
#include "platform/Error.h"
#include "platform/Inotify.h"
#include "platform/PathComponent.h"
#include "platform/StateTree.h"
#include "platform/TreeDir.h"

namespace Platform {

namespace {

constexpr uint32_t kSelfGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT;
constexpr uint32_t kDirectoryMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                    IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr uint32_t kAncestorMask =
    IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// Bounds the watch-then-look retries when directories come and go faster than
// we attach; past it the last watch made is kept and the next event retries.
constexpr int kMaxAttempts = 32;

std::string parentOf( const std::string& path ) {
    size_t slash = path.rfind( '/' );
    return slash == 0 || slash == std::string::npos ? "/" : path.substr( 0, slash );
}

}  // namespace

// A reactor told of a name may drop the last reference to this watch: hold
// one while our own code still runs on it.
struct DirectoryWatch::KeepAlive {
    explicit KeepAlive( DirectoryWatch* w ) : self( w->refCount() ? w : nullptr ) {
        if ( self ) {
            ++self->keeps_;
        }
    }
    ~KeepAlive() {
        if ( self ) {
            --self->keeps_;
        }
    }
    Ptr<DirectoryWatch> self;
};

DirectoryWatch::DirectoryWatch( StateTree& tree, Inotify& inotify, std::string statePath,
                                bool create )
    : tree_( tree ),
      inotify_( inotify ),
      statePath_( std::move( statePath ) ),
      directory_( tree.directoryPath( statePath_ ) ) {
    if ( create ) {
        tree_.makeDirectory( statePath_ );
    }
    doAttach();
}

DirectoryWatch::~DirectoryWatch() = default;

std::string DirectoryWatch::doNearestAboveRoot() const {
    // Above the root links may be followed: the root may be reached through one.
    std::string path = parentOf( tree_.root() );
    struct stat st;
    while ( path != "/" &&
            !( ::stat( path.c_str(), &st ) == 0 && S_ISDIR( st.st_mode ) ) ) {
        path = parentOf( path );
    }
    return path;
}

void DirectoryWatch::doAttach() {
    directoryWatch_.reset();
    ancestorWatch_.reset();
    ancestor_.clear();
    nextName_.clear();
    for ( int attempt = 1;; ++attempt ) {
        const bool retry = attempt < kMaxAttempts;
        // Opened one component at a time, never through a symlink: a link
        // where a directory should be counts as a missing directory.
        const TreeDir dir = tree_.directory( statePath_ );
        auto watchHere = [&]( uint32_t mask, Inotify::Callback callback ) {
            return dir.fd() >= 0 ? inotify_.watch( dir.fd(), dir.path(), mask, callback )
                                 : inotify_.watch( ancestor_, mask, callback );
        };
        struct stat st;
        if ( dir.complete() ) {
            directoryWatch_ = watchHere( kDirectoryMask,
                                         [this]( uint32_t mask, std::string_view name ) {
                                             handleDirectoryEvent( mask, name );
                                         } );
            if ( retry && ( ::fstat( dir.fd(), &st ) != 0 || st.st_nlink == 0 ) ) {
                continue;  // removed between the open and the watch
            }
            doApply( doScan( dir ) );
            return;
        }
        ancestor_ = dir.fd() >= 0 ? dir.path() : doNearestAboveRoot();
        ancestorWatch_ =
            watchHere( kAncestorMask, [this]( uint32_t mask, std::string_view name ) {
                handleAncestorEvent( mask, name );
            } );
        size_t start = ancestor_ == "/" ? 1 : ancestor_.size() + 1;
        nextName_ = directory_.substr( start, directory_.find( '/', start ) - start );
        // Watch first, look second: the next directory may have come meanwhile.
        const TreeDir again = tree_.directory( statePath_ );
        if ( retry && ( again.depth() != dir.depth() ||
                        ( again.fd() >= 0 ) != ( dir.fd() >= 0 ) ) ) {
            ancestorWatch_.reset();
            continue;
        }
        doApply( {} );
        return;
    }
}

void DirectoryWatch::doReattach( bool rescan ) {
    try {
        if ( rescan ) {
            resync();
        } else {
            doAttach();
        }
        lastError_.clear();
    } catch ( const Error& e ) {
        lastError_ = e.what();
    }
}

void DirectoryWatch::resync() {
    KeepAlive keep( this );
    ++rescans_;
    doAttach();
}

std::vector<std::string> DirectoryWatch::doScan( const TreeDir& directory ) const {
    std::vector<std::string> names;
    const int fd = ::fcntl( directory.fd(), F_DUPFD_CLOEXEC, 0 );
    if ( fd < 0 ) {
        throw SystemError( "cannot list " + directory_, errno );
    }
    DIR* dir = ::fdopendir( fd );
    if ( !dir ) {
        int err = errno;
        ::close( fd );
        throw SystemError( "cannot list " + directory_, err );
    }
    while ( const dirent* ent = ::readdir( dir ) ) {
        if ( ent->d_name[0] != '.' ) {
            names.emplace_back( ent->d_name );
        }
    }
    ::closedir( dir );
    std::sort( names.begin(), names.end() );
    return names;
}

void DirectoryWatch::doApply( const std::vector<std::string>& names ) {
    std::vector<std::string> gone;
    for ( const auto& [name, present] : entryColl() ) {
        if ( !std::binary_search( names.begin(), names.end(), name ) ) {
            gone.push_back( name );
        }
    }
    for ( const std::string& name : gone ) {
        if ( doAbandoned() ) {
            return;
        }
        entryDel( name );
    }
    for ( const std::string& name : names ) {
        if ( doAbandoned() ) {
            return;
        }
        entryIs( name, true );  // silent when already present
    }
}

void DirectoryWatch::handleDirectoryEvent( uint32_t mask, std::string_view name ) {
    KeepAlive keep( this );
    if ( mask & IN_Q_OVERFLOW ) {
        doReattach( true );
        return;
    }
    if ( mask & kSelfGone ) {
        doReattach( false );
        return;
    }
    if ( name.empty() || name.front() == '.' ) {
        return;
    }
    std::string key( name );
    if ( mask & ( IN_CREATE | IN_MOVED_TO ) ) {
        entryIs( key, true );
    } else if ( mask & ( IN_DELETE | IN_MOVED_FROM ) ) {
        entryDel( key );
    }
}

void DirectoryWatch::handleAncestorEvent( uint32_t mask, std::string_view name ) {
    KeepAlive keep( this );
    if ( mask & IN_Q_OVERFLOW ) {
        doReattach( true );
    } else if ( mask & kSelfGone ) {
        doReattach( false );
    } else if ( ( mask & ( IN_CREATE | IN_MOVED_TO ) ) && name == nextName_ ) {
        doReattach( false );
    }
}

void DirectoryWatch::dumpState( DumpContext& context, unsigned indent ) const {
    const char* path = statePath_.empty() ? "(root)" : statePath_.c_str();
    if ( present() ) {
        objDumpLine( context, indent, "DirectoryWatch %s: %zu entries, %u rescans\n",
                     path, entries(), rescans_ );
    } else {
        objDumpLine( context, indent,
                     "DirectoryWatch %s: missing, waiting in %s for '%s', %u rescans\n",
                     path, ancestor_.c_str(), nextName_.c_str(), rescans_ );
    }
    if ( !lastError_.empty() ) {
        objDumpLine( context, indent + 2, "last error: %s\n", lastError_.c_str() );
    }
    for ( const auto& [name, present] : entryColl() ) {
        objDumpLine( context, indent + 2, "%s\n", printableName( name ).c_str() );
    }
}

}  // namespace Platform
