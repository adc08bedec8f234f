#include "platform/Dedup.h"

#include <algorithm>

#include "platform/Assert.h"

namespace Platform {

DedupHandle::~DedupHandle() {
    CSPF_ASSERT( !table_ );
    for ( DedupHandleLifeTimeNotifier* n : lifeTimeNotifiers_ ) {
        n->handle_ = nullptr;
    }
}

void DedupHandle::lastRefGone() {
    // Hold a reference of our own while the removal is announced, so that a
    // notifiee may take and drop Ptrs to the handle without ending it twice.
    ref();
    if ( table_ ) {
        table_->doRemove( this );
    }
    // One at a time: a watcher told of the end may delete other notifiers.
    while ( !lifeTimeNotifiers_.empty() ) {
        DedupHandleLifeTimeNotifier* n = lifeTimeNotifiers_.front();
        lifeTimeNotifiers_.erase( lifeTimeNotifiers_.begin() );
        n->doHandleEnded();
    }
    CSPF_ASSERT( refCount() == 1 );
    delete this;
}

DedupHashTable::~DedupHashTable() {
    // Handles may outlive the table: they are let go unlinked.
    for ( DedupHandle*& head : buckets_ ) {
        while ( DedupHandle* h = head ) {
            head = h->next_;
            h->next_ = nullptr;
            h->table_ = nullptr;
        }
    }
    if ( notifiee_ ) {
        notifiee_->handleNotificationStop( *this );
    }
}

Ptr<DedupHandle> DedupHashTable::dedup( const Ptr<DedupHandle>& candidate ) {
    CSPF_ASSERT( candidate && !candidate->linked() );
    const uint32_t hash = candidate->hash();
    if ( DedupHandle* h = find( hash, [&]( const DedupHandle& other ) {
             return candidate->compare( other );
         } ) ) {
        return Ptr<DedupHandle>( h );
    }
    doInsert( candidate.get(), hash );
    return candidate;
}

void DedupHashTable::doInsert( DedupHandle* h, uint32_t hash ) {
    CSPF_ASSERT( !h->table_ );
    if ( size_ + 1 > buckets_.size() ) {
        doGrow();
    }
    h->hash_ = hash;
    h->table_ = this;
    DedupHandle*& head = buckets_[hash & ( buckets_.size() - 1 )];
    h->next_ = head;
    head = h;
    ++size_;
    if ( notifiee_ ) {
        notifiee_->handleInsert( *h );
    }
}

void DedupHashTable::doRemove( DedupHandle* h ) {
    DedupHandle** link = &buckets_[h->hash_ & ( buckets_.size() - 1 )];
    while ( *link != h ) {
        CSPF_ASSERT( *link );
        link = &( *link )->next_;
    }
    *link = h->next_;
    h->next_ = nullptr;
    h->table_ = nullptr;
    --size_;
    if ( notifiee_ ) {
        notifiee_->handleRemove( *h );
    }
}

void DedupHashTable::doGrow() {
    std::vector<DedupHandle*> old;
    old.swap( buckets_ );
    buckets_.assign( std::max<size_t>( 8, old.size() * 2 ), nullptr );
    for ( DedupHandle* head : old ) {
        while ( DedupHandle* h = head ) {
            head = h->next_;
            DedupHandle*& b = buckets_[h->hash_ & ( buckets_.size() - 1 )];
            h->next_ = b;
            b = h;
        }
    }
}

DedupHandleLifeTimeNotifier::DedupHandleLifeTimeNotifier( DedupHandle* handle )
    : handle_( handle ) {
    if ( handle_ ) {
        handle_->lifeTimeNotifiers_.push_back( this );
    }
}

DedupHandleLifeTimeNotifier::~DedupHandleLifeTimeNotifier() {
    if ( handle_ ) {
        auto& v = handle_->lifeTimeNotifiers_;
        v.erase( std::remove( v.begin(), v.end(), this ), v.end() );
    }
}

void DedupHandleLifeTimeNotifier::doHandleEnded() {
    handle_ = nullptr;
    notify( &handleTag );
}

}  // namespace Platform
