// A tmpfs of a few pages, for what happens when it is full: mounted over a
// directory in a mount namespace of a child process only, so it leaves
// nothing behind. Needs root (CAP_SYS_ADMIN); elsewhere the test skips.
#pragma once

#include <sched.h>
#include <sys/mount.h>

#include <functional>
#include <string>

#include "tests/support/Child.h"

namespace TestKit {

// The exit code of a child that could not mount the tmpfs.
constexpr int kNoTmpfs = 77;
constexpr const char* kNoTmpfsWhy =
    "cannot mount a small tmpfs here (needs root to unshare a mount namespace)";

// Runs `fn` in a child over a tmpfs of `bytes` mounted at the existing `dir`;
// returns as reapChild does, kNoTmpfs when the mount was not allowed.
inline int inSmallTmpfs( const std::string& dir, size_t bytes,
                         const std::function<int()>& fn, double seconds ) {
    const pid_t pid = forkChild( [&] {
        // Mode 0700: the tree uses only directories that nobody else may write.
        const std::string options = "size=" + std::to_string( bytes ) + ",mode=0700";
        if ( unshare( CLONE_NEWNS ) != 0 ||
             mount( nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr ) != 0 ||
             mount( "tmpfs", dir.c_str(), "tmpfs", 0, options.c_str() ) != 0 ) {
            return kNoTmpfs;
        }
        return fn();
    } );
    return reapChild( pid, seconds );
}

}  // namespace TestKit
