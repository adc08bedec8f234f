// Typed entities over shared-memory tables.
//
// A record type is declared once as a traits struct (see docs/state-tree.md):
//
//   struct PathConfigRecord {
//       using Key = Cspf::PathKey;
//       using Value = Cspf::PathConfig;
//       static constexpr const char* typeName = "Cspf::PathConfig";
//       static constexpr const char* layout = "key PathKey 24; value PathConfig 40; v1";
//       static constexpr uint32_t keySize = 24;
//       static constexpr uint32_t maxValueSize = 40;
//       static void encodeKey( const Key&, uint8_t* out );        // keySize bytes
//       static Key decodeKey( const uint8_t* in );                // throws
//       Platform::Error static void encodeValue( const Value&, std::vector< uint8_t >&
//       out ); static Value decodeValue( const uint8_t* in, size_t len );  // throws
//       Platform::Error
//   };
//
// TableReader<R> and TableWriter<R> are entities with the runtime's collection
// vocabulary: get( k ), has( k ), size(), ordered iteration over keys(), and a
// per-key notification (recordTag), so that a reactor cannot tell a mounted
// table from an in-process collection. A reader follows its file through
// inotify (the writer's bell, replacement, removal, re-creation) and tells
// its watchers of every key whose final state changed. A record that fails
// its checks goes to the table's corruption handler and reads as absent.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/Entity.h"
#include "platform/Error.h"
#include "platform/ShmTable.h"

namespace Platform {

class EventLoop;
class Inotify;
class InotifyWatch;
class StateTree;

using CorruptionHandler = std::function<void( const Error& )>;

// Tells `handler` of a bad record or table at `statePath`; stderr when none.
void reportCorruption( const CorruptionHandler& handler, const std::string& statePath,
                       const Error& error );

template <typename R>
TableLayout tableLayoutOf() {
    return TableLayout{ R::typeName,
                        tableLayoutHash( std::string( R::typeName ) + ";" + R::layout ),
                        R::keySize, R::maxValueSize };
}

// The untyped half of a reader: the file, its watches and the sync loop.
class TableReaderBase : public Entity {
  public:
    ~TableReaderBase() override;
    // Takes in what changed between the first look and the watches.
    void handleInitialized();
    const std::string& statePath() const { return statePath_; }
    bool attached() const { return core_.attached(); }
    // Whether a writer holds the table now: its lock lives as long as the
    // writer's process.
    bool writerAlive() const { return tableWriterAlive( core_.where() ); }
    // Takes in the changes made since the last sync and notifies per key.
    // Runs by itself on inotify events when the reader has an Inotify.
    void sync();
    // A problem met attaching an unsound file (see TableReader) is told to
    // the first handler set.
    void corruptionHandlerIs( CorruptionHandler handler );
    // Reports a bad record or table to the handler (stderr when none is set).
    void doCorruption( const Error& error ) const {
        reportCorruption( corruption_, statePath_, error );
    }
    // Whether the record behind `ref` (found by this reader) was not written
    // since: what was read from it in place holds only then.
    bool unchanged( const RecordRef& ref ) const { return core_.unchanged( ref ); }

  protected:
    TableReaderBase( StateTree& tree, Inotify* inotify, std::string statePath,
                     TableLayout layout, bool unsoundAsAbsent );
    virtual void doKeyChanged( const uint8_t* key ) = 0;
    // Watches the file the reader has mapped; true when the watch is new.
    bool doWatchFile();

    std::string statePath_;
    Inotify* inotify_;
    ShmTableReader core_;

  private:
    CorruptionHandler corruption_;
    bool attachProblemTold_ = false;
    std::unique_ptr<InotifyWatch> dirWatch_;
    std::unique_ptr<InotifyWatch> fileWatch_;
    ino_t watchedInode_ = 0;  // the inode fileWatch_ is on
    bool syncing_ = false;
    bool again_ = false;
};

template <typename R>
class TableReader : public TableReaderBase {
  public:
    using Key = typename R::Key;
    using Value = typename R::Value;
    static constexpr KeyTag<Key> recordTag{};

