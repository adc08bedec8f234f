// Declarations of attributes and keyed collections inside an Entity.
//
// Each macro gives the vocabulary of the runtime and one notification tag:
//   CSPF_ATTR( T, foo )            foo(), fooIs( v ), fooTag
//   CSPF_COUNTER( foo )            as CSPF_ATTR( uint32_t, foo ) plus fooInc( n )
//   CSPF_COLL( Kind, K, V, foo, foos )
//                                  foo( k ), fooHas( k ), foos(), fooIs( k, v ),
//                                  fooDel( k ), fooDelAll(), fooColl(), fooTag
//   CSPF_ENTITY_COLL( Kind, K, T, foo, foos )
//                                  as CSPF_COLL over Ptr<T>, but fooIs( k, args... )
//                                  finds or creates T( k, args... ) and returns it
// Kind is HashColl or OrderedColl. A setter notifies only when the value really
// changes (for doubles: numerically different); a counter's Inc notifies when
// it adds something; a collection notifies per key, with the key. Declare them
// in a public section: each macro leaves the section public.
#pragma once

#include <cstdint>
#include <utility>

#include "platform/Collection.h"
#include "platform/Entity.h"

#define CSPF_ATTR( Type, name, ... )                  \
  public:                                             \
    static constexpr ::Platform::AttrTag name##Tag{}; \
    const Type& name() const {                        \
        return name##_;                               \
    }                                                 \
    void name##Is( const Type& v ) {                  \
        if ( !( name##_ == v ) ) {                    \
            name##_ = v;                              \
            notify( &name##Tag );                     \
        }                                             \
    }                                                 \
                                                      \
  private:                                            \
    Type name##_{ __VA_ARGS__ };                      \
                                                      \
  public:

#define CSPF_COUNTER( name )           \
    CSPF_ATTR( uint32_t, name )        \
    void name##Inc( uint32_t n = 1 ) { \
        if ( n ) {                     \
            name##_ += n;              \
            notify( &name##Tag );      \
        }                              \
    }

#define CSPF_COLL_COMMON_( Kind, K, V, name, plural )         \
  public:                                                     \
    static constexpr ::Platform::KeyTag<K> name##Tag{};       \
    bool name##Has( const K& k ) const {                      \
        return name##_.has( k );                              \
    }                                                         \
    size_t plural() const {                                   \
        return name##_.size();                                \
    }                                                         \
    const ::Platform::Kind<K, V>& name##Coll() const {        \
        return name##_;                                       \
    }                                                         \
    void name##Del( const K& k ) {                            \
        const K key = k; /* k may live in the erased entry */ \
        if ( name##_.erase( key ) ) {                         \
            notify( &name##Tag, &key );                       \
        }                                                     \
    }                                                         \
    void name##DelAll() {                                     \
        for ( const K& key : name##_.keys() ) {               \
            name##Del( key );                                 \
        }                                                     \
    }                                                         \
                                                              \
  private:                                                    \
    ::Platform::Kind<K, V> name##_;                           \
                                                              \
  public:

#define CSPF_COLL( Kind, K, V, name, plural )     \
    CSPF_COLL_COMMON_( Kind, K, V, name, plural ) \
    V name( const K& k ) const {                  \
        return name##_.get( k );                  \
    }                                             \
    void name##Is( const K& k, const V& v ) {     \
        if ( name##_.set( k, v ) ) {              \
            notify( &name##Tag, &k );             \
        }                                         \
    }

#define CSPF_ENTITY_COLL( Kind, K, T, name, plural )                                   \
    CSPF_COLL_COMMON_( Kind, K, ::Platform::Ptr<T>, name, plural )                     \
    ::Platform::Ptr<T> name( const K& k ) const {                                      \
        return name##_.get( k );                                                       \
    }                                                                                  \
    template <typename... A>                                                           \
    ::Platform::Ptr<T> name##Is( const K& k, A&&... args ) {                           \
        if ( const auto* existing = name##_.find( k ) ) {                              \
            return *existing;                                                          \
        }                                                                              \
        ::Platform::Ptr<T> p = ::Platform::create<T>( k, std::forward<A>( args )... ); \
        name##_.set( k, p );                                                           \
        notify( &name##Tag, &k );                                                      \
        return p;                                                                      \
    }
