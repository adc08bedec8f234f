// Intrusive reference counting: `RefCounted` objects owned through `Ptr<T>`.
//
// Owners hold Ptrs; collections own their children. The count is a plain
// integer because the agent runs on one thread; building with
// CSPF_ATOMIC_REFCOUNT makes it atomic for code that shares objects across
// threads (none of ours does).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

#ifdef CSPF_ATOMIC_REFCOUNT
#include <atomic>
#endif

namespace Platform {

[[noreturn]] void throwNullValidPtr();

class RefCounted {
  public:
    RefCounted() = default;
    // A copy is a new object: it starts with no references.
    RefCounted( const RefCounted& ) : refs_( 0 ) {}
    RefCounted& operator=( const RefCounted& ) { return *this; }

    void ref() const noexcept { ++refs_; }
    void unref() const noexcept {
        if ( --refs_ == 0 ) {
            const_cast<RefCounted*>( this )->lastRefGone();
        }
    }
    uint32_t refCount() const noexcept { return refs_; }

  protected:
    virtual ~RefCounted() = default;
    // Runs when the last reference goes. Objects that must leave a table
    // first (dedup handles) override it; they end with `delete this`.
    virtual void lastRefGone() { delete this; }

  private:
#ifdef CSPF_ATOMIC_REFCOUNT
    mutable std::atomic<uint32_t> refs_{ 0 };
#else
    mutable uint32_t refs_ = 0;
#endif
};

template <typename T>
class Ptr {
  public:
    using element_type = T;

    Ptr() noexcept = default;
    Ptr( std::nullptr_t ) noexcept {}
    Ptr( T* p ) noexcept : p_( p ) {
        if ( p_ ) {
            p_->ref();
        }
    }
    Ptr( const Ptr& o ) noexcept : Ptr( o.p_ ) {}
    Ptr( Ptr&& o ) noexcept : p_( std::exchange( o.p_, nullptr ) ) {}
    template <typename U>
    Ptr( const Ptr<U>& o ) noexcept : Ptr( o.get() ) {}
    template <typename U>
    Ptr( Ptr<U>&& o ) noexcept : p_( o.release() ) {}
    ~Ptr() {
        if ( p_ ) {
            p_->unref();
        }
    }

    Ptr& operator=( Ptr o ) noexcept {
        std::swap( p_, o.p_ );
        return *this;
    }

    T* get() const noexcept { return p_; }
    T* ptr() const noexcept { return p_; }
    T* operator->() const noexcept { return p_; }
    T& operator*() const noexcept { return *p_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }
    void reset() noexcept { Ptr().swap( *this ); }
    void swap( Ptr& o ) noexcept { std::swap( p_, o.p_ ); }
    // Gives up ownership without dropping the reference.
    T* release() noexcept { return std::exchange( p_, nullptr ); }

    friend bool operator==( const Ptr& a, const Ptr& b ) { return a.p_ == b.p_; }
    friend bool operator==( const Ptr& a, const T* b ) { return a.p_ == b; }
    friend bool operator==( const Ptr& a, std::nullptr_t ) { return a.p_ == nullptr; }
    friend bool operator<( const Ptr& a, const Ptr& b ) {
        return std::less<T*>()( a.p_, b.p_ );
    }

  private:
    T* p_ = nullptr;
};

// A Ptr that is never null: building one from nothing raises the range error
// "null ValidPtr". Used where an allocation or a factory must yield an object.
template <typename T>
class ValidPtr : public Ptr<T> {
  public:
    ValidPtr( Ptr<T> p ) : Ptr<T>( std::move( p ) ) {
        if ( !this->get() ) {
            throwNullValidPtr();
        }
    }
    ValidPtr( T* p ) : ValidPtr( Ptr<T>( p ) ) {}
};

template <typename T, typename U>
Ptr<T> ptrCast( const Ptr<U>& p ) {
    return Ptr<T>( static_cast<T*>( p.get() ) );
}

template <typename T, typename U>
Ptr<T> ptrDynamicCast( const Ptr<U>& p ) {
    return Ptr<T>( dynamic_cast<T*>( p.get() ) );
}

}  // namespace Platform

template <typename T>
struct std::hash<Platform::Ptr<T>> {
    size_t operator()( const Platform::Ptr<T>& p ) const noexcept {
        return std::hash<T*>()( p.get() );
    }
};