    // Throws Error for a table of another type, and CorruptionError for an
    // unsound file unless `unsoundAsAbsent`: then the reader reads as empty
    // and follows the path until the file is rewritten (a peer's broken table
    // is not a reason to stop reading it).
    TableReader( StateTree& tree, Inotify* inotify, std::string statePath,
                 bool unsoundAsAbsent = false )
        : TableReaderBase( tree, inotify, std::move( statePath ), tableLayoutOf<R>(),
                           unsoundAsAbsent ) {
        doIndexAll();
    }

    // The value under `k`; a default Value when absent or corrupt.
    Value get( const Key& k ) const {
        std::vector<uint8_t> bytes;
        if ( doRead( k, bytes ) ) {
            try {
                return R::decodeValue( bytes.data(), bytes.size() );
            } catch ( const Error& e ) {
                doCorruption( CorruptionError( statePath_, e.what() ) );
            }
        }
        return Value();
    }
    bool has( const Key& k ) const {
        uint8_t key[R::keySize];
        R::encodeKey( k, key );
        try {
            return core_.has( key );
        } catch ( const Error& e ) {
            doCorruption( e );
            return false;
        }
    }
    // The value's bytes in place, not copied nor decoded (see RecordRef);
    // false when absent or corrupt (reported).
    bool find( const Key& k, RecordRef& ref ) const {
        uint8_t key[R::keySize];
        R::encodeKey( k, key );
        try {
            return core_.find( key, ref );
        } catch ( const Error& e ) {
            doCorruption( e );
            return false;
        }
    }
    size_t size() const { return keys_.size(); }
    // The keys present at the last sync, in key order, with record versions.
    const std::map<Key, uint64_t>& keys() const { return keys_; }

  private:
    bool doRead( const Key& k, std::vector<uint8_t>& bytes ) const {
        uint8_t key[R::keySize];
        R::encodeKey( k, key );
        try {
            return core_.get( key, bytes );
        } catch ( const Error& e ) {
            doCorruption( e );
            return false;
        }
    }
    // Decodes a key from the table; false, reported, when it fails its checks.
    bool doDecodeKey( const uint8_t* key, Key& k ) const {
        try {
            k = R::decodeKey( key );
            return true;
        } catch ( const Error& e ) {
            doCorruption(
                CorruptionError( statePath_, std::string( "bad key: " ) + e.what() ) );
            return false;
        }
    }
    // The keys found at attach, with the versions the scan read: decoded once,
    // sorted, then appended in order, which builds the map in linear time and
    // lays its nodes out in key order for the replay that follows.
    void doIndexAll() {
        const auto& versions = core_.versions();
        std::vector<std::pair<Key, uint64_t>> found;
        found.reserve( versions.size() );
        for ( const auto& [bytes, version] : versions ) {
            Key k;
            if ( doDecodeKey( reinterpret_cast<const uint8_t*>( bytes.data() ), k ) ) {
                found.emplace_back( k, version );
            }
        }
        std::sort( found.begin(), found.end(),
                   []( const auto& a, const auto& b ) { return a.first < b.first; } );
        for ( const auto& [k, version] : found ) {
            keys_.emplace_hint( keys_.end(), k, version );
        }
    }
    void doKeyChanged( const uint8_t* key ) override {
        Key k;
        if ( !doDecodeKey( key, k ) ) {
            return;
        }
        const auto& versions = core_.versions();
        auto it = versions.find(
            std::string( reinterpret_cast<const char*>( key ), R::keySize ) );
        if ( it == versions.end() ) {
            keys_.erase( k );
        } else {
            keys_.insert_or_assign( k, it->second );
        }
        notify( &recordTag, &k );
        doAnnounced();
    }

  protected:
    virtual void doAnnounced() {}

  private:
    std::map<Key, uint64_t> keys_;
};

// The untyped half of a writer: the file and the bell.
class TableWriterBase : public Entity {
  public:
    ~TableWriterBase() override;
    const std::string& statePath() const { return statePath_; }
    // Rings the readers' bell now when something changed.
    void flush() { core_.flush(); }
    // Holds the bell over a batch of changes, which a writer without an event
    // loop would otherwise ring once per change. Holds nest; the last release
    // rings once when something changed meanwhile.
    void bellHold() { ++bellHolds_; }
    void bellRelease();
    size_t fileBytes() const { return core_.fileBytes(); }
    // Others can write into our table too: a record that does not decode is
    // told here (stderr when none is set) and reads as absent.
    void corruptionHandlerIs( CorruptionHandler handler ) {
        corruption_ = std::move( handler );
    }

