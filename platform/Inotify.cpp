// The shared inotify instance: kernel watches per wd, callbacks per handle.
//
// Dispatch keeps three rules:
//  - an entry is only marked dead (handle null) while a dispatch runs; dead
//    entries and empty wds are removed once the outermost dispatch ends, so a
//    Wd and its callbacks stay in place under a running callback;
//  - the kernel watch goes with the last live handle of its wd, at once, so a
//    watch added later for the same inode gets a fresh wd;
//  - a dispatch calls only the entries that existed when it started.
#include "platform/Inotify.h"

#include <errno.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/Assert.h"
#include "platform/DumpContext.h"
#include "platform/Error.h"
#include "platform/EventLoop.h"
#include "platform/TreeDir.h"

namespace Platform {

namespace {

// Events that every handle of a wd hears, whatever its own mask.
constexpr uint32_t kAlwaysDelivered = IN_IGNORED | IN_UNMOUNT | IN_Q_OVERFLOW;

}  // namespace

InotifyWatch::~InotifyWatch() {
    if ( inotify_ && wd_ >= 0 ) {
        inotify_->doHandleDel( this );
    }
}

Inotify::Inotify( EventLoop* loop ) {
    fd_ = inotify_init1( IN_NONBLOCK | IN_CLOEXEC );
    if ( fd_ < 0 ) {
        throw Error( std::string( "cannot create an inotify instance: " ) +
                     std::strerror( errno ) );
    }
    if ( loop ) {
        try {
            fdWatch_ = loop->watchFd( fd_, EPOLLIN, [this]( uint32_t ) { poll(); } );
        } catch ( ... ) {
            ::close( fd_ );
            throw;
        }
    }
}

Inotify::~Inotify() {
    CSPF_ASSERT( depth_ == 0 );
    fdWatch_.reset();
    for ( auto& [wd, w] : wds_ ) {
        for ( Entry& e : w.entries ) {
            if ( e.handle ) {
                e.handle->inotify_ = nullptr;
            }
        }
    }
    ::close( fd_ );
}

std::unique_ptr<InotifyWatch> Inotify::watch( const std::string& absolutePath,
                                              uint32_t mask, Callback callback ) {
    return doWatch( absolutePath, absolutePath, mask, std::move( callback ) );
}

std::unique_ptr<InotifyWatch> Inotify::watch( int fd, const std::string& shownPath,
                                              uint32_t mask, Callback callback ) {
    return doWatch( TreeDir::fdPath( fd ), shownPath, mask, std::move( callback ) );
}

std::unique_ptr<InotifyWatch> Inotify::doWatch( const std::string& kernelPath,
                                                const std::string& absolutePath,
                                                uint32_t mask, Callback callback ) {
    CSPF_ASSERT( callback );
    // IN_MASK_ADD: another handle may already watch this inode with other
    // events; the kernel mask must cover both.
    int wd = inotify_add_watch( fd_, kernelPath.c_str(), mask | IN_MASK_ADD );
    if ( wd < 0 ) {
        throw SystemError( "cannot watch " + absolutePath + " with inotify", errno );
    }
    auto [it, inserted] = wds_.try_emplace( wd );
    Wd& w = it->second;
    if ( inserted ) {
        w.path = absolutePath;
    }
    w.kernelGone = false;
    std::unique_ptr<InotifyWatch> handle(
        new InotifyWatch( this, wd, absolutePath, mask ) );
    w.entries.push_back( Entry{ handle.get(), mask,
                                std::make_unique<Callback>( std::move( callback ) ) } );
    ++w.live;
    return handle;
}

size_t Inotify::poll() {
    struct DepthGuard {
        Inotify* self;
        explicit DepthGuard( Inotify* s ) : self( s ) { ++self->depth_; }
        ~DepthGuard() {
            if ( --self->depth_ == 0 && !self->dirty_.empty() ) {
                self->doCompact();
            }
        }
    } guard( this );

    alignas( inotify_event ) char buf[16384];
    size_t count = 0;
    for ( ;; ) {
        ssize_t n = ::read( fd_, buf, sizeof( buf ) );
        if ( n < 0 ) {
            if ( errno == EINTR ) {
                continue;
            }
            if ( errno == EAGAIN ) {
                break;
            }
            throw Error( "cannot read inotify fd " + std::to_string( fd_ ) + ": " +
                         std::strerror( errno ) );
        }
        if ( n == 0 ) {
            break;
        }
        size_t size = static_cast<size_t>( n );
        size_t off = 0;
        while ( off + sizeof( inotify_event ) <= size ) {
            inotify_event ev;
            std::memcpy( &ev, buf + off, sizeof( ev ) );
            size_t step = sizeof( inotify_event ) + ev.len;
            if ( off + step > size ) {
                break;
            }
            const char* namePtr = buf + off + sizeof( inotify_event );
            std::string_view name( namePtr, strnlen( namePtr, ev.len ) );
            ++count;
            ++events_;
            doDispatch( ev.wd, ev.mask, name );
            off += step;
        }
    }
    return count;
}

void Inotify::doDispatch( int wd, uint32_t mask, std::string_view name ) {
    if ( mask & IN_Q_OVERFLOW ) {
        doDispatchOverflow();
        return;
    }
    auto it = wds_.find( wd );
    if ( it == wds_.end() || it->second.live == 0 ) {
        return;  // a watch removed while its events were queued
    }
    Wd& w = it->second;
    doCall( w, w.entries.size(), mask, name );
    if ( mask & IN_IGNORED ) {
        doDrop( wd, w );
    }
}

void Inotify::doDispatchOverflow() {
    ++overflows_;
    std::vector<std::pair<int, size_t>> snapshot;
    for ( const auto& [wd, w] : wds_ ) {
        if ( w.live ) {
            snapshot.emplace_back( wd, w.entries.size() );
        }
    }
    std::sort( snapshot.begin(), snapshot.end() );
    for ( const auto& [wd, count] : snapshot ) {
        auto it = wds_.find( wd );
        if ( it != wds_.end() ) {
            doCall( it->second, count, IN_Q_OVERFLOW, {} );
        }
    }
}

void Inotify::doCall( Wd& w, size_t count, uint32_t mask, std::string_view name ) {
    // Indexes, not iterators: a callback may add entries to this very vector.
    for ( size_t i = 0; i < count && i < w.entries.size(); ++i ) {
        const Entry& e = w.entries[i];
        if ( !e.handle ) {
            continue;
        }
        if ( !( mask & kAlwaysDelivered ) && !( mask & e.mask & IN_ALL_EVENTS ) ) {
            continue;
        }
        Callback* callback = e.callback.get();
        ( *callback )( mask, name );
    }
}

void Inotify::doHandleDel( InotifyWatch* handle ) {
    int wd = handle->wd_;
    auto it = wds_.find( wd );
    CSPF_ASSERT( it != wds_.end() );
    Wd& w = it->second;
    auto e = std::find_if( w.entries.begin(), w.entries.end(),
                           [handle]( const Entry& x ) { return x.handle == handle; } );
    CSPF_ASSERT( e != w.entries.end() );
    handle->wd_ = -1;
    --w.live;
    if ( depth_ == 0 ) {
        w.entries.erase( e );
    } else {
        e->handle = nullptr;
        dirty_.push_back( wd );
    }
    if ( w.live == 0 ) {
        if ( !w.kernelGone ) {
            // Fails only when the kernel already dropped it (IN_IGNORED queued).
            inotify_rm_watch( fd_, wd );
            w.kernelGone = true;
        }
        if ( depth_ == 0 ) {
            wds_.erase( it );
        }
    }
}

void Inotify::doDrop( int wd, Wd& w ) {
    for ( Entry& e : w.entries ) {
        if ( e.handle ) {
            e.handle->wd_ = -1;
            e.handle = nullptr;
        }
    }
    w.live = 0;
    w.kernelGone = true;
    dirty_.push_back( wd );
}

void Inotify::doCompact() {
    std::vector<int> dirty;
    dirty.swap( dirty_ );
    for ( int wd : dirty ) {
        auto it = wds_.find( wd );
        if ( it == wds_.end() ) {
            continue;
        }
        auto& entries = it->second.entries;
        entries.erase( std::remove_if( entries.begin(), entries.end(),
                                       []( const Entry& e ) { return !e.handle; } ),
                       entries.end() );
        if ( entries.empty() ) {
            wds_.erase( it );
        }
    }
}

size_t Inotify::watchedPaths() const {
    return static_cast<size_t>( std::count_if(
        wds_.begin(), wds_.end(), []( const auto& kv ) { return kv.second.live > 0; } ) );
}

size_t Inotify::handles() const {
    size_t n = 0;
    for ( const auto& kv : wds_ ) {
        n += kv.second.live;
    }
    return n;
}

void Inotify::dumpState( DumpContext& context, unsigned indent ) const {
    objDumpLine( context, indent,
                 "Inotify fd %d: %zu watched paths, %zu handles, %llu events, %llu "
                 "overflows\n",
                 fd_, watchedPaths(), handles(),
                 static_cast<unsigned long long>( events_ ),
                 static_cast<unsigned long long>( overflows_ ) );
    std::vector<int> wds;
    for ( const auto& [wd, w] : wds_ ) {
        if ( w.live ) {
            wds.push_back( wd );
        }
    }
    std::sort( wds.begin(), wds.end() );
    for ( int wd : wds ) {
        const Wd& w = wds_.at( wd );
        objDumpLine( context, indent + 2, "wd %d %s: %zu handles\n", wd, w.path.c_str(),
                     w.live );
    }
}

}  // namespace Platform
