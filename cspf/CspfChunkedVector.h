// Cspf::CspfChunkedVector: a vector that grows by whole chunks and never moves
// what it holds.
//
// A run's tables grow with the topology, to tens of thousands of members of
// a few hundred bytes each. A plain vector copies all of them every time it
// doubles, and keeps up to twice their room; this one adds a chunk (a small
// first one, so that a table of a few members stays small) and leaves the
// members where they are, so that references to them stay valid as it grows.
#pragma once

#include <cstddef>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

namespace Cspf {

template <typename T>
class CspfChunkedVector {
  public:
    static constexpr size_t kFirst = 16;
    static constexpr size_t kChunk = 512;

    class const_iterator {
      public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = T;
        using difference_type = std::ptrdiff_t;
        using pointer = const T*;
        using reference = const T&;

        const_iterator() = default;
        reference operator*() const { return ( *owner_ )[at_]; }
        pointer operator->() const { return &( *owner_ )[at_]; }
        const_iterator& operator++() {
            ++at_;
            return *this;
        }
        const_iterator operator++( int ) {
            const_iterator before = *this;
            ++at_;
            return before;
        }
        bool operator==( const const_iterator& other ) const { return at_ == other.at_; }

      private:
        friend class CspfChunkedVector;
        const_iterator( const CspfChunkedVector* owner, size_t at )
            : owner_( owner ), at_( at ) {}
        const CspfChunkedVector* owner_ = nullptr;
        size_t at_ = 0;
    };

    CspfChunkedVector() = default;
    CspfChunkedVector( const CspfChunkedVector& other ) {
        for ( const T& member : other ) {
            push_back( member );
        }
    }
    CspfChunkedVector& operator=( const CspfChunkedVector& other ) {
        if ( this != &other ) {
            CspfChunkedVector copy( other );
            swap( copy );
        }
        return *this;
    }
    CspfChunkedVector( CspfChunkedVector&& ) noexcept = default;
    CspfChunkedVector& operator=( CspfChunkedVector&& ) noexcept = default;

    T& operator[]( size_t at ) {
        const auto [chunk, offset] = doPlace( at );
        return chunks_[chunk][offset];
    }
    const T& operator[]( size_t at ) const {
        const auto [chunk, offset] = doPlace( at );
        return chunks_[chunk][offset];
    }
    T& back() { return ( *this )[size_ - 1]; }

    template <typename... A>
    T& emplace_back( A&&... args ) {
        const auto [chunk, offset] = doPlace( size_ );
        if ( chunk == chunks_.size() ) {
            chunks_.push_back( std::make_unique<T[]>( chunk ? kChunk : kFirst ) );
        }
        T& member = chunks_[chunk][offset];
        member = T( std::forward<A>( args )... );
        ++size_;
        return member;
    }
    void push_back( const T& value ) { emplace_back( value ); }
    // Leaves the last member's room to the next emplace_back.
    void pop_back() { --size_; }

    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    // Gives the room back too.
    void clear() {
        chunks_.clear();
        chunks_.shrink_to_fit();
        size_ = 0;
    }
    void swap( CspfChunkedVector& other ) noexcept {
        chunks_.swap( other.chunks_ );
        std::swap( size_, other.size_ );
    }

    const_iterator begin() const { return const_iterator( this, 0 ); }
    const_iterator end() const { return const_iterator( this, size_ ); }

  private:
    static std::pair<size_t, size_t> doPlace( size_t at ) {
        if ( at < kFirst ) {
            return { 0, at };
        }
        return { 1 + ( at - kFirst ) / kChunk, ( at - kFirst ) % kChunk };
    }

    std::vector<std::unique_ptr<T[]>> chunks_;
    size_t size_ = 0;
};

}  // namespace Cspf
