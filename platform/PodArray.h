// PodArray: a bounded array of trivially copyable elements.
//
// Record layouts bound their arrays (1024 hops); the in-memory value keeps only
// what is there, in a std::vector, so that a path of 3 hops does not carry
// 20 KB. Indices are a BoundedIndex type: an index past the layout's bound is
// a RangeError before it is ever a memory access.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/Assert.h"
#include "platform/Error.h"

namespace Platform {

template <typename T, size_t Capacity, typename IndexT>
class PodArray {
    static_assert( std::is_trivially_copyable_v<T> );
    static_assert( Capacity > 0 );
    // Every slot must be addressable, so that appending the element past
    // Capacity is the index type's own range error.
    static_assert( IndexT::min == 0 && IndexT::max >= Capacity - 1 );

  public:
    using value_type = T;
    using const_iterator = typename std::vector<T>::const_iterator;
    using iterator = typename std::vector<T>::iterator;

    static constexpr size_t capacity() { return Capacity; }

    size_t size() const { return items_.size(); }
    bool empty() const { return items_.empty(); }
    const T* data() const { return items_.data(); }

    // Replaces the contents with the `n` elements at `src`.
    void set( const T* src, size_t n ) {
        CSPF_ASSERT( src != nullptr || n == 0 );
        if ( n > Capacity ) {
            throw InvalidSizeError( oversizeText( src, n ) );
        }
        items_.assign( src, src + n );
    }

    void append( const T& item ) {
        IndexT slot = IndexT::fromWide( items_.size() );  // past the bound: RangeError
        if ( slot.value() >= Capacity ) {
            throw InvalidSizeError( "PodArray::append past capacity " +
                                    std::to_string( Capacity ) );
        }
        items_.push_back( item );
    }

    void clear() { items_.clear(); }

    // The caller has checked the index against size().
    const T& operator[]( IndexT index ) const {
        CSPF_ASSERT( index.value() < items_.size() );
        return items_[index.value()];
    }
    T& operator[]( IndexT index ) {
        CSPF_ASSERT( index.value() < items_.size() );
        return items_[index.value()];
    }

    // As operator[], for an index that nobody has checked yet.
    const T& at( IndexT index ) const {
        if ( index.value() >= items_.size() ) {
            throw RangeError( "PodArray::at index " + std::to_string( index.value() ) +
                              " >= size " + std::to_string( items_.size() ) );
        }
        return items_[index.value()];
    }

    const_iterator begin() const { return items_.begin(); }
    const_iterator end() const { return items_.end(); }
    iterator begin() { return items_.begin(); }
    iterator end() { return items_.end(); }

    bool operator==( const PodArray& other ) const { return items_ == other.items_; }

  private:
    // The whole source goes into the text: an oversized array usually comes from
    // a corrupt or misread buffer, and its bytes tell which.
    static std::string oversizeText( const T* src, size_t n ) {
        char address[32];
        std::snprintf( address, sizeof( address ), "%p",
                       static_cast<const void*>( src ) );
        static constexpr char kHex[] = "0123456789abcdef";
        const auto* bytes = reinterpret_cast<const unsigned char*>( src );
        std::string text =
            "PodArray::set expected size <= " + std::to_string( Capacity ) +
            ", instead got " + std::to_string( n ) +
            ". Buffer is at address: " + address + " with contents: ";
        size_t len = n * sizeof( T );
        text.reserve( text.size() + 2 * len );
        for ( size_t i = 0; i < len; ++i ) {
            text += kHex[bytes[i] >> 4];
            text += kHex[bytes[i] & 0xf];
        }
        return text;
    }

    std::vector<T> items_;
};

}  // namespace Platform
