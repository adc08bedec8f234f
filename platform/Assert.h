// Fatal assertions guard our own invariants, never input.
//
// A failure prints the expression text exactly as written in the source, the
// source name and the full signature of the enclosing function, then aborts.
#pragma once

namespace Platform {

[[noreturn]] void assertFailed( const char* expr, const char* file, int line,
                                const char* function );

}  // namespace Platform

#define CSPF_ASSERT( expr )                            \
    ( __builtin_expect( static_cast<bool>( expr ), 1 ) \
          ? static_cast<void>( 0 )                     \
          : ::Platform::assertFailed( #expr, __FILE__, __LINE__, __PRETTY_FUNCTION__ ) )

// As CSPF_ASSERT, for a condition already computed: `text` is what a failure
// prints as the expression (the check it stands for).
#define CSPF_ASSERT_AS( cond, text )                   \
    ( __builtin_expect( static_cast<bool>( cond ), 1 ) \
          ? static_cast<void>( 0 )                     \
          : ::Platform::assertFailed( text, __FILE__, __LINE__, __PRETTY_FUNCTION__ ) )
