// The state tree: path checks, directory creation with the tree's modes,
// listing (never following symlinks) and table removal.
#include "platform/StateTree.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "platform/DumpContext.h"
#include "platform/Error.h"
#include "platform/PathComponent.h"
#include "platform/TreeDir.h"

namespace Platform {

namespace {

constexpr const char* kDefaultRoot = "/dev/shm/cspf";

// A state path fit for one line of an error text: control characters and '\'
// as \xNN escapes. Unlike a single name it is shown whole up to a generous
// bound, since the reader needs to see where in the path the fault is.
std::string printablePath( std::string_view path ) {
    static constexpr char kHex[] = "0123456789abcdef";
    constexpr size_t kShown = 1024;
    std::string out;
    for ( size_t i = 0; i < path.size() && i < kShown; ++i ) {
        auto c = static_cast<unsigned char>( path[i] );
        if ( c < 0x20 || c == 0x7f || c == '\\' ) {
            out += "\\x";
            out += kHex[c >> 4];
            out += kHex[c & 0xf];
        } else {
            out += static_cast<char>( c );
        }
    }
    if ( path.size() > kShown ) {
        out += "...";
    }
    return out;
}

[[noreturn]] void throwOsError( const std::string& what, int err ) {
    throw SystemError( what, err );
}

std::string join( const std::string& statePath, const std::string& name ) {
    return statePath.empty() ? name : statePath + "/" + name;
}

bool isDirectory( const std::string& path ) {
    struct stat st;
    return ::stat( path.c_str(), &st ) == 0 && S_ISDIR( st.st_mode );
}

// The directory part and the last name of a checked state path.
std::pair<std::string_view, std::string> splitLast( std::string_view statePath ) {
    const size_t slash = statePath.rfind( '/' );
    if ( slash == std::string_view::npos ) {
        return { std::string_view(), std::string( statePath ) };
    }
    return { statePath.substr( 0, slash ), std::string( statePath.substr( slash + 1 ) ) };
}

// Non-dot names of an open directory: subdirectories (a symlink is not one)
// into `dirs`, table files into `tables`.
void readDirectory( int fd, const std::string& path, std::vector<std::string>& dirs,
                    std::vector<std::string>& tables ) {
    const int own = ::fcntl( fd, F_DUPFD_CLOEXEC, 0 );
    DIR* dir = own < 0 ? nullptr : ::fdopendir( own );
    if ( !dir ) {
        int err = errno;
        if ( own >= 0 ) {
            ::close( own );
        }
        throwOsError( "cannot list " + path, err );
    }
    while ( const dirent* ent = ::readdir( dir ) ) {
        const char* name = ent->d_name;
        if ( name[0] == '.' ) {
            continue;
        }
        struct stat st;
        if ( ::fstatat( fd, name, &st, AT_SYMLINK_NOFOLLOW ) != 0 ) {
            continue;  // removed while we list
        }
        if ( S_ISDIR( st.st_mode ) ) {
            dirs.emplace_back( name );
        } else if ( S_ISREG( st.st_mode ) && StateTree::isTableAt( fd, name ) ) {
            tables.emplace_back( name );
        }
    }
    ::closedir( dir );
}

}  // namespace

std::string StateTree::defaultRoot() {
    const char* env = std::getenv( "CSPF_STATE_ROOT" );
    return env && *env ? std::string( env ) : std::string( kDefaultRoot );
}

StateTree::StateTree( std::string root, Permissions permissions )
    : root_( std::move( root ) ), permissions_( permissions ) {
    if ( root_.empty() ) {
        throw Error( "the state root must not be empty" );
    }
    if ( root_.front() != '/' ) {
        char cwd[PATH_MAX];
        if ( !::getcwd( cwd, sizeof( cwd ) ) ) {
            throwOsError( "cannot make the state root " + root_ + " absolute", errno );
        }
        root_ = std::string( cwd ) + "/" + root_;
    }
    while ( root_.size() > 1 && root_.back() == '/' ) {
        root_.pop_back();
    }
    doMakeDirs( root_ );
    if ( !TreeDir( root_, "" ).complete() ) {
        throw Error( "cannot use state root " + root_ +
                     ": a symlink or not a directory" );
    }
}

std::string StateTree::doPath( std::string_view statePath, bool rootAllowed ) const {
    if ( statePath.empty() ) {
        if ( rootAllowed ) {
            return root_;
        }
        throw NameError( "invalid state path '': is empty" );
    }
    if ( statePath.front() == '/' ) {
        throw NameError( "invalid state path '" + printablePath( statePath ) +
                         "': must be relative to the state root" );
    }
    size_t start = 0;
    for ( ;; ) {
        size_t end = statePath.find( '/', start );
        std::string_view component = statePath.substr(
            start, end == std::string_view::npos ? std::string_view::npos : end - start );
        try {
            validatePathComponent( component, "path component" );
        } catch ( const NameError& e ) {
            throw NameError( "invalid state path '" + printablePath( statePath ) +
                             "': " + e.what() );
        }
        if ( end == std::string_view::npos ) {
            break;
        }
        start = end + 1;
    }
    std::string out = root_ == "/" ? std::string() : root_;
    out += '/';
    out += statePath;
    return out;
}

std::string StateTree::filePath( std::string_view statePath ) const {
    return doPath( statePath, false );
}

std::string StateTree::directoryPath( std::string_view statePath ) const {
    return doPath( statePath, true );
}

void StateTree::doMakeDirs( const std::string& absolutePath ) const {
    if ( isDirectory( absolutePath ) ) {
        return;
    }
    for ( size_t pos = 1; pos <= absolutePath.size(); ++pos ) {
        if ( pos != absolutePath.size() && absolutePath[pos] != '/' ) {
            continue;
        }
        std::string prefix = absolutePath.substr( 0, pos );
        if ( ::mkdir( prefix.c_str(), dirMode() ) == 0 ) {
            // mkdir's mode passes through the umask; the tree's modes must not.
            applyDirMode( prefix );
            continue;
        }
        int err = errno;
        if ( isDirectory( prefix ) ) {
            continue;  // there already, or made by another process meanwhile
        }
        if ( err == EEXIST ) {
            throw Error( "cannot create directory " + prefix +
                         ": a file that is not a directory is in the way" );
        }
        throwOsError( "cannot create directory " + prefix, err );
    }
}

TreeDir StateTree::directory( std::string_view statePath, bool create ) const {
    directoryPath( statePath );  // checks every component
    const TreeDir::Create how{ dirMode(), permissions_.group };
    return TreeDir( root_, statePath, create ? &how : nullptr );
}

void StateTree::makeParents( std::string_view statePath ) const {
    filePath( statePath );
    directory( splitLast( statePath ).first, true );
}

void StateTree::makeDirectory( std::string_view statePath ) const {
    directory( statePath, true );
}

bool StateTree::isTableAt( int dirFd, const char* name ) {
    struct stat st;
    if ( ::fstatat( dirFd, name, &st, AT_SYMLINK_NOFOLLOW ) != 0 ||
         !S_ISREG( st.st_mode ) ) {
        return false;
    }
    // O_NONBLOCK: should a FIFO take the name meanwhile, opening it must not hang.
    int fd = ::openat( dirFd, name,
                       O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY );
    if ( fd < 0 ) {
        return false;
    }
    char magic[kTableMagicSize];
    bool table = ::fstat( fd, &st ) == 0 && S_ISREG( st.st_mode ) &&
                 ::pread( fd, magic, sizeof( magic ), 0 ) == sizeof( magic ) &&
                 std::memcmp( magic, kTableMagic, kTableMagicSize ) == 0;
    ::close( fd );
    return table;
}

void StateTree::doListTables( int fd, const std::string& statePath,
                              std::vector<std::string>& out ) const {
    const std::string path = statePath.empty() ? root_ : root_ + "/" + statePath;
    std::vector<std::string> dirs;
    std::vector<std::string> tables;
    readDirectory( fd, path, dirs, tables );
    for ( const std::string& name : tables ) {
        out.push_back( join( statePath, name ) );
    }
    for ( const std::string& name : dirs ) {
        int sub =
            ::openat( fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC );
        if ( sub < 0 ) {
            continue;  // removed while we list, or replaced by a symlink
        }
        try {
            TreeDir::checkOurs( sub, path + "/" + name );
            doListTables( sub, join( statePath, name ), out );
        } catch ( ... ) {
            ::close( sub );
            throw;
        }
        ::close( sub );
    }
}

std::vector<std::string> StateTree::listTables( std::string_view prefix ) const {
    const TreeDir dir = directory( prefix );
    std::vector<std::string> out;
    if ( dir.complete() ) {
        doListTables( dir.fd(), std::string( prefix ), out );
        std::sort( out.begin(), out.end() );
        return out;
    }
    if ( !prefix.empty() ) {
        const auto [parent, name] = splitLast( prefix );
        const TreeDir up = directory( parent );
        if ( up.complete() && isTableAt( up.fd(), name.c_str() ) ) {
            out.emplace_back( prefix );  // the prefix is itself a table
        }
    }
    return out;
}

std::vector<std::string> StateTree::listDirectory( std::string_view statePath ) const {
    const TreeDir dir = directory( statePath );
    std::vector<std::string> out;
    if ( !dir.complete() ) {
        return out;
    }
    std::vector<std::string> tables;
    readDirectory( dir.fd(), dir.path(), out, tables );
    out.insert( out.end(), tables.begin(), tables.end() );
    std::sort( out.begin(), out.end() );
    return out;
}

bool StateTree::removeTable( std::string_view statePath ) const {
    const std::string path = filePath( statePath );
    const auto [parent, name] = splitLast( statePath );
    const TreeDir dir = directory( parent );
    struct stat st;
    if ( !dir.complete() ) {
        return false;
    }
    if ( ::fstatat( dir.fd(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW ) != 0 ) {
        if ( errno == ENOENT ) {
            return false;
        }
        throwOsError( "cannot remove table " + path, errno );
    }
    if ( S_ISDIR( st.st_mode ) ) {
        throw Error( "cannot remove table " + path + ": it is a directory" );
    }
    if ( !isTableAt( dir.fd(), name.c_str() ) ) {
        throw Error( "cannot remove table " + path + ": not a table file" );
    }
    if ( !TreeDir::isOurFileAt( dir.fd(), name.c_str() ) ) {
        throw Error( "cannot remove table " + path + ": owned by uid " +
                     std::to_string( st.st_uid ) + ", not by this process's user" );
    }
    if ( ::unlinkat( dir.fd(), name.c_str(), 0 ) != 0 ) {
        if ( errno == ENOENT ) {
            return false;  // another remover was first
        }
        throwOsError( "cannot remove table " + path, errno );
    }
    return true;
}

bool StateTree::exists( std::string_view statePath ) const {
    if ( statePath.empty() ) {
        return directory( statePath ).complete();
    }
    const auto [parent, name] = splitLast( statePath );
    const TreeDir dir = directory( parent );
    struct stat st;
    return dir.complete() &&
           ::fstatat( dir.fd(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW ) == 0;
}

void StateTree::applyFileMode( int fd ) const {
    if ( ::fchmod( fd, fileMode() ) != 0 ) {
        throwOsError( "cannot set the mode of table fd " + std::to_string( fd ), errno );
    }
    if ( permissions_.group &&
         ::fchown( fd, static_cast<uid_t>( -1 ), *permissions_.group ) ) {
        throwOsError( "cannot set the group of table fd " + std::to_string( fd ) +
                          " to " + std::to_string( *permissions_.group ),
                      errno );
    }
}

void StateTree::applyDirMode( const std::string& path ) const {
    if ( ::chmod( path.c_str(), dirMode() ) != 0 ) {
        throwOsError( "cannot set the mode of directory " + path, errno );
    }
    if ( permissions_.group &&
         ::chown( path.c_str(), static_cast<uid_t>( -1 ), *permissions_.group ) != 0 ) {
        throwOsError( "cannot set the group of directory " + path + " to " +
                          std::to_string( *permissions_.group ),
                      errno );
    }
}

void StateTree::dumpState( DumpContext& context, unsigned indent ) const {
    std::string group =
        permissions_.group ? ", group " + std::to_string( *permissions_.group ) : "";
    objDumpLine( context, indent, "StateTree root %s: files %04o, directories %04o%s\n",
                 root_.c_str(), static_cast<unsigned>( fileMode() ),
                 static_cast<unsigned>( dirMode() ), group.c_str() );
}

}  // namespace Platform
