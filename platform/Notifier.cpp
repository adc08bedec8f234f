#include "platform/Notifier.h"

#include "platform/Assert.h"

namespace Platform {

Notifier::~Notifier() {
    if ( destroyed_ ) {
        *destroyed_ = true;
    }
    for ( TagList& l : lists_ ) {
        for ( Subscription* s : l.subs ) {
            if ( s ) {
                s->notifier_ = nullptr;
            }
        }
    }
}

size_t Notifier::watchers() const {
    size_t n = 0;
    for ( const TagList& l : lists_ ) {
        n += l.subs.size() - l.holes;
    }
    return n;
}

void Notifier::doNotify( const void* tag, const void* key ) {
    // Lists are only ever appended while notifying, so indexes stay valid;
    // lists added by a handler are not for this notification.
    const uint32_t lists = static_cast<uint32_t>( lists_.size() );
    for ( uint32_t i = 0; i < lists; ++i ) {
        const void* t = lists_[i].tag;
        if ( t == tag || t == nullptr ) {
            if ( !dispatch( i, key ) ) {
                return;  // the notifier is gone
            }
        }
    }
}

bool Notifier::dispatch( uint32_t list, const void* key ) {
    bool destroyed = false;
    bool* outer = destroyed_;
    destroyed_ = &destroyed;
    ++depth_;
    // Subscriptions appended by a handler sit past `n`: not called this time.
    const size_t n = lists_[list].subs.size();
    for ( size_t i = 0; i < n; ++i ) {
        Subscription* s = lists_[list].subs[i];
        if ( !s ) {
            continue;
        }
        s->fire( key );
        if ( destroyed ) {
            if ( outer ) {
                *outer = true;
            }
            return false;
        }
    }
    destroyed_ = outer;
    if ( --depth_ == 0 ) {
        for ( uint32_t l = 0; l < lists_.size(); ++l ) {
            if ( lists_[l].holes ) {
                compact( l );
            }
        }
    }
    return true;
}

void Notifier::attach( Subscription* s ) {
    uint32_t l = 0;
    while ( l < lists_.size() && lists_[l].tag != s->tag_ ) {
        ++l;
    }
    if ( l == lists_.size() ) {
        lists_.push_back( TagList{ s->tag_, {}, 0 } );
    }
    s->list_ = l;
    s->slot_ = static_cast<uint32_t>( lists_[l].subs.size() );
    lists_[l].subs.push_back( s );
}

void Notifier::detach( Subscription* s ) {
    TagList& l = lists_[s->list_];
    CSPF_ASSERT( l.subs[s->slot_] == s );
    l.subs[s->slot_] = nullptr;
    ++l.holes;
    // Outside a notification, compact once holes dominate: amortised O(1)
    // removal that keeps the order of the remaining watchers.
    if ( depth_ == 0 && l.holes * 2 > l.subs.size() ) {
        compact( s->list_ );
    }
}

void Notifier::compact( uint32_t list ) {
    TagList& l = lists_[list];
    size_t out = 0;
    for ( Subscription* s : l.subs ) {
        if ( s ) {
            s->slot_ = static_cast<uint32_t>( out );
            l.subs[out++] = s;
        }
    }
    l.subs.resize( out );
    l.holes = 0;
}

Subscription::Subscription( Notifier* notifier, const void* tag )
    : notifier_( notifier ), tag_( tag ) {
    if ( notifier_ ) {
        notifier_->attach( this );
    }
}

Subscription::~Subscription() {
    if ( notifier_ ) {
        notifier_->detach( this );
    }
}

}  // namespace Platform
