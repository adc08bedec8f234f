// Shared-memory tables: the storage of the state tree.
//
// A table is one file, mapped by its single writer and by any number of
// readers in other processes. Layout (docs/state-tree.md has the details):
//
//   header (4 KiB)  magic, format, record type and layout, sizes, the change
//                   sequence, the allocator's state, the bell byte
//   ring            the last changes: (sequence, slot) pairs
//   index           open-addressing hash of slots: seqlock word, record
//                   version, value offset and length, state, key bytes
//   heap            variable-size values in size-class blocks
//
// Readers never lock: each slot is a seqlock, read with a bounded number of
// retries. A file never changes size; when the writer needs more room, or
// when a writer attaches after another one stopped, it writes a new file,
// renames it over the old one and marks the old one replaced: readers then
// re-open the path and resynchronise from the per-record versions, which a
// new file keeps. After a batch of changes the writer rings the bell (one
// byte written through the file descriptor), which readers see through
// inotify.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/MappingGuard.h"

namespace Platform {

// What a table holds; a reader or writer of another layout is refused.
struct TableLayout {
    std::string typeName;  // at most 63 bytes
    uint64_t layoutHash = 0;
    uint32_t keySize = 0;       // every key has exactly this many bytes
    uint32_t maxValueSize = 0;  // values have 0..maxValueSize bytes
};

// Where a table file is: a root directory, the directory below it and the
// file's name. Nothing below the root is reached through a symlink
// (platform/TreeDir.h). A plain absolute path takes the file's own directory
// as its root.
struct TablePath {
    TablePath( const std::string& absolutePath );  // NOLINT: a path is one
    TablePath( const char* absolutePath ) : TablePath( std::string( absolutePath ) ) {}
    TablePath( std::string rootDir, std::string_view relative );
    std::string full() const;

    std::string root;
    std::string directory;  // below the root, "" for the root itself
    std::string name;
};

struct TableFileMode {
    uint32_t fileMode = 0600;
    int group = -1;  // chown group when >= 0
};

// The shape of a table file, read and checked once when the file is mapped.
// Readers and the writer use this copy, never the shared header's fields, so
// a header scribbled on later cannot send them out of the mapping.
struct TableGeometry {
    uint64_t tableId = 0;  // random at creation, kept by replacements
    uint64_t fileSize = 0;
    uint64_t ringOffset = 0;
    uint32_t ringCapacity = 0;
    uint32_t slotSize = 0;
    uint64_t indexOffset = 0;
    uint32_t indexCapacity = 0;
    uint32_t keySize = 0;
    uint32_t maxValueSize = 0;
    uint64_t heapOffset = 0;
    uint64_t heapEnd = 0;
    bool inlineValues = false;  // values live in their slots (small values)
};

// The mapped file, shared by the writer and the reader.
class ShmTableFile {
  public:
    ShmTableFile() = default;
    ~ShmTableFile();
    ShmTableFile( const ShmTableFile& ) = delete;
    ShmTableFile& operator=( const ShmTableFile& ) = delete;

    // Maps the file open on `fd` (which the caller opened, and may hold
    // locked) and checks it against `layout`; the file takes the descriptor
    // over, also when the check fails. Throws CorruptionError (named by
    // `path`) for a file that is not a sound table and Error for a table of
    // another type or layout.
    void adopt( int fd, const std::string& path, const TableLayout& layout,
                bool writable );
    void close();
    bool isOpen() const { return base_ != nullptr; }
    int fd() const { return fd_; }
    const std::string& path() const { return path_; }
    uint8_t* base() const { return base_; }
    size_t size() const { return size_; }
    const TableGeometry& geometry() const { return geometry_; }
    // The file was replaced by a newer one.
    bool replaced() const;
    // The mapping no longer shows the table at the path: the file was
    // replaced, unlinked, resized by someone else, or faulted.
    bool stale() const;
    // Someone else changed the file's size.
    bool resized() const;
    // Part of the mapping faulted (the file shrank, or tmpfs could not back
    // a page) and reads zeros since: nothing read from it can be trusted.
    bool faulted() const { return guard_.faulted(); }
    // Throws CorruptionError when faulted().
    void checkIntact() const;

  private:
    void doCheck( const TableLayout& layout, uint64_t allocated, bool writable );
    std::string path_;
    int fd_ = -1;
    uint8_t* base_ = nullptr;
    size_t size_ = 0;
    TableGeometry geometry_;
    MappingGuard guard_;
};

class ShmTableWriter {
  public:
    // Creates the table at `path` or re-attaches to the one there, keeping
    // its content (a record that a stopped writer left half-written is
    // dropped). Throws Error when another live process writes the table.
    ShmTableWriter( TablePath where, TableLayout layout, TableFileMode mode = {} );
    ~ShmTableWriter();
    ShmTableWriter( const ShmTableWriter& ) = delete;
    ShmTableWriter& operator=( const ShmTableWriter& ) = delete;

    const std::string& path() const { return path_; }
    const TableLayout& layout() const { return layout_; }

    // Inserts or replaces; false when the stored value was already equal
    // (nothing is written then).
    bool set( const void* key, const void* value, uint32_t len );
    // False when absent.
    bool del( const void* key );
    // Copies the value out; false when absent.
    bool get( const void* key, std::vector<uint8_t>& value ) const;
    bool has( const void* key ) const;
    size_t size() const;
    // Visits every record in slot order.
    void forEach( const std::function<void( const uint8_t* key, const uint8_t* value,
                                            uint32_t len )>& fn ) const;

