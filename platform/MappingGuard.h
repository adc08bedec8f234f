// A guard over a shared mapping of a file that another process may shrink.
//
// Touching a page of a MAP_SHARED mapping that lies past the file's end (the
// file was truncated while mapped), or that tmpfs cannot back (it is full),
// raises SIGBUS. A table's file belongs to its peers as much as to us, so the
// platform installs, once, a SIGBUS handler that looks the faulting address up
// among the guarded mappings: inside one, it maps private zero pages from the
// faulting page to the mapping's end (short of pages it replaced before, which
// keep what was written into them), marks the mapping faulted and returns,
// so the access completes and reads zeros (a write goes nowhere). A fault
// anywhere else goes to the handler that was there before us, or kills the
// process as SIGBUS always did. The owner of the mapping checks `faulted()`
// after reading and reports the table as damaged: zeros read from such a page
// are never taken for content.
#pragma once

#include <cstddef>

namespace Platform {

class MappingGuard {
  public:
    MappingGuard() = default;
    ~MappingGuard() { del(); }
    MappingGuard( const MappingGuard& ) = delete;
    MappingGuard& operator=( const MappingGuard& ) = delete;

    // Guards [base, base + size), mapped with `prot`; before its first access.
    void add( void* base, size_t size, int prot );
    // Stops guarding; before the mapping goes.
    void del();
    // Some access faulted since add(): part of the mapping now reads zeros.
    bool faulted() const;

  private:
    struct Region* region_ = nullptr;
};

}  // namespace Platform