  protected:
    TableWriterBase( StateTree& tree, EventLoop* loop, std::string statePath,
                     TableLayout layout );
    // After a change: the bell rings at the end of the loop's round, or at
    // once without a loop.
    void doChanged();

    std::string statePath_;
    EventLoop* loop_;
    ShmTableWriter core_;
    CorruptionHandler corruption_;

  private:
    std::shared_ptr<bool> alive_;  // lets a queued flush see that we are gone
    bool flushQueued_ = false;
    uint32_t bellHolds_ = 0;
};

template <typename R>
class TableWriter : public TableWriterBase {
  public:
    using Key = typename R::Key;
    using Value = typename R::Value;
    static constexpr KeyTag<Key> recordTag{};

    // Creates the table (and its directories) or re-attaches to it. Throws
    // Error when another process writes it.
    TableWriter( StateTree& tree, EventLoop* loop, std::string statePath )
        : TableWriterBase( tree, loop, std::move( statePath ), tableLayoutOf<R>() ) {
        core_.forEach( [&]( const uint8_t* key, const uint8_t*, uint32_t ) {
            try {
                added_.push_back( R::decodeKey( key ) );
            } catch ( const Error& ) {
                core_.del( key );  // our own table: a bad key is dropped
            }
        } );
        doMerge();
    }

    // Inserts or replaces; writes and notifies only when the value differs.
    bool set( const Key& k, const Value& v ) {
        uint8_t key[R::keySize];
        R::encodeKey( k, key );
        value_.clear();
        R::encodeValue( v, value_ );
        const size_t before = core_.size();
        if ( !core_.set( key, value_.data(), static_cast<uint32_t>( value_.size() ) ) ) {
            return false;
        }
        // One record more is a new key: it waits to be merged with others in
        // order. Anything else (a replacement, or a rebuild that dropped a
        // damaged record) goes in at once.
        if ( core_.size() == before + 1 ) {
            added_.push_back( k );
        } else {
            keys_.insert( k );
        }
        doChanged();
        notify( &recordTag, &k );
        doAnnounced();
        return true;
    }
    bool del( const Key& k ) {
        uint8_t key[R::keySize];
        R::encodeKey( k, key );
        if ( !core_.del( key ) ) {
            return false;
        }
        const Key copy = k;
        doMerge();
        keys_.erase( copy );
        doChanged();
        notify( &recordTag, &copy );
        doAnnounced();
        return true;
    }
    void delAll() {
        doMerge();
        for ( const Key& k : std::vector<Key>( keys_.begin(), keys_.end() ) ) {
            del( k );
        }
    }
    // Deletes every record whose key `keep` does not hold; returns how many.
    size_t delAllBut( const std::set<Key>& keep ) {
        doMerge();
        size_t n = 0;
        for ( const Key& k : std::vector<Key>( keys_.begin(), keys_.end() ) ) {
            if ( !keep.count( k ) ) {
                n += del( k );
            }
        }
        return n;
    }
    // The value under `k`; none when absent, or when the record fails its
    // checks or does not decode (reported to the corruption handler).
    std::optional<Value> lookup( const Key& k ) const {
        uint8_t key[R::keySize];
        R::encodeKey( k, key );
        try {
            // The writer lives on one thread: one buffer serves every read.
            if ( !core_.get( key, read_ ) ) {
                return std::nullopt;
            }
            return R::decodeValue( read_.data(), read_.size() );
        } catch ( const CorruptionError& e ) {
            reportCorruption( corruption_, statePath_, e );
        } catch ( const Error& e ) {
            reportCorruption( corruption_, statePath_,
                              CorruptionError( statePath_, e.what() ) );
        }
        return std::nullopt;
    }
    // The value under `k`; a default Value when lookup() has none.
    Value get( const Key& k ) const { return lookup( k ).value_or( Value() ); }
    bool has( const Key& k ) const {
        doMerge();
        return keys_.count( k ) != 0;
    }
    size_t size() const {
        doMerge();
        return keys_.size();
    }
    const std::set<Key>& keys() const {
        doMerge();
        return keys_;
    }