    // Rings the bell when something changed since the last flush.
    void flush();
    bool dirty() const { return dirty_; }
    uint64_t changeSeq() const;
    size_t fileBytes() const { return file_.size(); }
    // Bytes of memory the file really uses (tmpfs pages touched).
    size_t residentBytes() const;

  private:
    void doAttach();
    void doRebuild( uint32_t minRecords, size_t minHeap );
    bool doValueAt( uint32_t slot, const uint8_t** value, uint32_t* len ) const;
    uint32_t doFind( const void* key, uint64_t hash, uint32_t* freeSlot ) const;
    uint64_t doAlloc( uint32_t len );
    void doFree( uint64_t offset, uint32_t len );
    void doRecordChange( uint32_t slot, uint64_t version );

    TablePath where_;
    std::string path_;
    TableLayout layout_;
    TableFileMode mode_;
    ShmTableFile file_;
    bool dirty_ = false;
};

// How long a reader may still wait for busy slots (see ShmTableReader).
struct BusyPatience {
    double until = 0;  // 0: not waiting yet
};

// One change seen by a reader: the key's bytes.
using TableChangeFn = std::function<void( const uint8_t* key )>;

// A record's value where it lies in the mapping, not copied. A writer may
// change it while it is read: whatever was read from it holds only if
// `ShmTableReader::unchanged` says so afterwards. Valid until the reader's
// next sync (which may remap the file).
struct RecordRef {
    const uint8_t* bytes = nullptr;
    uint32_t len = 0;
    uint32_t slot = 0;
    uint64_t seq = 0;
};

class ShmTableReader {
  public:
    // Maps the table at `path` when it exists (else the reader starts
    // detached); throws as ShmTableFile::open does. With `unsoundAsAbsent`, a
    // file whose content cannot be trusted (CorruptionError) is not thrown but
    // kept in attachProblem(), and the reader starts detached as if the file
    // were absent: a later sync attaches it once its writer rewrote it.
    ShmTableReader( TablePath where, TableLayout layout, bool unsoundAsAbsent = false );

    const TablePath& where() const { return where_; }
    const std::string& path() const { return path_; }
    // Why the file at the path cannot be attached; empty once it is. A sync
    // that meets the same problem again says nothing.
    const std::string& attachProblem() const { return attachProblem_; }

    // Copies the value out; false when absent. Throws CorruptionError for a
    // record that fails its bounds or stays half-written.
    bool get( const void* key, std::vector<uint8_t>& value ) const;
    bool has( const void* key ) const;
    // Finds the value in place; false when absent. Throws as get does.
    bool find( const void* key, RecordRef& ref ) const;
    // Whether the record of `ref` was not written since find.
    bool unchanged( const RecordRef& ref ) const;

    // Records that fail their checks are skipped by sync and told here.
    void corruptionHandlerIs( std::function<void( const std::string& detail )> fn ) {
        corruption_ = std::move( fn );
    }

    // Reports every key whose final state (present, value, absent) changed
    // since the last sync. A key is reported again when it changed while
    // its watcher was being told, so the watcher's last look is never stale. Re-opens the
    // path when the file was replaced. An unlinked or vanished file reports every known
    // key as removed and leaves the reader detached (`attached()` false) until a later
    // sync finds the path again.
    void sync( const TableChangeFn& changed );
    bool attached() const { return file_.isOpen(); }
    int fd() const { return file_.fd(); }
    // The keys known at the last sync (bytes), with their record versions.
    const std::unordered_map<std::string, uint64_t>& versions() const {
        return versions_;
    }

  private:
    bool doOpen();
    // find() on the general path: waits for busy slots, reports bad ones.
    bool doFindSlowly( const void* key, RecordRef& ref ) const;
    void doResync( const TableChangeFn& changed );
    void doCheckKey( const std::string& key, const TableChangeFn& changed );
    // The key's version (0 when absent) and its slot (-1 when absent).
    uint64_t doVersionOf( const void* key, int64_t* slot ) const;

    TablePath where_;
    std::string path_;
    TableLayout layout_;
    ShmTableFile file_;
    std::string attachProblem_;
    std::function<void( const std::string& )> corruption_;
    uint64_t tableId_ = 0;  // of the file the cached versions come from
    uint64_t lastSeq_ = 0;
    std::unordered_map<std::string, uint64_t> versions_;
    // The key last seen in each slot that held one: as many entries as the
    // table really holds, whatever its index claims.
    std::unordered_map<uint32_t, std::string> slotKey_;
    // How long lookups and syncs may still wait for slots a live writer keeps
    // half-written: one budget per table, renewed when the writer changes the
    // table again, so that a writer stalled inside its records costs its
    // readers one wait, not one per lookup.
    mutable BusyPatience patience_;
};

// Whether a writer holds the table file now (its lock lives as long as the
// writer's process); false when there is no such file.
bool tableWriterAlive( const TablePath& where );

// FNV-1a over the layout's description: a layout hash for TableLayout.
uint64_t tableLayoutHash( std::string_view description );

}  // namespace Platform
