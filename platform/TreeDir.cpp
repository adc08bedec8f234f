// Walking the tree one directory at a time, relative to the last one opened.
#include "platform/TreeDir.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/Error.h"

namespace Platform {

namespace {

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

[[noreturn]] void throwOsError( const std::string& what, int err ) {
    throw SystemError( what, err );
}

// A component that is not there as a directory: missing, a symlink or a file.
bool missing( int err ) {
    return err == ENOENT || err == ENOTDIR || err == ELOOP;
}

}  // namespace

void TreeDir::checkOurs( int fd, const std::string& path ) {
    struct stat st;
    if ( ::fstat( fd, &st ) != 0 ) {
        throwOsError( "cannot check state directory " + path, errno );
    }
    if ( st.st_uid != ::geteuid() ) {
        throw Error( "refusing state directory " + path + ": owned by uid " +
                     std::to_string( st.st_uid ) + ", not by this process's uid " +
                     std::to_string( ::geteuid() ) );
    }
    if ( st.st_mode & ( S_IWGRP | S_IWOTH ) ) {
        char mode[8];
        std::snprintf( mode, sizeof( mode ), "%04o", unsigned( st.st_mode & 07777 ) );
        throw Error( "refusing state directory " + path + ": writable by others (mode " +
                     mode + ")" );
    }
}

bool TreeDir::isOurFileAt( int dirFd, const char* name ) {
    struct stat st;
    return ::fstatat( dirFd, name, &st, AT_SYMLINK_NOFOLLOW ) == 0 &&
           S_ISREG( st.st_mode ) && st.st_uid == ::geteuid();
}

std::string TreeDir::fdPath( int fd ) {
    return "/proc/self/fd/" + std::to_string( fd );
}

TreeDir::TreeDir( const std::string& root, std::string_view relative,
                  const Create* create )
    : path_( root ) {
    // The root's parents may be reached through links; the root itself not.
    fd_ = ::open( root.c_str(), kDirFlags );
    if ( fd_ < 0 ) {
        if ( missing( errno ) ) {
            return;
        }
        throwOsError( "cannot open state directory " + root, errno );
    }
    try {
        doWalk( relative, create );
    } catch ( ... ) {
        ::close( std::exchange( fd_, -1 ) );
        throw;
    }
}

void TreeDir::doWalk( std::string_view relative, const Create* create ) {
    checkOurs( fd_, path_ );
    size_t start = 0;
    while ( start < relative.size() ) {
        size_t end = relative.find( '/', start );
        if ( end == std::string_view::npos ) {
            end = relative.size();
        }
        const std::string name( relative.substr( start, end - start ) );
        start = end + 1;
        if ( name.empty() ) {
            continue;
        }
        const std::string path = path_ + "/" + name;
        int next = ::openat( fd_, name.c_str(), kDirFlags );
        if ( next < 0 && errno == ENOENT && create ) {
            if ( ::mkdirat( fd_, name.c_str(), create->mode ) == 0 ) {
                next = ::openat( fd_, name.c_str(), kDirFlags );
                // mkdir's mode passes through the umask; the tree's must not.
                if ( next >= 0 &&
                     ( ::fchmod( next, create->mode ) != 0 ||
                       ( create->group && ::fchown( next, static_cast<uid_t>( -1 ),
                                                    *create->group ) != 0 ) ) ) {
                    const int err = errno;
                    ::close( next );
                    throwOsError( "cannot set the mode of directory " + path, err );
                }
            } else if ( errno == EEXIST ) {
                next = ::openat( fd_, name.c_str(), kDirFlags );  // made meanwhile
            } else {
                throwOsError( "cannot create directory " + path, errno );
            }
        }
        if ( next < 0 ) {
            const int err = errno;
            if ( create && ( err == ENOTDIR || err == ELOOP ) ) {
                throw Error( "cannot create directory " + path +
                             ": a file that is not a directory is in the way" );
            }
            if ( missing( err ) ) {
                return;
            }
            throwOsError( "cannot open state directory " + path, err );
        }
        ::close( fd_ );
        fd_ = next;
        path_ = path;
        ++depth_;
        checkOurs( fd_, path_ );
    }
    complete_ = true;
}

TreeDir::~TreeDir() {
    if ( fd_ >= 0 ) {
        ::close( fd_ );
    }
}

TreeDir::TreeDir( TreeDir&& other ) noexcept
    : fd_( std::exchange( other.fd_, -1 ) ),
      depth_( other.depth_ ),
      complete_( other.complete_ ),
      path_( std::move( other.path_ ) ) {}

TreeDir& TreeDir::operator=( TreeDir&& other ) noexcept {
    if ( this != &other ) {
        if ( fd_ >= 0 ) {
            ::close( fd_ );
        }
        fd_ = std::exchange( other.fd_, -1 );
        depth_ = other.depth_;
        complete_ = other.complete_;
        path_ = std::move( other.path_ );
    }
    return *this;
}

}  // namespace Platform
