// Change notification between entities and the reactors that watch them.
//
// An entity (a Notifier) announces a change of one attribute or of one key of
// a collection by its tag; a Subscription registered for that tag runs its
// handler synchronously. Notification is re-entrancy safe:
//  - a handler may delete any subscription, its own included, and may delete
//    the notifier itself: a deleted subscription is never called again;
//  - a subscription added during a notification is not called for it;
//  - nested notifications (a handler changing another attribute) are fine.
// Subscriptions are kept per tag, so a change costs nothing for watchers of
// other attributes of the same entity.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace Platform {

// Tags name what changed. Entities declare one static constexpr tag per
// attribute (AttrTag) or keyed collection (KeyTag<K>, whose notifications
// carry the key); see Attribute.h.
struct AttrTag {};
template <typename K>
struct KeyTag {};

class Subscription;

class Notifier {
  public:
    Notifier() = default;
    // A copied entity starts with no watchers.
    Notifier( const Notifier& ) {}
    Notifier& operator=( const Notifier& ) { return *this; }
    virtual ~Notifier();

    // Tells the watchers of `tag` (and the watchers of every tag) that it
    // changed; `key` points at the changed key for keyed collections.
    void notify( const void* tag, const void* key = nullptr ) {
        if ( !lists_.empty() ) {
            doNotify( tag, key );
        }
    }
    size_t watchers() const;

  private:
    friend class Subscription;
    struct TagList {
        const void* tag;  // nullptr: every tag
        std::vector<Subscription*> subs;
        uint32_t holes = 0;
    };

    void doNotify( const void* tag, const void* key );
    bool dispatch( uint32_t list, const void* key );
    void attach( Subscription* s );
    void detach( Subscription* s );
    void compact( uint32_t list );

    std::vector<TagList> lists_;
    uint32_t depth_ = 0;
    bool* destroyed_ = nullptr;  // set when deleted inside doNotify
};

// One registration of a handler for one tag of one notifier. Destroying it
// unregisters it; it outlives its notifier harmlessly.
class Subscription {
  public:
    Subscription( Notifier* notifier, const void* tag );
    virtual ~Subscription();
    Subscription( const Subscription& ) = delete;
    Subscription& operator=( const Subscription& ) = delete;

    Notifier* notifier() const { return notifier_; }
    const void* tag() const { return tag_; }

  protected:
    virtual void fire( const void* key ) = 0;

  private:
    friend class Notifier;
    Notifier* notifier_;
    const void* tag_;
    uint32_t list_ = 0;
    uint32_t slot_ = 0;
};

template <typename R>
class MethodSubscription final : public Subscription {
  public:
    MethodSubscription( Notifier* n, const void* tag, R* obj, void ( R::*fn )() )
        : Subscription( n, tag ), obj_( obj ), fn_( fn ) {}

  private:
    void fire( const void* ) override { ( obj_->*fn_ )(); }
    R* obj_;
    void ( R::*fn_ )();
};

template <typename R, typename K>
class KeyMethodSubscription final : public Subscription {
  public:
    KeyMethodSubscription( Notifier* n, const void* tag, R* obj,
                           void ( R::*fn )( const K& ) )
        : Subscription( n, tag ), obj_( obj ), fn_( fn ) {}

  private:
    void fire( const void* key ) override {
        ( obj_->*fn_ )( *static_cast<const K*>( key ) );
    }
    R* obj_;
    void ( R::*fn_ )( const K& );
};

template <typename F>
class FnSubscription final : public Subscription {
  public:
    FnSubscription( Notifier* n, const void* tag, F fn )
        : Subscription( n, tag ), fn_( std::move( fn ) ) {}

  private:
    void fire( const void* ) override { fn_(); }
    F fn_;
};

template <typename K, typename F>
class KeyFnSubscription final : public Subscription {
  public:
    KeyFnSubscription( Notifier* n, const void* tag, F fn )
        : Subscription( n, tag ), fn_( std::move( fn ) ) {}

  private:
    void fire( const void* key ) override { fn_( *static_cast<const K*>( key ) ); }
    F fn_;
};

using SubscriptionPtr = std::unique_ptr<Subscription>;

// Typed constructors: the tag's type decides the handler's signature.
template <typename R>
SubscriptionPtr subscribe( Notifier* n, const AttrTag& tag, R* obj, void ( R::*fn )() ) {
    return std::make_unique<MethodSubscription<R>>( n, &tag, obj, fn );
}
template <typename R, typename K>
SubscriptionPtr subscribe( Notifier* n, const KeyTag<K>& tag, R* obj,
                           void ( R::*fn )( const K& ) ) {
    return std::make_unique<KeyMethodSubscription<R, K>>( n, &tag, obj, fn );
}
template <typename F>
SubscriptionPtr subscribe( Notifier* n, const AttrTag& tag, F fn ) {
    return std::make_unique<FnSubscription<F>>( n, &tag, std::move( fn ) );
}
template <typename K, typename F>
SubscriptionPtr subscribe( Notifier* n, const KeyTag<K>& tag, F fn ) {
    return std::make_unique<KeyFnSubscription<K, F>>( n, &tag, std::move( fn ) );
}
// Every change of the notifier, whatever the tag (the key is not passed).
template <typename R>
SubscriptionPtr subscribeAll( Notifier* n, R* obj, void ( R::*fn )() ) {
    return std::make_unique<MethodSubscription<R>>( n, nullptr, obj, fn );
}

}  // namespace Platform
