#include "platform/ShmTable.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "platform/Assert.h"
#include "platform/Clock.h"
#include "platform/Error.h"
#include "platform/TreeDir.h"

namespace Platform {

namespace {

constexpr char kMagic[8] = { 'C', 'S', 'P', 'F', 'T', 'B', 'L', '1' };
constexpr uint32_t kFormat = 1;
constexpr uint32_t kHeaderSize = 4096;
constexpr uint32_t kRingCapacity = 1024;
constexpr uint32_t kMaxValueSize = 1u << 20;
constexpr uint32_t kMaxKeySize = 1024;
constexpr uint32_t kMaxCapacity = 1u << 28;
// Size classes: 16..512 bytes by 16 (0..31), then powers of two up to 1 MiB.
constexpr uint32_t kClasses = 43;
constexpr uint32_t kEmpty = 0, kLive = 1, kTombstone = 2;
constexpr uint32_t kMinCapacity = 64;
constexpr uint64_t kMinHeap = 64 * 1024;
// Values of at most this size live in their slot, after the key: a lookup
// then touches one slot and no heap block.
constexpr uint32_t kMaxInlineValue = 64;
// How long a reader waits, in all, for slots that a live writer is in the
// middle of, until the writer changes the table again; a slot whose writer is
// gone is given up at once.
constexpr double kBusySeconds = 1.0;
// An index larger than this many slots per record is not one a writer makes
// (it shrinks the index at half this ratio): a reader refuses it rather than
// scan it.
constexpr uint64_t kMaxSlotsPerRecord = 16;
// How often a key is told again when it keeps changing while its watcher is
// being told; the rest waits for the next sync.
constexpr int kMaxRetells = 8;

struct Header {
    char magic[8];
    uint32_t format;
    uint32_t headerSize;
    char typeName[64];
    uint64_t layoutHash;
    uint32_t keySize;
    uint32_t maxValueSize;
    uint64_t fileSize;
    uint64_t ringOffset;
    uint32_t ringCapacity;
    uint32_t slotSize;
    uint64_t indexOffset;
    uint32_t indexCapacity;
    uint32_t writerPid;
    uint64_t heapOffset;
    uint64_t heapEnd;
    uint64_t tableId;
    // Written while the table lives.
    uint64_t changeSeq;  // atomic: the sequence of the last change
    uint32_t replaced;   // atomic: a newer file holds the path
    uint32_t liveCount;
    uint32_t tombstones;
    uint32_t inlineValues;  // 1: values live in their slots, after the key
    uint64_t heapTop;
    uint64_t freeList[kClasses];
    uint8_t bell;  // written through the fd to wake readers
};
static_assert( sizeof( Header ) <= kHeaderSize );
static_assert( std::is_standard_layout_v<Header> );

struct RingEntry {
    uint64_t seq;  // atomic
    uint32_t slot;
    uint32_t reserved;
};
static_assert( sizeof( RingEntry ) == 16 );

struct SlotHead {
    uint64_t seq;      // atomic seqlock word: odd while written
    uint64_t version;  // change sequence of the last write
    uint64_t valueOffset;
    uint32_t valueLen;
    uint32_t state;
    uint64_t hash;
};
static_assert( sizeof( SlotHead ) == 40 );

uint32_t round8( uint32_t n ) {
    return ( n + 7 ) & ~7u;
}

uint32_t slotSizeFor( uint32_t keySize, uint32_t maxValueSize, bool inlineValues ) {
    return 40 + round8( keySize ) + ( inlineValues ? round8( maxValueSize ) : 0 );
}

// Callers bound len by kMaxValueSize first.
uint32_t sizeClass( uint32_t len ) {
    if ( len <= 512 ) {
        return ( std::max<uint32_t>( len, 1 ) + 15 ) / 16 - 1;
    }
    uint32_t c = 32;
    for ( uint64_t size = 1024; size < len; size <<= 1 ) {
        ++c;
    }
    return c;
}

uint64_t classSize( uint32_t c ) {
    return c < 32 ? ( c + 1 ) * 16ull : 1024ull << ( c - 32 );
}

// The hash of a key's bytes, a word at a time. Part of the file format: the
// slots store it and the probe starts from its low bits.
uint64_t keyHash( const void* key, uint32_t len ) {
    const auto* p = static_cast<const uint8_t*>( key );
    uint64_t h = 0x9e3779b97f4a7c15ull ^ len;
    uint32_t i = 0;
    for ( ; i + 8 <= len; i += 8 ) {
        uint64_t w;
        std::memcpy( &w, p + i, 8 );
        h = ( h ^ w ) * 0xff51afd7ed558ccdull;
        h ^= h >> 32;
    }
    // The last 0..7 bytes as a little-endian word, in fixed-size pieces
    // rather than one copy of variable length.
    uint64_t tail = 0;
    const uint32_t rest = len - i;
    uint32_t at = 0;
    if ( rest >= 4 ) {
        uint32_t w;
        std::memcpy( &w, p + i, 4 );
        tail = w;
        at = 4;
    }
    if ( rest - at >= 2 ) {
        uint16_t w;
        std::memcpy( &w, p + i + at, 2 );
        tail |= uint64_t{ w } << ( at * 8 );
        at += 2;
    }
    if ( rest > at ) {
        tail |= uint64_t{ p[i + at] } << ( at * 8 );
    }
    h = ( h ^ tail ) * 0xc4ceb9fe1a85ec53ull;
    h ^= h >> 29;
    h *= 0xff51afd7ed558ccdull;
    h ^= h >> 32;
    return h;
}

inline std::atomic_ref<uint64_t> atomic64( const uint64_t& v ) {
    return std::atomic_ref<uint64_t>( const_cast<uint64_t&>( v ) );
}
inline std::atomic_ref<uint32_t> atomic32( const uint32_t& v ) {
    return std::atomic_ref<uint32_t>( const_cast<uint32_t&>( v ) );
}

inline void cpuRelax() {
    __builtin_ia32_pause();
}

SystemError sysError( const std::string& what, const std::string& path ) {
    return SystemError( what + " " + path, errno );
}

Header* headerOf( const ShmTableFile& f ) {
    return reinterpret_cast<Header*>( f.base() );
}
uint8_t* slotAt( const ShmTableFile& f, uint32_t i ) {
    const TableGeometry& g = f.geometry();
    return f.base() + g.indexOffset + static_cast<uint64_t>( i ) * g.slotSize;
}
SlotHead* headAt( const ShmTableFile& f, uint32_t i ) {
    return reinterpret_cast<SlotHead*>( slotAt( f, i ) );
}
RingEntry* ringAt( const ShmTableFile& f, uint64_t seq ) {
    const TableGeometry& g = f.geometry();
    return reinterpret_cast<RingEntry*>( f.base() + g.ringOffset ) +
           ( seq & ( g.ringCapacity - 1 ) );
}

// Where the value of slot `i` starts: in the slot, or at the head's offset.
uint64_t valueAt( const TableGeometry& g, uint32_t i, const SlotHead& head ) {
    return g.inlineValues
               ? g.indexOffset + uint64_t{ i } * g.slotSize + 40 + round8( g.keySize )
               : head.valueOffset;
}

bool valueInBounds( const TableGeometry& g, uint64_t offset, uint32_t len ) {
    if ( g.inlineValues ) {
        return len <= g.maxValueSize;
    }
    return len <= g.maxValueSize &&
           ( len == 0 || ( offset >= g.heapOffset && offset <= g.heapEnd &&
                           len <= g.heapEnd - offset ) );
}

// The writer holds an open-file-description lock on its file for its life;
// it goes with the writer's process. Readers test for it without taking it.
bool lockWriter( int fd ) {
    struct flock fl = {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    return fcntl( fd, F_OFD_SETLK, &fl ) == 0;
}

bool writerAlive( int fd ) {
    struct flock fl = {};
    fl.l_type = F_RDLCK;
    fl.l_whence = SEEK_SET;
    return fcntl( fd, F_OFD_GETLK, &fl ) == 0 && fl.l_type != F_UNLCK;
}

}  // namespace

bool tableWriterAlive( const TablePath& where ) {
    const TreeDir dir( where.root, where.directory );
    if ( !dir.complete() ) {
        return false;
    }
    const int fd =
        openat( dir.fd(), where.name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW );
    if ( fd < 0 ) {
        return false;
    }
    const bool alive = writerAlive( fd );
    ::close( fd );
    return alive;
}

namespace {

uint64_t newTableId() {
    uint64_t id = 0;
    if ( getrandom( &id, sizeof( id ), GRND_NONBLOCK ) != sizeof( id ) ) {
        id = static_cast<uint64_t>( SystemClock().now() * 1e9 ) ^
             ( static_cast<uint64_t>( getpid() ) << 40 );
    }
    return id | 1;  // never 0, which stands for "no table"
}

enum class SlotRead { ok, halfWritten, bad };

struct SlotSnap {
    SlotHead head;
    uint64_t seq = 0;  // the seqlock word the snapshot was taken under
    bool keyMatches = false;
};

// A consistent copy of one slot, read under its seqlock. `want` is the key
// whose value to copy (null: none); `keyOut` receives the slot's key.
SlotRead readSlot( const ShmTableFile& f, uint32_t i, const void* want, uint64_t wantHash,
                   std::vector<uint8_t>* value, SlotSnap& snap, std::string* keyOut,
                   BusyPatience& patience ) {
    const TableGeometry& g = f.geometry();
    const uint8_t* slot = slotAt( f, i );
    const SlotHead* head = reinterpret_cast<const SlotHead*>( slot );
    for ( uint32_t tries = 0;; ++tries ) {
        uint64_t s1 = atomic64( head->seq ).load( std::memory_order_acquire );
        if ( s1 & 1 ) {
            if ( tries < 64 ) {
                cpuRelax();
                continue;
            }
            // A stopped writer never finishes; a live but descheduled one
            // does, so yield to it for a bounded time.
            const double t = SystemClock().now();
            if ( ( patience.until != 0 && t > patience.until ) ||
                 !writerAlive( f.fd() ) ) {
                return SlotRead::halfWritten;
            }
            if ( patience.until == 0 ) {
                patience.until = t + kBusySeconds;
            }
            sched_yield();
            continue;
        }
        std::memcpy( &snap.head, slot, sizeof( SlotHead ) );
        snap.keyMatches = want && snap.head.state == kLive &&
                          snap.head.hash == wantHash &&
                          std::memcmp( slot + sizeof( SlotHead ), want, g.keySize ) == 0;
        if ( keyOut ) {
            keyOut->clear();
            if ( snap.head.state == kLive || snap.head.state == kTombstone ) {
                keyOut->assign(
                    reinterpret_cast<const char*>( slot + sizeof( SlotHead ) ),
                    g.keySize );
            }
        }
        const uint64_t at = valueAt( g, i, snap.head );
        const bool inBounds = valueInBounds( g, at, snap.head.valueLen );
        if ( snap.keyMatches && value && inBounds ) {
            value->resize( snap.head.valueLen );
            if ( snap.head.valueLen ) {
                std::memcpy( value->data(), f.base() + at, snap.head.valueLen );
            }
        }
        std::atomic_thread_fence( std::memory_order_acquire );
        if ( atomic64( head->seq ).load( std::memory_order_relaxed ) != s1 ) {
            continue;
        }
        snap.seq = s1;
        if ( snap.head.state > kTombstone || ( snap.head.state == kLive && !inBounds ) ) {
            return SlotRead::bad;
        }
        return SlotRead::ok;
    }
}

std::string slotProblem( SlotRead r, uint32_t i ) {
    return "record in slot " + std::to_string( i ) +
           ( r == SlotRead::halfWritten ? " was left half-written by its writer"
                                        : " fails its bounds" );
}

// Whether a slot's key bytes are `key`'s, a word at a time: keys are short,
// and a library call costs more than the compare.
bool sameKey( const uint8_t* slotKey, const void* key, uint32_t len ) {
    const auto* k = static_cast<const uint8_t*>( key );
    uint32_t i = 0;
    for ( ; i + 8 <= len; i += 8 ) {
        uint64_t a;
        uint64_t b;
        std::memcpy( &a, slotKey + i, 8 );
        std::memcpy( &b, k + i, 8 );
        if ( a != b ) {
            return false;
        }
    }
    if ( i + 4 <= len ) {
        uint32_t a;
        uint32_t b;
        std::memcpy( &a, slotKey + i, 4 );
        std::memcpy( &b, k + i, 4 );
        if ( a != b ) {
            return false;
        }
        i += 4;
    }
    for ( ; i < len; ++i ) {
        if ( slotKey[i] != k[i] ) {
            return false;
        }
    }
    return true;
}

// Finds the slot of `key`; -1 when absent. Throws CorruptionError when the
// key's own record is bad; other bad slots on the way are passed over.
// A slot that only zeros fill, read after the file faulted, is not taken for
// an empty one: the lookup throws.
int64_t findSlot( const ShmTableFile& f, const void* key, std::vector<uint8_t>* value,
                  uint64_t* version, BusyPatience& patience, SlotSnap* found = nullptr ) {
    const TableGeometry& g = f.geometry();
    const uint64_t hash = keyHash( key, g.keySize );
    const uint32_t mask = g.indexCapacity - 1;
    SlotSnap local;
    SlotSnap& snap = found ? *found : local;
    for ( uint32_t n = 0; n < g.indexCapacity; ++n ) {
        const uint32_t i = static_cast<uint32_t>( ( hash + n ) & mask );
        const SlotRead r = readSlot( f, i, key, hash, value, snap, nullptr, patience );
        if ( r != SlotRead::ok ) {
            // A record left half-written or out of bounds is this key's own
            // only when it carries this key; another key's is passed over,
            // so that one broken record does not hide the keys beyond it.
            SlotHead raw;
            std::memcpy( &raw, slotAt( f, i ), sizeof( raw ) );
            if ( raw.hash == hash && std::memcmp( slotAt( f, i ) + sizeof( SlotHead ),
                                                  key, g.keySize ) == 0 ) {
                throw CorruptionError( f.path(), slotProblem( r, i ) );
            }
            continue;
        }
        if ( snap.head.state == kEmpty ) {
            f.checkIntact();
            return -1;
        }
        if ( snap.keyMatches ) {
            if ( version ) {
                *version = snap.head.version;
            }
            return i;
        }
    }
    f.checkIntact();
    return -1;
}

}  // namespace

uint64_t tableLayoutHash( std::string_view description ) {
    return keyHash( description.data(), static_cast<uint32_t>( description.size() ) );
}

// ---------------------------------------------------------------- file

ShmTableFile::~ShmTableFile() {
    close();
}

void ShmTableFile::close() {
    guard_.del();
    if ( base_ ) {
        munmap( base_, size_ );
        base_ = nullptr;
    }
    if ( fd_ >= 0 ) {
        ::close( fd_ );
        fd_ = -1;
    }
    size_ = 0;
    geometry_ = TableGeometry();
}

void ShmTableFile::adopt( int fd, const std::string& path, const TableLayout& layout,
                          bool writable ) {
    close();
    path_ = path;
    fd_ = fd;
    struct stat st;
    if ( fstat( fd_, &st ) != 0 ) {
        int e = errno;
        close();
        errno = e;
        throw sysError( "cannot stat table", path );
    }
    if ( !S_ISREG( st.st_mode ) ) {
        close();
        throw CorruptionError( path, "not a regular file" );
    }
    if ( static_cast<uint64_t>( st.st_size ) < kHeaderSize ) {
        close();
        throw CorruptionError( path, "truncated: " + std::to_string( st.st_size ) +
                                         " bytes, a header needs " +
                                         std::to_string( kHeaderSize ) );
    }
    size_ = static_cast<size_t>( st.st_size );
    const int prot = PROT_READ | ( writable ? PROT_WRITE : 0 );
    void* p = mmap( nullptr, size_, prot, MAP_SHARED, fd_, 0 );
    if ( p == MAP_FAILED ) {
        int e = errno;
        close();
        errno = e;
        throw sysError( "cannot map table", path );
    }
    base_ = static_cast<uint8_t*>( p );
    // Whoever else may open the file may also shrink it: from now on, an
    // access past its end reads zeros and is reported, never SIGBUS.
    guard_.add( base_, size_, prot );
    uint64_t allocated = static_cast<uint64_t>( st.st_blocks ) * 512;
    if ( writable && allocated < size_ && posix_fallocate( fd_, 0, st.st_size ) == 0 ) {
        // A file of an older build, whose writer did not reserve its pages:
        // its writer fills the holes and keeps every record.
        allocated = size_;
    }
    try {
        doCheck( layout, allocated, writable );
    } catch ( ... ) {
        close();
        throw;
    }
}

void ShmTableFile::doCheck( const TableLayout& layout, uint64_t allocated,
                            bool writable ) {
    // One copy of the header, checked and then kept: the shared one may
    // change under us.
    Header h;
    std::memcpy( &h, base_, sizeof( h ) );
    auto corrupt = [&]( const std::string& why ) { throw CorruptionError( path_, why ); };
    if ( std::memcmp( h.magic, kMagic, sizeof( kMagic ) ) != 0 ) {
        corrupt( "bad magic: not a table" );
    }
    if ( h.format != kFormat ) {
        corrupt( "format version " + std::to_string( h.format ) + ", expected " +
                 std::to_string( kFormat ) );
    }
    if ( h.headerSize != kHeaderSize ) {
        corrupt( "header size " + std::to_string( h.headerSize ) );
    }
    std::string type( h.typeName, strnlen( h.typeName, sizeof( h.typeName ) ) );
    if ( type != layout.typeName || h.layoutHash != layout.layoutHash ||
         h.keySize != layout.keySize || h.maxValueSize != layout.maxValueSize ) {
        throw Error( "table " + path_ + " holds " + type + " (layout " +
                     std::to_string( h.layoutHash ) + "), expected " + layout.typeName +
                     " (layout " + std::to_string( layout.layoutHash ) + ")" );
    }
    if ( h.fileSize != size_ ) {
        corrupt( "truncated: " + std::to_string( size_ ) + " bytes, the header says " +
                 std::to_string( h.fileSize ) );
    }
    const auto pow2 = []( uint32_t v ) { return v && !( v & ( v - 1 ) ); };
    if ( !pow2( h.indexCapacity ) || h.indexCapacity > kMaxCapacity ||
         !pow2( h.ringCapacity ) || h.ringCapacity > kMaxCapacity || h.inlineValues > 1 ||
         h.slotSize != slotSizeFor( h.keySize, h.maxValueSize, h.inlineValues ) ||
         h.ringOffset != kHeaderSize ||
         h.indexOffset !=
             h.ringOffset + uint64_t{ h.ringCapacity } * sizeof( RingEntry ) ||
         h.heapOffset != h.indexOffset + uint64_t{ h.indexCapacity } * h.slotSize ||
         h.heapEnd != h.fileSize || h.heapOffset > h.heapEnd || h.tableId == 0 ) {
        corrupt( "inconsistent region sizes" );
    }
    // A writer reserves every page of its file before it maps it. A file with
    // holes would have its readers fill tmpfs with the pages their reads
    // fault in, as many as its header claims, for nothing.
    if ( allocated < size_ ) {
        corrupt( "sparse: " + std::to_string( allocated ) + " of " +
                 std::to_string( size_ ) + " bytes are there" );
    }
    // The writer re-counts the records it keeps; a reader scans the index, so
    // the index must be of a size the writer could have left for the count.
    if ( !writable && ( h.liveCount > h.indexCapacity ||
                        ( h.indexCapacity > kMinCapacity &&
                          h.indexCapacity > kMaxSlotsPerRecord * h.liveCount ) ) ) {
        corrupt( "an index of " + std::to_string( h.indexCapacity ) + " slots for " +
                 std::to_string( h.liveCount ) + " records" );
    }
    geometry_.tableId = h.tableId;
    geometry_.fileSize = h.fileSize;
    geometry_.ringOffset = h.ringOffset;
    geometry_.ringCapacity = h.ringCapacity;
    geometry_.slotSize = h.slotSize;
    geometry_.indexOffset = h.indexOffset;
    geometry_.indexCapacity = h.indexCapacity;
    geometry_.keySize = h.keySize;
    geometry_.maxValueSize = h.maxValueSize;
    geometry_.heapOffset = h.heapOffset;
    geometry_.heapEnd = h.heapEnd;
    geometry_.inlineValues = h.inlineValues == 1;
}

bool ShmTableFile::replaced() const {
    return base_ &&
           atomic32( headerOf( *this )->replaced ).load( std::memory_order_acquire );
}

bool ShmTableFile::stale() const {
    struct stat st;
    return replaced() || faulted() || fstat( fd_, &st ) != 0 || st.st_nlink == 0 ||
           static_cast<uint64_t>( st.st_size ) != size_;
}

bool ShmTableFile::resized() const {
    struct stat st;
    return fstat( fd_, &st ) == 0 && static_cast<uint64_t>( st.st_size ) != size_;
}

void ShmTableFile::checkIntact() const {
    if ( faulted() ) {
        throw CorruptionError( path_, "truncated while mapped" );
    }
}

// ---------------------------------------------------------------- paths

TablePath::TablePath( const std::string& absolutePath ) {
    const size_t slash = absolutePath.rfind( '/' );
    root = slash == std::string::npos ? "."
           : slash == 0               ? "/"
                                      : absolutePath.substr( 0, slash );
    name = absolutePath.substr( slash == std::string::npos ? 0 : slash + 1 );
}

TablePath::TablePath( std::string rootDir, std::string_view relative )
    : root( std::move( rootDir ) ) {
    const size_t slash = relative.rfind( '/' );
    if ( slash != std::string_view::npos ) {
        directory = relative.substr( 0, slash );
    }
    name = relative.substr( slash == std::string_view::npos ? 0 : slash + 1 );
}

std::string TablePath::full() const {
    return root + ( root.back() == '/' ? "" : "/" ) + directory +
           ( directory.empty() ? "" : "/" ) + name;
}

namespace {

// The table's directory, opened without following links; Error when missing.
TreeDir tableDirectory( const TablePath& where ) {
    TreeDir dir( where.root, where.directory );
    if ( !dir.complete() ) {
        throw Error( "cannot open table " + where.full() +
                     ": a directory on the way is missing or a symlink" );
    }
    return dir;
}

}  // namespace

// ---------------------------------------------------------------- writer

ShmTableWriter::ShmTableWriter( TablePath where, TableLayout layout, TableFileMode mode )
    : where_( std::move( where ) ),
      path_( where_.full() ),
      layout_( std::move( layout ) ),
      mode_( mode ) {
    if ( layout_.typeName.size() > 63 || layout_.keySize == 0 ||
         layout_.keySize > kMaxKeySize || layout_.maxValueSize > kMaxValueSize ) {
        throw Error( "table " + path_ + ": unsupported layout for " + layout_.typeName );
    }
    doAttach();
}

ShmTableWriter::~ShmTableWriter() {
    flush();
}

// Removes the temporary files that writers of this table stopped before
// renaming: ".<name>.tmp.<pid>" whose pid no longer runs, when they are ours.
void removeStaleTemporaries( const TreeDir& dir, const std::string& table ) {
    const std::string prefix = "." + table + ".tmp.";
    const int own = fcntl( dir.fd(), F_DUPFD_CLOEXEC, 0 );
    DIR* d = own < 0 ? nullptr : fdopendir( own );
    if ( !d ) {
        if ( own >= 0 ) {
            ::close( own );
        }
        return;
    }
    while ( dirent* e = readdir( d ) ) {
        const std::string name = e->d_name;
        if ( name.compare( 0, prefix.size(), prefix ) != 0 ) {
            continue;
        }
        const long pid = std::strtol( name.c_str() + prefix.size(), nullptr, 10 );
        if ( pid > 0 && kill( static_cast<pid_t>( pid ), 0 ) != 0 && errno == ESRCH &&
             TreeDir::isOurFileAt( dir.fd(), name.c_str() ) ) {
            unlinkat( dir.fd(), name.c_str(), 0 );
        }
    }
    closedir( d );
}

void ShmTableWriter::doAttach() {
    const TreeDir dir = tableDirectory( where_ );
    removeStaleTemporaries( dir, where_.name );
    for ( int attempt = 0; attempt < 100; ++attempt ) {
        int fd =
            ::openat( dir.fd(), where_.name.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW );
        if ( fd < 0 ) {
            if ( errno != ENOENT ) {
                throw sysError( "cannot open table", path_ );
            }
            doRebuild( 0, 0 );  // creates the file; falls back to attach on a race
            if ( file_.isOpen() ) {
                return;
            }
            continue;
        }
        if ( !lockWriter( fd ) ) {
            ::close( fd );
            throw Error( "table " + path_ + " already has a writer" );
        }
        struct stat st;
        const bool ours =
            fstat( fd, &st ) == 0 && S_ISREG( st.st_mode ) && st.st_uid == geteuid();
        try {
            file_.adopt( fd, path_, layout_, true );
        } catch ( const CorruptionError& e ) {
            // Nothing in a file with an unsound header can be trusted: the
            // table starts again, empty. We held its lock, so no writer lives.
            // Only a file of our own user is ours to remove.
            if ( !ours ) {
                throw Error( std::string( e.what() ) +
                             "; not owned by this process's user, left in place" );
            }
            unlinkat( dir.fd(), where_.name.c_str(), 0 );
            continue;
        }
        if ( file_.stale() ) {
            file_.close();
            continue;  // another writer replaced it meanwhile: open the new one
        }
        // Copy the content into a fresh file: records a stopped writer left
        // half-written are dropped, the allocator starts clean, and readers
        // resynchronise from the records' versions.
        doRebuild( 0, 0 );
        return;
    }
    // Replaced by other writers every time we looked: it may settle.
    throw SystemError( "table " + path_ + " keeps changing under its writer", EAGAIN );
}

bool ShmTableWriter::doValueAt( uint32_t slot, const uint8_t** value,
                                uint32_t* len ) const {
    const SlotHead* s = headAt( file_, slot );
    const uint64_t at = valueAt( file_.geometry(), slot, *s );
    if ( !valueInBounds( file_.geometry(), at, s->valueLen ) ) {
        return false;
    }
    *value = s->valueLen ? file_.base() + at : nullptr;
    *len = s->valueLen;
    return true;
}

void ShmTableWriter::doRebuild( uint32_t minRecords, size_t minHeap ) {
    const bool fresh = !file_.isOpen();
    const TableGeometry og = file_.geometry();
    const bool inlineValues = layout_.maxValueSize <= kMaxInlineValue;
    // The records worth keeping: complete, in bounds, one per key (the
    // newest, should a damaged index hold a key twice).
    std::vector<uint32_t> keep;
    uint64_t liveBytes = 0;
    if ( !fresh ) {
        std::unordered_map<std::string, size_t> byKey;
        for ( uint32_t i = 0; i < og.indexCapacity; ++i ) {
            const SlotHead* s = headAt( file_, i );
            if ( s->state != kLive || ( s->seq & 1 ) ||
                 !valueInBounds( og, valueAt( og, i, *s ), s->valueLen ) ) {
                continue;
            }
            std::string key( reinterpret_cast<const char*>( s ) + sizeof( SlotHead ),
                             og.keySize );
            auto [it, added] = byKey.try_emplace( key, keep.size() );
            if ( added ) {
                keep.push_back( i );
            } else if ( headAt( file_, keep[it->second] )->version < s->version ) {
                keep[it->second] = i;
            }
        }
        for ( uint32_t i : keep ) {
            const uint32_t len = headAt( file_, i )->valueLen;
            liveBytes += len && !inlineValues ? classSize( sizeClass( len ) ) : 0;
        }
    }
    const uint32_t live = static_cast<uint32_t>( keep.size() );
    const uint32_t records =
        std::max<uint32_t>( { live * 2, minRecords, kMinCapacity / 2 } );
    uint32_t capacity = kMinCapacity;
    while ( capacity * 7ull / 8 < records ) {
        capacity *= 2;
    }
    if ( capacity > kMaxCapacity ) {
        throw Error( "table " + path_ + " cannot hold " + std::to_string( records ) +
                     " records" );
    }
    uint64_t heap =
        inlineValues ? 0 : std::max<uint64_t>( { liveBytes * 2 + minHeap, kMinHeap } );
    heap = ( heap + 4095 ) & ~4095ull;
    const uint32_t slotSize =
        slotSizeFor( layout_.keySize, layout_.maxValueSize, inlineValues );
    const uint64_t ringBytes = uint64_t{ kRingCapacity } * sizeof( RingEntry );
    const uint64_t indexBytes = uint64_t{ capacity } * slotSize;
    const uint64_t heapOffset = kHeaderSize + ringBytes + indexBytes;
    const uint64_t total = heapOffset + heap;

    // Build the new file beside the old one, under a dot name that no listing
    // shows, locked before anyone can see it.
    const TreeDir dir = tableDirectory( where_ );
    const std::string tmpName = "." + where_.name + ".tmp." + std::to_string( getpid() );
    const char* tmp = tmpName.c_str();
    int fd = ::openat( dir.fd(), tmp, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW,
                       mode_.fileMode );
    if ( fd < 0 ) {
        throw sysError( "cannot create table", dir.path() + "/" + tmpName );
    }
    auto fail = [&]( const std::string& what ) {
        int e = errno;
        ::close( fd );
        unlinkat( dir.fd(), tmp, 0 );
        errno = e;
        throw sysError( what, path_ );
    };
    if ( fchmod( fd, mode_.fileMode ) != 0 ||
         ( mode_.group >= 0 && fchown( fd, static_cast<uid_t>( -1 ),
                                       static_cast<gid_t>( mode_.group ) ) != 0 ) ) {
        fail( "cannot set the mode of table" );
    }
    if ( !lockWriter( fd ) ) {
        fail( "cannot lock table" );
    }
    // Every page is reserved before the file is mapped: a store into a page
    // that a full tmpfs cannot back would be SIGBUS, and readers refuse
    // files with holes. Without the room, the old file stays as it is.
    if ( const int e = posix_fallocate( fd, 0, static_cast<off_t>( total ) ); e != 0 ) {
        errno = e;
        fail( "cannot reserve " + std::to_string( total ) + " bytes for table" );
    }
    void* p = mmap( nullptr, total, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0 );
    if ( p == MAP_FAILED ) {
        fail( "cannot map table" );
    }
    MappingGuard building;  // the file is visible to others under its dot name
    building.add( p, total, PROT_READ | PROT_WRITE );
    auto* nb = static_cast<uint8_t*>( p );
    auto* nh = reinterpret_cast<Header*>( nb );
    std::memcpy( nh->magic, kMagic, sizeof( kMagic ) );
    nh->format = kFormat;
    nh->headerSize = kHeaderSize;
    std::memcpy( nh->typeName, layout_.typeName.data(), layout_.typeName.size() );
    nh->layoutHash = layout_.layoutHash;
    nh->keySize = layout_.keySize;
    nh->maxValueSize = layout_.maxValueSize;
    nh->fileSize = total;
    nh->ringOffset = kHeaderSize;
    nh->ringCapacity = kRingCapacity;
    nh->slotSize = slotSize;
    nh->indexOffset = kHeaderSize + ringBytes;
    nh->indexCapacity = capacity;
    nh->writerPid = static_cast<uint32_t>( getpid() );
    nh->heapOffset = heapOffset;
    nh->heapEnd = total;
    nh->heapTop = heapOffset;
    nh->inlineValues = inlineValues ? 1 : 0;
    // A replacement keeps the table's identity and its change sequence, so
    // readers compare versions across files; a new table gets a new one.
    nh->tableId = fresh ? newTableId() : og.tableId;
    // A writer that died between writing a record and counting the change
    // left a version above the header's sequence: start past every version.
    uint64_t changeSeq = fresh ? 0 : atomic64( headerOf( file_ )->changeSeq ).load();
    for ( uint32_t i : keep ) {
        changeSeq = std::max( changeSeq, headAt( file_, i )->version );
    }
    nh->changeSeq = changeSeq;
    // Ring entries start out of date, so a reader that catches up with an
    // old sequence on this file resynchronises instead of trusting them.
    for ( uint32_t r = 0; r < kRingCapacity; ++r ) {
        reinterpret_cast<RingEntry*>( nb + kHeaderSize )[r].seq = ~0ull;
    }
    for ( uint32_t i : keep ) {
        const SlotHead* s = headAt( file_, i );
        const uint8_t* key = reinterpret_cast<const uint8_t*>( s ) + sizeof( SlotHead );
        const uint64_t hash = keyHash( key, layout_.keySize );
        uint32_t j = static_cast<uint32_t>( hash & ( capacity - 1 ) );
        auto slotIn = [&]( uint32_t n ) {
            return nb + nh->indexOffset + uint64_t{ n } * slotSize;
        };
        while ( reinterpret_cast<SlotHead*>( slotIn( j ) )->state != kEmpty ) {
            j = ( j + 1 ) & ( capacity - 1 );
        }
        auto* nsh = reinterpret_cast<SlotHead*>( slotIn( j ) );
        nsh->version = s->version;
        nsh->valueLen = s->valueLen;
        nsh->state = kLive;
        nsh->hash = hash;
        std::memcpy( slotIn( j ) + sizeof( SlotHead ), key, layout_.keySize );
        // Only a value that is there has a place: an empty one's offset may be
        // anything in a damaged file.
        const uint8_t* from = s->valueLen ? file_.base() + valueAt( og, i, *s ) : nullptr;
        if ( s->valueLen && inlineValues ) {
            std::memcpy( slotIn( j ) + sizeof( SlotHead ) + round8( layout_.keySize ),
                         from, s->valueLen );
        } else if ( s->valueLen ) {
            nsh->valueOffset = nh->heapTop;
            nh->heapTop += classSize( sizeClass( s->valueLen ) );
            std::memcpy( nb + nsh->valueOffset, from, s->valueLen );
        }
        ++nh->liveCount;
    }
    const bool cutShort = building.faulted();
    building.del();
    munmap( p, total );
    if ( cutShort ) {
        errno = EIO;
        fail( "cannot build table" );
    }
    if ( fresh ) {
        // A new table: appear only if nobody created it meanwhile.
        if ( linkat( dir.fd(), tmp, dir.fd(), where_.name.c_str(), 0 ) != 0 ) {
            int e = errno;
            ::close( fd );
            unlinkat( dir.fd(), tmp, 0 );
            if ( e == EEXIST ) {
                return;  // the caller attaches to the other one
            }
            errno = e;
            throw sysError( "cannot create table", path_ );
        }
        unlinkat( dir.fd(), tmp, 0 );
    } else {
        if ( renameat( dir.fd(), tmp, dir.fd(), where_.name.c_str() ) != 0 ) {
            fail( "cannot replace table" );
        }
        // Tell readers of the old file to move to the new one.
        atomic32( headerOf( file_ )->replaced ).store( 1, std::memory_order_release );
        uint8_t one = 1;
        if ( pwrite( file_.fd(), &one, 1, offsetof( Header, bell ) ) < 0 ) {
            // Readers also notice the replacement at their next sync.
        }
    }
    // The new file keeps the descriptor that holds its lock.
    file_.adopt( fd, path_, layout_, true );
    dirty_ = true;
}

uint32_t ShmTableWriter::doFind( const void* key, uint64_t hash,
                                 uint32_t* freeSlot ) const {
    const TableGeometry& g = file_.geometry();
    const uint32_t mask = g.indexCapacity - 1;
    *freeSlot = UINT32_MAX;
    for ( uint32_t n = 0; n < g.indexCapacity; ++n ) {
        const uint32_t i = static_cast<uint32_t>( ( hash + n ) & mask );
        const SlotHead* s = headAt( file_, i );
        if ( s->state == kEmpty ) {
            if ( *freeSlot == UINT32_MAX ) {
                *freeSlot = i;
            }
            return UINT32_MAX;
        }
        if ( s->state == kTombstone ) {
            if ( *freeSlot == UINT32_MAX ) {
                *freeSlot = i;
            }
        } else if ( s->state == kLive && s->hash == hash &&
                    std::memcmp( slotAt( file_, i ) + sizeof( SlotHead ), key,
                                 layout_.keySize ) == 0 ) {
            return i;
        }
    }
    return UINT32_MAX;
}

uint64_t ShmTableWriter::doAlloc( uint32_t len ) {
    if ( len == 0 ) {
        return 0;
    }
    const TableGeometry& g = file_.geometry();
    Header* h = headerOf( file_ );
    const uint32_t c = sizeClass( len );
    const uint64_t size = classSize( c );
    if ( uint64_t off = h->freeList[c] ) {
        if ( off >= g.heapOffset && off <= g.heapEnd && size <= g.heapEnd - off ) {
            uint64_t next;
            std::memcpy( &next, file_.base() + off, sizeof( next ) );
            h->freeList[c] = next;
            return off;
        }
        h->freeList[c] = 0;  // a damaged list: its blocks are lost until a rebuild
    }
    if ( h->heapTop < g.heapOffset || h->heapTop > g.heapEnd ||
         size > g.heapEnd - h->heapTop ) {
        return UINT64_MAX;
    }
    const uint64_t off = h->heapTop;
    h->heapTop += size;
    return off;
}

void ShmTableWriter::doFree( uint64_t offset, uint32_t len ) {
    if ( len == 0 ) {
        return;
    }
    Header* h = headerOf( file_ );
    const uint32_t c = sizeClass( len );
    std::memcpy( file_.base() + offset, &h->freeList[c], sizeof( uint64_t ) );
    h->freeList[c] = offset;
}

void ShmTableWriter::doRecordChange( uint32_t slot, uint64_t version ) {
    Header* h = headerOf( file_ );
    RingEntry* e = ringAt( file_, version );
    // Mark the entry out of date before its slot changes, so that a reader
    // never pairs the old sequence with the new slot.
    atomic64( e->seq ).store( ~0ull, std::memory_order_relaxed );
    std::atomic_thread_fence( std::memory_order_release );
    e->slot = slot;
    atomic64( e->seq ).store( version, std::memory_order_release );
    atomic64( h->changeSeq ).store( version, std::memory_order_release );
    dirty_ = true;
}

bool ShmTableWriter::set( const void* key, const void* value, uint32_t len ) {
    if ( len > layout_.maxValueSize ) {
        throw InvalidSizeError( "table " + path_ + ": a value of " +
                                std::to_string( len ) + " bytes exceeds " +
                                std::to_string( layout_.maxValueSize ) );
    }
    // Someone else cut our file short: what it still holds, and what we wrote
    // since (into zero pages), goes into a new file, which readers move to.
    if ( file_.faulted() ) {
        doRebuild( 0, 0 );
    }
    const uint64_t hash = keyHash( key, layout_.keySize );
    for ( int attempt = 0;; ++attempt ) {
        CSPF_ASSERT( attempt < 4 );  // a rebuild always makes room
        Header* h = headerOf( file_ );
        uint32_t freeSlot;
        const uint32_t i = doFind( key, hash, &freeSlot );
        if ( i != UINT32_MAX ) {
            SlotHead* s = headAt( file_, i );
            const uint8_t* old = nullptr;
            uint32_t oldLen = 0;
            if ( !doValueAt( i, &old, &oldLen ) ) {
                doRebuild( 0, 0 );  // drops the damaged record
                continue;
            }
            if ( oldLen == len && ( len == 0 || std::memcmp( old, value, len ) == 0 ) ) {
                return false;
            }
            const TableGeometry& g = file_.geometry();
            uint64_t offset = valueAt( g, i, *s );
            const bool inPlace =
                g.inlineValues ||
                ( len && oldLen && sizeClass( len ) == sizeClass( oldLen ) );
            if ( !inPlace ) {
                offset = doAlloc( len );
                if ( offset == UINT64_MAX ) {
                    doRebuild( 0, classSize( sizeClass( len ) ) );
                    continue;
                }
            }
            const uint64_t version = h->changeSeq + 1;
            const uint64_t oldOffset = s->valueOffset;
            auto seq = atomic64( s->seq );
            const uint64_t s0 = seq.load( std::memory_order_relaxed );
            seq.store( s0 + 1, std::memory_order_relaxed );
            std::atomic_thread_fence( std::memory_order_release );
            if ( len ) {
                std::memcpy( file_.base() + offset, value, len );
            }
            s->valueOffset = len && !g.inlineValues ? offset : 0;
            s->valueLen = len;
            s->version = version;
            seq.store( s0 + 2, std::memory_order_release );
            if ( !inPlace ) {
                doFree( oldOffset, oldLen );
            }
            doRecordChange( i, version );
            return true;
        }
        // A new key: keep the index at most seven eighths full.
        if ( ( uint64_t{ h->liveCount } + h->tombstones + 1 ) * 8 >
                 uint64_t{ file_.geometry().indexCapacity } * 7 ||
             freeSlot == UINT32_MAX ) {
            doRebuild( static_cast<uint32_t>( size() ) + 1, 0 );
            continue;
        }
        const TableGeometry& g = file_.geometry();
        const uint64_t offset = g.inlineValues ? 0 : doAlloc( len );
        if ( offset == UINT64_MAX ) {
            doRebuild( 0, classSize( sizeClass( len ) ) );
            continue;
        }
        if ( len && !g.inlineValues ) {
            std::memcpy( file_.base() + offset, value, len );
        }
        SlotHead* s = headAt( file_, freeSlot );
        const bool wasTombstone = s->state == kTombstone;
        const uint64_t version = h->changeSeq + 1;
        auto seq = atomic64( s->seq );
        const uint64_t s0 = seq.load( std::memory_order_relaxed );
        seq.store( s0 + 1, std::memory_order_relaxed );
        std::atomic_thread_fence( std::memory_order_release );
        std::memcpy( slotAt( file_, freeSlot ) + sizeof( SlotHead ), key,
                     layout_.keySize );
        if ( len && g.inlineValues ) {
            std::memcpy( file_.base() + valueAt( g, freeSlot, *s ), value, len );
        }
        s->hash = hash;
        s->valueOffset = offset;
        s->valueLen = len;
        s->version = version;
        s->state = kLive;
        seq.store( s0 + 2, std::memory_order_release );
        ++h->liveCount;
        if ( wasTombstone && h->tombstones ) {
            --h->tombstones;
        }
        doRecordChange( freeSlot, version );
        return true;
    }
}

bool ShmTableWriter::del( const void* key ) {
    if ( file_.faulted() ) {
        doRebuild( 0, 0 );  // as in set()
    }
    const uint64_t hash = keyHash( key, layout_.keySize );
    uint32_t freeSlot;
    uint32_t i = doFind( key, hash, &freeSlot );
    if ( i == UINT32_MAX ) {
        return false;
    }
    Header* h = headerOf( file_ );
    // Keep the index within what readers accept for the records left: shrink
    // it before the count falls below an eighth of it.
    const uint32_t capacity = file_.geometry().indexCapacity;
    if ( capacity > kMinCapacity &&
         uint64_t{ h->liveCount - std::min( h->liveCount, 1u ) } * 8 < capacity ) {
        try {
            doRebuild( 0, 0 );
        } catch ( const Error& ) {
            // No room for a smaller file: remove from this one, shrink later.
        }
        h = headerOf( file_ );
        i = doFind( key, hash, &freeSlot );
        if ( i == UINT32_MAX ) {
            return true;  // the rebuild dropped a damaged record
        }
    }
    SlotHead* s = headAt( file_, i );
    const uint8_t* old = nullptr;
    uint32_t oldLen = 0;
    const bool sound = doValueAt( i, &old, &oldLen );
    const uint64_t oldOffset = s->valueOffset;
    const uint64_t version = h->changeSeq + 1;
    auto seq = atomic64( s->seq );
    const uint64_t s0 = seq.load( std::memory_order_relaxed );
    seq.store( s0 + 1, std::memory_order_relaxed );
    std::atomic_thread_fence( std::memory_order_release );
    s->state = kTombstone;  // the key stays, so readers learn which key went
    s->valueOffset = 0;
    s->valueLen = 0;
    s->version = version;
    seq.store( s0 + 2, std::memory_order_release );
    if ( sound && !file_.geometry().inlineValues ) {
        doFree( oldOffset, oldLen );
    }
    if ( h->liveCount ) {
        --h->liveCount;
    }
    ++h->tombstones;
    doRecordChange( i, version );
    return true;
}

// The writer's own slots are never busy: it dropped half-written ones when it
// attached.
bool ShmTableWriter::get( const void* key, std::vector<uint8_t>& value ) const {
    BusyPatience none;
    return findSlot( file_, key, &value, nullptr, none ) >= 0;
}

bool ShmTableWriter::has( const void* key ) const {
    BusyPatience none;
    return findSlot( file_, key, nullptr, nullptr, none ) >= 0;
}

size_t ShmTableWriter::size() const {
    return headerOf( file_ )->liveCount;
}

void ShmTableWriter::forEach(
    const std::function<void( const uint8_t*, const uint8_t*, uint32_t )>& fn ) const {
    const TableGeometry& g = file_.geometry();
    for ( uint32_t i = 0; i < g.indexCapacity; ++i ) {
        const uint8_t* value = nullptr;
        uint32_t len = 0;
        if ( headAt( file_, i )->state == kLive && doValueAt( i, &value, &len ) ) {
            fn( slotAt( file_, i ) + sizeof( SlotHead ), len ? value : nullptr, len );
        }
    }
}

void ShmTableWriter::flush() {
    if ( !dirty_ || !file_.isOpen() ) {
        return;
    }
    if ( file_.faulted() || file_.resized() ) {
        try {
            doRebuild( 0, 0 );  // as in set()
        } catch ( const Error& ) {
            // No room for the new file: the next change tries again.
        }
    }
    dirty_ = false;
    uint8_t b = static_cast<uint8_t>( headerOf( file_ )->changeSeq );
    if ( pwrite( file_.fd(), &b, 1, offsetof( Header, bell ) ) < 0 ) {
        // Readers still see the change at their next sync.
    }
}

uint64_t ShmTableWriter::changeSeq() const {
    return headerOf( file_ )->changeSeq;
}

size_t ShmTableWriter::residentBytes() const {
    struct stat st;
    return fstat( file_.fd(), &st ) == 0 ? static_cast<size_t>( st.st_blocks ) * 512 : 0;
}

// ---------------------------------------------------------------- reader

ShmTableReader::ShmTableReader( TablePath where, TableLayout layout,
                                bool unsoundAsAbsent )
    : where_( std::move( where ) ),
      path_( where_.full() ),
      layout_( std::move( layout ) ) {
    try {
        if ( !doOpen() ) {
            return;
        }
    } catch ( const CorruptionError& e ) {
        if ( !unsoundAsAbsent ) {
            throw;
        }
        attachProblem_ = e.detail();
        return;
    }
    doResync( {} );
}

bool ShmTableReader::doOpen() {
    const TreeDir dir( where_.root, where_.directory );
    if ( !dir.complete() ) {
        return false;
    }
    const int fd =
        openat( dir.fd(), where_.name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW );
    if ( fd < 0 ) {
        if ( errno == ENOENT ) {
            return false;
        }
        throw sysError( "cannot open table", path_ );
    }
    try {
        file_.adopt( fd, path_, layout_, false );
    } catch ( const Error& ) {
        if ( faccessat( dir.fd(), where_.name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW ) !=
             0 ) {
            return false;  // it went while we looked
        }
        throw;
    }
    slotKey_.clear();
    lastSeq_ = 0;
    patience_ = BusyPatience();
    return true;
}

bool ShmTableReader::get( const void* key, std::vector<uint8_t>& value ) const {
    return file_.isOpen() && findSlot( file_, key, &value, nullptr, patience_ ) >= 0;
}

bool ShmTableReader::has( const void* key ) const {
    return file_.isOpen() && findSlot( file_, key, nullptr, nullptr, patience_ ) >= 0;
}

bool ShmTableReader::find( const void* key, RecordRef& ref ) const {
    if ( !file_.isOpen() ) {
        return false;
    }
    // The common case, a probe over quiet slots, read under each slot's
    // seqlock word without the general reader's copies. Anything unusual (a
    // slot being written, a bad state, a record out of bounds) starts the
    // lookup over on the general path, which waits, reports or throws.
    const TableGeometry& g = file_.geometry();
    const uint64_t hash = keyHash( key, g.keySize );
    const uint32_t mask = g.indexCapacity - 1;
    {
        // A probe walks a run of neighbouring slots (the writer lets the
        // index fill to 7/8): ask for the first few at once, so that their
        // cache misses overlap rather than follow one another.
        constexpr uint32_t kAhead = 4;
        const uint32_t home = static_cast<uint32_t>( hash & mask );
        const uint64_t bytes =
            uint64_t{ std::min( kAhead, g.indexCapacity - home ) } * g.slotSize;
        const uint8_t* first = slotAt( file_, home );
        for ( uint64_t at = 0; at < bytes; at += 64 ) {
            __builtin_prefetch( first + at );
        }
    }
    for ( uint32_t n = 0; n < g.indexCapacity; ++n ) {
        const uint32_t i = static_cast<uint32_t>( ( hash + n ) & mask );
        const uint8_t* slot = slotAt( file_, i );
        const SlotHead* head = reinterpret_cast<const SlotHead*>( slot );
        for ( ;; ) {
            const uint64_t s1 = atomic64( head->seq ).load( std::memory_order_acquire );
            if ( s1 & 1 ) {
                return doFindSlowly( key, ref );
            }
            SlotHead found;
            std::memcpy( &found, slot, sizeof( found ) );
            const bool matches = found.state == kLive && found.hash == hash &&
                                 sameKey( slot + sizeof( SlotHead ), key, g.keySize );
            std::atomic_thread_fence( std::memory_order_acquire );
            if ( atomic64( head->seq ).load( std::memory_order_relaxed ) != s1 ) {
                continue;  // written meanwhile: read the slot again
            }
            if ( found.state > kTombstone ) {
                return doFindSlowly( key, ref );
            }
            if ( found.state == kEmpty ) {
                file_.checkIntact();  // not zeros read from a vanished page
                return false;
            }
            if ( !matches ) {
                break;
            }
            const uint64_t at = valueAt( g, i, found );
            if ( !valueInBounds( g, at, found.valueLen ) ) {
                return doFindSlowly( key, ref );
            }
            ref.len = found.valueLen;
            ref.bytes = file_.base() + at;
            ref.slot = i;
            ref.seq = s1;
            return true;
        }
    }
    file_.checkIntact();
    return false;
}

bool ShmTableReader::doFindSlowly( const void* key, RecordRef& ref ) const {
    SlotSnap snap;
    const int64_t slot =
        file_.isOpen() ? findSlot( file_, key, nullptr, nullptr, patience_, &snap ) : -1;
    if ( slot < 0 ) {
        return false;
    }
    // findSlot checked the bounds under the same seqlock word.
    ref.len = snap.head.valueLen;
    ref.bytes = file_.base() + valueAt( file_.geometry(), uint32_t( slot ), snap.head );
    ref.slot = uint32_t( slot );
    ref.seq = snap.seq;
    return true;
}

bool ShmTableReader::unchanged( const RecordRef& ref ) const {
    // Order the caller's reads of the bytes before the second look at the word.
    std::atomic_thread_fence( std::memory_order_acquire );
    const SlotHead* head = reinterpret_cast<const SlotHead*>( slotAt( file_, ref.slot ) );
    return atomic64( head->seq ).load( std::memory_order_relaxed ) == ref.seq &&
           !file_.faulted();
}

uint64_t ShmTableReader::doVersionOf( const void* key, int64_t* slot ) const {
    *slot = -1;
    if ( !file_.isOpen() ) {
        return 0;
    }
    uint64_t version = 0;
    try {
        *slot = findSlot( file_, key, nullptr, &version, patience_ );
        return *slot >= 0 ? version : 0;
    } catch ( const CorruptionError& e ) {
        if ( file_.faulted() ) {
            throw;  // the whole file, not this key: no key is told removed
        }
        if ( corruption_ ) {
            corruption_( e.detail() );
        }
        return 0;  // a bad record reads as absent
    }
}

void ShmTableReader::doCheckKey( const std::string& first,
                                 const TableChangeFn& changed ) {
    // Keys whose slot we learn to have been taken by another key: they left
    // it, and are checked too. Bounded, should a writer keep moving keys.
    std::vector<std::string> work{ first };
    for ( int steps = 0; !work.empty() && steps < 1024; ++steps ) {
        const std::string key = std::move( work.back() );
        work.pop_back();
        // Tell the watcher until the version it may have looked at is the
        // one recorded, so that a change made while it looked is told too.
        for ( int n = 0; n < kMaxRetells; ++n ) {
            int64_t slot;
            const uint64_t now = doVersionOf( key.data(), &slot );
            if ( slot >= 0 ) {
                std::string& occupant = slotKey_[static_cast<uint32_t>( slot )];
                if ( occupant != key ) {
                    if ( !occupant.empty() ) {
                        work.push_back( occupant );
                    }
                    occupant = key;
                }
            }
            auto it = versions_.find( key );
            const uint64_t before = it == versions_.end() ? 0 : it->second;
            if ( now == before ) {
                break;
            }
            if ( now ) {
                versions_[key] = now;
            } else {
                versions_.erase( it );
            }
            if ( !changed ) {
                break;
            }
            changed( reinterpret_cast<const uint8_t*>( key.data() ) );
            if ( !file_.isOpen() ) {
                return;
            }
        }
    }
}

void ShmTableReader::doResync( const TableChangeFn& changed ) {
    std::unordered_map<std::string, uint64_t> now;
    uint64_t tableId = 0;
    if ( file_.isOpen() ) {
        const TableGeometry& g = file_.geometry();
        tableId = g.tableId;
        // Read the sequence first: changes made during the scan are seen
        // again at the next sync, which is harmless.
        lastSeq_ =
            atomic64( headerOf( file_ )->changeSeq ).load( std::memory_order_acquire );
        SlotSnap snap;
        std::string key;
        slotKey_.clear();
        for ( uint32_t i = 0; i < g.indexCapacity; ++i ) {
            const SlotRead r =
                readSlot( file_, i, nullptr, 0, nullptr, snap, &key, patience_ );
            if ( r != SlotRead::ok ) {
                if ( corruption_ && r == SlotRead::bad ) {
                    corruption_( slotProblem( r, i ) );
                }
                continue;  // half-written: dropped by the next writer
            }
            if ( snap.head.state == kLive ) {
                slotKey_[i] = key;
                uint64_t& v = now[key];
                v = std::max( v, snap.head.version );
            }
        }
        // Zeros read from a vanished page are no content: the known keys
        // stay as they are, and the next sync re-opens the path.
        file_.checkIntact();
    }
    // Versions of another table (one made anew at this path) say nothing:
    // every key it shares with the old one is told.
    const bool sameTable = tableId == tableId_ || tableId == 0 || tableId_ == 0;
    std::vector<std::string> diff;
    for ( const auto& [key, version] : now ) {
        auto it = versions_.find( key );
        if ( it == versions_.end() || it->second != version || !sameTable ) {
            diff.push_back( key );
        }
    }
    for ( const auto& [key, version] : versions_ ) {
        if ( !now.count( key ) ) {
            diff.push_back( key );
        }
    }
    if ( tableId ) {
        tableId_ = tableId;
    }
    // Record what the scan saw, except for the keys about to be told: they
    // go through doCheckKey, which re-reads them after telling.
    for ( const std::string& key : diff ) {
        now.erase( key );
        auto it = versions_.find( key );
        if ( it != versions_.end() ) {
            now[key] = sameTable ? it->second : ~0ull;
        }
    }
    versions_.swap( now );
    for ( const std::string& key : diff ) {
        doCheckKey( key, changed );
    }
}

void ShmTableReader::sync( const TableChangeFn& changed ) {
    if ( file_.isOpen() && file_.stale() ) {
        file_.close();
        doOpen();
        doResync( changed );
        return;
    }
    if ( !file_.isOpen() ) {
        bool opened = false;
        try {
            opened = doOpen();
        } catch ( const CorruptionError& e ) {
            if ( e.detail() == attachProblem_ ) {
                return;  // still the file it could not attach: no news
            }
            attachProblem_ = e.detail();
            throw;
        }
        if ( opened ) {
            attachProblem_.clear();
        }
        if ( opened || !versions_.empty() ) {
            doResync( changed );
        }
        return;
    }
    const TableGeometry& g = file_.geometry();
    const uint64_t cur =
        atomic64( headerOf( file_ )->changeSeq ).load( std::memory_order_acquire );
    if ( cur == lastSeq_ ) {
        return;
    }
    patience_ = BusyPatience();  // the writer moved on: it may have finished
    if ( cur < lastSeq_ || cur - lastSeq_ > g.ringCapacity ) {
        doResync( changed );
        return;
    }
    SlotSnap snap;
    std::string key;
    for ( uint64_t s = lastSeq_ + 1; s <= cur; ++s ) {
        const RingEntry* e = ringAt( file_, s );
        const uint64_t s1 = atomic64( e->seq ).load( std::memory_order_acquire );
        const uint32_t slot = e->slot;
        std::atomic_thread_fence( std::memory_order_acquire );
        const uint64_t s2 = atomic64( e->seq ).load( std::memory_order_relaxed );
        if ( s1 != s || s2 != s || slot >= g.indexCapacity ) {
            // The writer lapped the ring while we read it.
            doResync( changed );
            return;
        }
        const SlotRead r =
            readSlot( file_, slot, nullptr, 0, nullptr, snap, &key, patience_ );
        file_.checkIntact();
        if ( r != SlotRead::ok ) {
            if ( corruption_ && r == SlotRead::bad ) {
                corruption_( slotProblem( r, slot ) );
            }
            continue;
        }
        auto known = slotKey_.find( slot );
        const std::string before =
            known == slotKey_.end() ? std::string() : known->second;
        if ( snap.head.state == kLive ) {
            slotKey_[slot] = key;
        } else if ( known != slotKey_.end() ) {
            slotKey_.erase( known );
        }
        if ( !before.empty() && before != key ) {
            doCheckKey( before, changed );
        }
        if ( !key.empty() ) {
            doCheckKey( key, changed );
        }
        if ( !file_.isOpen() ) {
            return;  // a watcher's sync moved us on
        }
    }
    lastSeq_ = cur;
}

}  // namespace Platform
