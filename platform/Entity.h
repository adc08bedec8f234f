// Entities and reactors: the objects of the reactive runtime.
//
// An Entity is reference counted and notifies its watchers when an attribute
// really changes (Attribute.h declares attributes and collections). A Reactor
// (named ...Sm) watches entities and runs handle... methods synchronously.
// `create<T>(args)` builds either and runs its `handleInitialized()` once, so
// that a state that existed before the object is acted on at once.
#pragma once

#include <utility>
#include <vector>

#include "platform/Notifier.h"
#include "platform/Ptr.h"

namespace Platform {

class Entity : public RefCounted, public Notifier {};

template <typename T, typename... A>
Ptr<T> create( A&&... args ) {
    Ptr<T> p( new T( std::forward<A>( args )... ) );
    if constexpr ( requires { p->handleInitialized(); } ) {
        p->handleInitialized();
    }
    return p;
}

class Reactor : public RefCounted {
  public:
    Reactor() = default;
    Reactor( const Reactor& ) = delete;
    Reactor& operator=( const Reactor& ) = delete;

  protected:
    // Registers `fn` of the derived reactor for `tag` of `entity` for the
    // reactor's life.
    template <typename R, typename Tag, typename Fn>
    void watch( Notifier* entity, const Tag& tag, Fn R::*fn ) {
        subs_.push_back( subscribe( entity, tag, static_cast<R*>( this ), fn ) );
    }
    template <typename R>
    void watchAll( Notifier* entity, void ( R::*fn )() ) {
        subs_.push_back( subscribeAll( entity, static_cast<R*>( this ), fn ) );
    }
    void unwatchAll() { subs_.clear(); }

  private:
    std::vector<SubscriptionPtr> subs_;
};

}  // namespace Platform
