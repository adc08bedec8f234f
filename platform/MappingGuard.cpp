#include "platform/MappingGuard.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

namespace Platform {

// One guarded mapping. Regions are never freed: the signal handler walks the
// list without a lock, so a region only goes back on the free list (base 0)
// and is reused.
struct Region {
    std::atomic<uintptr_t> base{ 0 };  // 0: free
    std::atomic<size_t> size{ 0 };
    std::atomic<int> prot{ 0 };
    std::atomic<bool> faulted{ false };
    // [zeroedFrom, base + size) is private zero pages already: a later fault,
    // lower down, replaces only up to there, so that what was written into
    // those pages since stays.
    std::atomic<uintptr_t> zeroedFrom{ 0 };
    Region* next = nullptr;  // fixed once the region is on the list
};

namespace {

std::atomic<Region*> regions{ nullptr };
std::mutex regionsMutex;            // add() and del(), never the handler
std::vector<Region*>* freeRegions;  // under regionsMutex
struct sigaction previousAction;    // what SIGBUS did before us
uintptr_t pageSize = 4096;

void passOn( int sig, siginfo_t* info, void* context ) {
    if ( previousAction.sa_flags & SA_SIGINFO ) {
        if ( previousAction.sa_sigaction ) {
            previousAction.sa_sigaction( sig, info, context );
            return;
        }
    } else if ( previousAction.sa_handler != SIG_DFL &&
                previousAction.sa_handler != SIG_IGN ) {
        previousAction.sa_handler( sig );
        return;
    }
    // The default: the faulting access runs again and the process dies of it.
    signal( SIGBUS, SIG_DFL );
}

void onSigbus( int sig, siginfo_t* info, void* context ) {
    const auto addr = reinterpret_cast<uintptr_t>( info->si_addr );
    for ( Region* r = regions.load( std::memory_order_acquire ); r; r = r->next ) {
        const uintptr_t base = r->base.load( std::memory_order_acquire );
        const size_t size = r->size.load( std::memory_order_acquire );
        if ( !base || addr < base || addr - base >= size ) {
            continue;
        }
        // The page faulted because it lies past the file's end, and so does
        // every page after it.
        const uintptr_t page = addr & ~( pageSize - 1 );
        const uintptr_t top = r->zeroedFrom.load( std::memory_order_acquire );
        if ( page >= top ) {
            break;  // not a fault of the file's
        }
        // mmap is a plain system call: safe in a signal handler.
        void* p = mmap( reinterpret_cast<void*>( page ), top - page,
                        r->prot.load( std::memory_order_relaxed ),
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0 );
        if ( p == MAP_FAILED ) {
            break;
        }
        r->zeroedFrom.store( page, std::memory_order_release );
        r->faulted.store( true, std::memory_order_release );
        return;
    }
    passOn( sig, info, context );
}

void installOnce() {
    static std::once_flag once;
    std::call_once( once, [] {
        pageSize = static_cast<uintptr_t>( sysconf( _SC_PAGESIZE ) );
        freeRegions = new std::vector<Region*>();
        struct sigaction sa = {};
        sa.sa_sigaction = onSigbus;
        sigemptyset( &sa.sa_mask );
        // NODEFER: the handler only returns, and a second fault must find
        // SIGBUS unblocked.
        sa.sa_flags = SA_SIGINFO | SA_NODEFER | SA_RESTART;
        sigaction( SIGBUS, &sa, &previousAction );
    } );
}

}  // namespace

void MappingGuard::add( void* base, size_t size, int prot ) {
    del();
    installOnce();
    std::lock_guard<std::mutex> lock( regionsMutex );
    Region* r;
    if ( !freeRegions->empty() ) {
        r = freeRegions->back();
        freeRegions->pop_back();
    } else {
        r = new Region();
        r->next = regions.load( std::memory_order_relaxed );
        regions.store( r, std::memory_order_release );
    }
    r->faulted.store( false, std::memory_order_relaxed );
    r->prot.store( prot, std::memory_order_relaxed );
    r->size.store( size, std::memory_order_relaxed );
    r->zeroedFrom.store( reinterpret_cast<uintptr_t>( base ) + size,
                         std::memory_order_relaxed );
    r->base.store( reinterpret_cast<uintptr_t>( base ), std::memory_order_release );
    region_ = r;
}

void MappingGuard::del() {
    if ( !region_ ) {
        return;
    }
    std::lock_guard<std::mutex> lock( regionsMutex );
    region_->base.store( 0, std::memory_order_release );
    freeRegions->push_back( region_ );
    region_ = nullptr;
}

bool MappingGuard::faulted() const {
    return region_ && region_->faulted.load( std::memory_order_acquire );
}

}  // namespace Platform
