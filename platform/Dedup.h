// Deduplication tables: one shared, reference-counted handle per distinct
// content.
//
// A DedupHandle sits in exactly one DedupHashTable through an intrusive hook.
// Finding or making a handle is by hash and content; when the last reference
// to a handle goes, it leaves its table (the table's notifiee hears
// handleRemove) and is deleted. The table's one notifiee also hears
// handleInsert for every new handle, and handleNotificationStop when the table
// itself goes away. A DedupHandleLifeTimeNotifier is a weak watcher of one
// handle: it gives access to the handle while it exists and notifies its own
// watchers when the handle ends.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/Attribute.h"
#include "platform/Ptr.h"

namespace Platform {

class DedupHashTable;
class DedupHandleLifeTimeNotifier;

class DedupHandle : public RefCounted {
  public:
    virtual const char* fwkType() const = 0;
    virtual uint32_t hash() const = 0;
    // Equal content to another handle of the same kind.
    virtual bool compare( const DedupHandle& other ) const = 0;

    DedupHashTable* table() const { return table_; }
    bool linked() const { return table_ != nullptr; }

  protected:
    DedupHandle() = default;
    ~DedupHandle() override;
    void lastRefGone() override;

  private:
    friend class DedupHashTable;
    friend class DedupHandleLifeTimeNotifier;
    DedupHashTable* table_ = nullptr;
    DedupHandle* next_ = nullptr;  // bucket chain
    uint32_t hash_ = 0;
    std::vector<DedupHandleLifeTimeNotifier*> lifeTimeNotifiers_;
};

class DedupTableNotifiee {
  public:
    virtual ~DedupTableNotifiee() = default;
    virtual void handleInsert( DedupHandle& handle ) = 0;
    virtual void handleRemove( DedupHandle& handle ) = 0;
    virtual void handleNotificationStop( DedupHashTable& ) {}
};

class DedupHashTable : public RefCounted {
  public:
    DedupHashTable() = default;
    ~DedupHashTable() override;
    DedupHashTable( const DedupHashTable& ) = delete;
    DedupHashTable& operator=( const DedupHashTable& ) = delete;

    void notifieeIs( DedupTableNotifiee* notifiee ) { notifiee_ = notifiee; }
    DedupTableNotifiee* notifiee() const { return notifiee_; }

    // The handle with `hash` for which `matches( handle )` holds, or one
    // made by `alloc()` and inserted (the notifiee hears handleInsert).
    template <typename Match, typename Alloc>
    Ptr<DedupHandle> findOrInsert( uint32_t hash, Match&& matches, Alloc&& alloc ) {
        if ( DedupHandle* h = find( hash, matches ) ) {
            return Ptr<DedupHandle>( h );
        }
        Ptr<DedupHandle> h = alloc();
        doInsert( h.get(), hash );
        return h;
    }

    // The handle equal to `candidate` (by `compare`), or the candidate
    // itself, inserted. A candidate that loses is dropped unlinked.
    Ptr<DedupHandle> dedup( const Ptr<DedupHandle>& candidate );

    template <typename Match>
    DedupHandle* find( uint32_t hash, Match&& matches ) const {
        if ( buckets_.empty() ) {
            return nullptr;
        }
        for ( DedupHandle* h = buckets_[hash & ( buckets_.size() - 1 )]; h;
              h = h->next_ ) {
            if ( h->hash_ == hash && matches( *h ) ) {
                return h;
            }
        }
        return nullptr;
    }

    size_t size() const { return size_; }
    // Visits every handle (order unspecified); `fn` must not add or remove.
    template <typename Fn>
    void forEach( Fn&& fn ) const {
        for ( DedupHandle* head : buckets_ ) {
            for ( DedupHandle* h = head; h; h = h->next_ ) {
                fn( *h );
            }
        }
    }

  private:
    friend class DedupHandle;
    void doInsert( DedupHandle* h, uint32_t hash );
    void doRemove( DedupHandle* h );
    void doGrow();

    std::vector<DedupHandle*> buckets_;
    size_t size_ = 0;
    DedupTableNotifiee* notifiee_ = nullptr;
};

// Weak watcher of one handle: `handle()` while it exists, null afterwards;
// watchers of `handleTag` hear the end.
class DedupHandleLifeTimeNotifier : public Entity {
  public:
    explicit DedupHandleLifeTimeNotifier( DedupHandle* handle );
    ~DedupHandleLifeTimeNotifier() override;

    static constexpr AttrTag handleTag{};
    DedupHandle* handle() const { return handle_; }

  private:
    friend class DedupHandle;
    void doHandleEnded();
    DedupHandle* handle_;
};

}  // namespace Platform