  protected:
    virtual void doAnnounced() {}

  private:
    // Inserts the new keys in key order: a burst of them (a table filled at
    // start-up) then walks the tree once instead of once per key.
    void doMerge() const {
        if ( added_.empty() ) {
            return;
        }
        std::sort( added_.begin(), added_.end() );
        auto hint = keys_.begin();
        for ( const Key& k : added_ ) {
            hint = std::next( keys_.insert( hint, k ) );
        }
        added_.clear();
    }

    mutable std::set<Key> keys_;
    // New keys not yet in keys_; every reader of keys_ merges them first.
    mutable std::vector<Key> added_;
    std::vector<uint8_t> value_;
    mutable std::vector<uint8_t> read_;
};

// One-record tables for configuration-like state (the TE configuration, the
// CSPF settings, the agent status). R declares Value, typeName, layout,
// maxValueSize, encodeValue and decodeValue; the key is implied.
struct SingletonKey {
    bool operator==( const SingletonKey& ) const = default;
    bool operator<( const SingletonKey& ) const { return false; }
};

template <typename R>
struct SingletonRecord {
    using Key = SingletonKey;
    using Value = typename R::Value;
    static constexpr const char* typeName = R::typeName;
    static constexpr const char* layout = R::layout;
    static constexpr uint32_t keySize = 1;
    static constexpr uint32_t maxValueSize = R::maxValueSize;
    static void encodeKey( const Key&, uint8_t* out ) { out[0] = 0; }
    static Key decodeKey( const uint8_t* in ) {
        if ( in[0] != 0 ) {
            throw DeserializationError( "key", "a one-record table has only key 0" );
        }
        return Key();
    }
    static void encodeValue( const Value& v, std::vector<uint8_t>& out ) {
        R::encodeValue( v, out );
    }
    static Value decodeValue( const uint8_t* in, size_t len ) {
        return R::decodeValue( in, len );
    }
};

// A one-record table holds settings or a status: an unsound file reads as
// absent (told to the corruption handler) and is followed until rewritten.
template <typename R>
class SingletonReader : public TableReader<SingletonRecord<R>> {
  public:
    using Value = typename R::Value;
    static constexpr AttrTag valueTag{};
    SingletonReader( StateTree& tree, Inotify* inotify, std::string statePath )
        : TableReader<SingletonRecord<R>>( tree, inotify, std::move( statePath ), true ) {
    }
    // The record, or a default Value while the table is absent or empty.
    Value value() const { return this->get( SingletonKey() ); }
    bool exists() const { return this->has( SingletonKey() ); }

  private:
    void doAnnounced() override { this->notify( &valueTag ); }
};

template <typename R>
class SingletonWriter : public TableWriter<SingletonRecord<R>> {
  public:
    using Value = typename R::Value;
    static constexpr AttrTag valueTag{};
    using TableWriter<SingletonRecord<R>>::TableWriter;
    Value value() const { return this->get( SingletonKey() ); }
    bool exists() const { return this->has( SingletonKey() ); }
    void valueIs( const Value& v ) { this->set( SingletonKey(), v ); }
    void valueDel() { this->del( SingletonKey() ); }

  private:
    void doAnnounced() override { this->notify( &valueTag ); }
};

// Declares the collection vocabulary of a record table inside a class that
// derives from TableReader<R> or TableWriter<R>: name( k ), nameHas( k ),
// plural(), nameTag, and for writers nameIs( v ), nameDel( k ), nameDelAll().
#define CSPF_TABLE_READ( name, plural )                 \
    static constexpr const auto& name##Tag = recordTag; \
    Value name( const Key& k ) const {                  \
        return this->get( k );                          \
    }                                                   \
    bool name##Has( const Key& k ) const {              \
        return this->has( k );                          \
    }                                                   \
    size_t plural() const {                             \
        return this->size();                            \
    }

#define CSPF_TABLE_WRITE( name, plural )            \
    CSPF_TABLE_READ( name, plural )                 \
    bool name##Is( const Key& k, const Value& v ) { \
        return this->set( k, v );                   \
    }                                               \
    bool name##Del( const Key& k ) {                \
        return this->del( k );                      \
    }                                               \
    void name##DelAll() {                           \
        this->delAll();                             \
    }

}  // namespace Platform
