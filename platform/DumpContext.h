// State dumps: a tree of lines written to a file descriptor.
//
// Every inspectable object has `dumpState( DumpContext&, unsigned indent )`.
// Each line starts in column `indent`: at a non-zero indentation it carries a
// "%*c" prefix fed the indentation and a blank, at indentation 0 it has no
// prefix. objDumpLine() applies that rule so that no dumpState writes it twice.
// Children are dumped through ObjDumpChild() at the parent's indentation + 2.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>
#include <unordered_set>

namespace Platform {

class DumpContext {
  public:
    // `maxDepth` bounds the nesting of ObjDumpChild (0: no bound); `maxBytes`
    // bounds the whole output (0: no bound), for dumps sent over a socket.
    explicit DumpContext( int fd, uint32_t maxDepth = 0, uint32_t maxBytes = 0 );
    ~DumpContext();
    DumpContext( const DumpContext& ) = delete;
    DumpContext& operator=( const DumpContext& ) = delete;

    int fd() const { return fd_; }
    // When off, an object reached a second time in the same dump is skipped.
    bool dumpDuplicates() const { return dumpDuplicates_; }
    void dumpDuplicatesIs( bool on ) { dumpDuplicates_ = on; }

    void write( const char* data, size_t len );
    void vprintf( const char* format, va_list args );
    void flush();

    // Book-keeping for ObjDumpChild.
    bool enterChild( const void* obj );
    void leaveChild() { --depth_; }

  private:
    int fd_;
    uint32_t maxDepth_;
    uint32_t maxBytes_;
    uint32_t depth_ = 0;
    uint64_t written_ = 0;
    bool dumpDuplicates_ = false;
    std::string buffer_;
    std::unordered_set<const void*> seen_;
};

// Writes one formatted piece.
void objDumpPrintf( DumpContext& context, const char* format, ... )
    __attribute__( ( format( printf, 2, 3 ) ) );

// Writes `format` starting in column `indent`: "%*c" fed (indent, ' ') and
// then the text when indent is not 0, the bare text when it is.
void objDumpLine( DumpContext& context, unsigned indent, const char* format, ... )
    __attribute__( ( format( printf, 3, 4 ) ) );

// Dumps a child (a pointer-like or a pointer) through its dumpState.
template <typename P>
void ObjDumpChild( const P& child, DumpContext& context, unsigned indent ) {
    if ( !child ) {
        return;
    }
    if ( !context.enterChild( &*child ) ) {
        return;
    }
    child->dumpState( context, indent );
    context.leaveChild();
}

}  // namespace Platform
