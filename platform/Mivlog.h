// Mivlog: the trace facility, one file per agent.
//
// Map of this module:
//  - the level mask (here, inline): what every TRACEn reads, and all that a
//    disabled trace costs;
//  - Line (here): the message builder, built only once a level is known to be on;
//  - init, the file sink, rotation, line cutting and the test sink (Mivlog.cpp).
// How operators name the file and pick levels: docs/tracing.md.
//
// A line is the writer's __PRETTY_FUNCTION__, ": ", the message and "\n", with
// nothing before the signature, so that a line can be traced to its writer by
// a plain search of the source.
#pragma once

#include <atomic>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

namespace Platform {

class DumpContext;

namespace Mivlog {

constexpr int kLevels = 10;
constexpr uint32_t kNoLevels = 0;
constexpr uint32_t kAllLevels = ( 1u << kLevels ) - 1;

namespace detail {
// Bit n set: level n is on.
extern std::atomic<uint32_t> levelMask;
// The largest message a Line keeps; anything past it would be cut anyway.
extern std::atomic<uint32_t> messageCap;
}  // namespace detail

// What init needs to know. The agent's start-up numbers (24, 0, 1, 512) map
// onto these fields one for one, the first one in MiB.
struct Options {
    // The file is rotated before a line would take it past this size.
    uint64_t maxFileBytes = 24ull << 20;
    // Levels 0..defaultHighestLevel are on when MIVLOG_LEVELS is unset or bad.
    uint32_t defaultHighestLevel = 0;
    // Rotated files kept: "<file>.1" (newest) .. "<file>.<keptFiles>".
    uint32_t keptFiles = 1;
    // Largest line in bytes, "\n" included; longer lines end with "...".
    uint32_t maxLineBytes = 512;
};

// The file name for an agent: the name, then "-<pid>" when MIVLOGDIR is unset
// (or empty), then ".mv". Throws NameError for a name that cannot be a file name.
std::string fileNameFor( const std::string& agentName );
// Where a file name without '/' goes: MIVLOGDIR when set and not empty, else
// the default directory.
std::string directory();
constexpr const char* kDefaultDirectory = "/tmp";

// Opens the trace file `name` (placed in directory() unless it holds a '/')
// and sets the levels from MIVLOG_LEVELS. Does nothing when MIVLOG_DISABLE is
// set. Throws RangeError for options out of bounds and Error when the file
// cannot be opened; the previous state is then kept.
void init( const std::string& name, const Options& options );
// The agent's form: maximum file size in MiB, highest level on by default,
// rotated files kept, largest line in bytes.
void init( const std::string& name, uint32_t maxFileMiB, uint32_t defaultHighestLevel,
           uint32_t keptFiles, uint32_t maxLineBytes );
// init( fileNameFor( agentName ), 24, 0, 1, 512 ).
void initFromEnvironment( const std::string& agentName );
// Closes the file and turns every level off.
void shutdown();

// MIVLOG_LEVELS forms: "3" (levels 0..3), "0,4,7", "2-5", "all", "none";
// a comma list may mix levels and ranges ("0,2-5"). nullopt when malformed.
std::optional<uint32_t> parseLevels( std::string_view text );
// The mask in a form that parseLevels reads back ("none", "all", "0-3,7").
std::string levelsText( uint32_t mask );
// The mask for a MIVLOG_LEVELS value (nullptr or empty: unset). A malformed
// value gives `defaultMask` and a one-line warning in `warning`.
uint32_t levelsForVariable( const char* value, uint32_t defaultMask,
                            std::string* warning );

// Throws RangeError for bits above level 9.
void levelsIs( uint32_t mask );
inline uint32_t levels() {
    return detail::levelMask.load( std::memory_order_relaxed );
}
inline bool enabled( int level ) {
    return level >= 0 && level < kLevels &&
           ( levels() & ( 1u << static_cast<unsigned>( level ) ) ) != 0;
}

// Receives each complete line ("\n" included) instead of the file while set;
// nullptr restores the file. A line whose sink throws is counted as dropped;
// a trace written from inside the sink is dropped rather than deadlock.
using Sink = std::function<void( std::string_view line )>;
void sinkIs( Sink sink );

// The open file's path, empty when none.
std::string filePath();

struct Stats {
    uint64_t linesWritten = 0;
    uint64_t linesCut = 0;
    uint64_t linesDropped = 0;  // no file, a failed write, a nested trace
    uint64_t rotations = 0;
};
Stats stats();

// What the macros call once a level is on. Kept out of line so that the
// traced function carries no formatting or I/O code.
void writeLine( std::string_view signature, std::string_view message );

void dumpState( DumpContext& context, unsigned indent );

template <typename T>
concept Streamable = requires( std::ostream& os, const T& value ) {
    os << value;
};

// The message builder: an ostream-like << chain into a buffer on the stack.
// Integers in decimal, floating point as a default std::ostream prints it,
// bools as "true"/"false", signed and unsigned char as numbers (a uint8_t is
// a number in a trace, not a byte), pointers in hex, and any other type
// through its operator<<( std::ostream&, const T& ).
class Line {
  public:
    Line() : cap_( detail::messageCap.load( std::memory_order_relaxed ) ) {}
    Line( const Line& ) = delete;
    Line& operator=( const Line& ) = delete;

    std::string_view view() const {
        return spilled_ ? std::string_view( large_ ) : std::string_view( small_, size_ );
    }

    template <typename T>
    Line& operator<<( const T& value ) {
        using U = std::remove_cv_t<T>;
        if constexpr ( std::is_array_v<U> &&
                       std::is_same_v<std::remove_cv_t<std::remove_extent_t<U>>, char> ) {
            // A literal or a fixed buffer: stop at the first NUL, never past the end.
            append( value, strnlen( value, std::extent_v<U> ) );
        } else if constexpr ( std::is_same_v<U, const char*> ||
                              std::is_same_v<U, char*> ) {
            value ? append( value, std::strlen( value ) ) : append( "(null)", 6 );
        } else if constexpr ( std::is_same_v<U, bool> ) {
            value ? append( "true", 4 ) : append( "false", 5 );
        } else if constexpr ( std::is_same_v<U, char> ) {
            append( &value, 1 );
        } else if constexpr ( std::is_integral_v<U> ) {
            char digits[24];
            auto result = std::to_chars( digits, digits + sizeof( digits ), value );
            append( digits, static_cast<size_t>( result.ptr - digits ) );
        } else if constexpr ( std::is_floating_point_v<U> ) {
            appendFloating( static_cast<long double>( value ),
                            std::is_same_v<U, long double> );
        } else if constexpr ( std::is_null_pointer_v<U> ) {
            append( "nullptr", 7 );
        } else if constexpr ( std::is_convertible_v<const U&, std::string_view> ) {
            std::string_view text( value );
            append( text.data(), text.size() );
        } else if constexpr ( std::is_pointer_v<U> &&
                              !std::is_function_v<std::remove_pointer_t<U>> ) {
            appendPointer( static_cast<const volatile void*>( value ) );
        } else if constexpr ( Streamable<U> ) {
            appendStreamed( value );
        } else if constexpr ( std::is_enum_v<U> ) {
            *this << static_cast<std::underlying_type_t<U>>( value );
        } else {
            static_assert( Streamable<U>,
                           "a traced type needs operator<<( std::ostream&, const T& )" );
        }
        return *this;
    }

  private:
    class StreamBuf;

    void append( const char* data, size_t size ) {
        if ( !spilled_ && size_ + size <= sizeof( small_ ) && size_ + size <= cap_ ) {
            std::memcpy( small_ + size_, data, size );
            size_ += size;
            return;
        }
        doAppendSlow( data, size );
    }
    void doAppendSlow( const char* data, size_t size );
    void appendFloating( long double value, bool isLong );
    void appendPointer( const volatile void* pointer );
    template <typename T>
    void appendStreamed( const T& value );

    size_t cap_;
    size_t size_ = 0;
    bool spilled_ = false;
    char small_[256];
    std::string large_;
};

// Feeds an ostream straight into a Line, so that a type's own operator<< costs
// no temporary string.
class Line::StreamBuf final : public std::streambuf {
  public:
    explicit StreamBuf( Line& line ) : line_( line ) {}

  protected:
    int_type overflow( int_type c ) override {
        if ( !traits_type::eq_int_type( c, traits_type::eof() ) ) {
            char ch = traits_type::to_char_type( c );
            line_.append( &ch, 1 );
        }
        return traits_type::not_eof( c );
    }
    std::streamsize xsputn( const char* data, std::streamsize size ) override {
        line_.append( data, static_cast<size_t>( size ) );
        return size;
    }

  private:
    Line& line_;
};

template <typename T>
void Line::appendStreamed( const T& value ) {
    StreamBuf buffer( *this );
    std::ostream stream( &buffer );
    stream << value;
}

}  // namespace Mivlog
}  // namespace Platform

// Agent code names the facility without the platform's namespace.
namespace Mivlog = Platform::Mivlog;

// One predictable branch when the level is off: a load of the mask and a
// test. The message is built in a cold, never-inlined lambda so that the
// traced function keeps none of the formatting code; the signature is taken
// outside it, where __PRETTY_FUNCTION__ still names the writer.
#define MIVLOG_TRACE_( level, ... )                                                    \
    do {                                                                               \
        if ( __builtin_expect( ( ::Platform::Mivlog::detail::levelMask.load(           \
                                     std::memory_order_relaxed ) &                     \
                                 ( 1u << ( level ) ) ) != 0,                           \
                               0 ) ) {                                                 \
            [&]( const char* mivlogSignature_ ) __attribute__( ( noinline, cold ) ) {  \
                ::Platform::Mivlog::Line mivlogLine_;                                  \
                mivlogLine_ << __VA_ARGS__;                                            \
                ::Platform::Mivlog::writeLine( mivlogSignature_, mivlogLine_.view() ); \
            }                                                                          \
            ( __PRETTY_FUNCTION__ );                                                   \
        }                                                                              \
    } while ( 0 )

// A line written on behalf of another function: `signature` (a const char*
// or std::string naming the caller) takes the place of this one's.
#define TRACE_FOR( level, signature, ... )                                      \
    do {                                                                        \
        if ( __builtin_expect( ( ::Platform::Mivlog::detail::levelMask.load(    \
                                     std::memory_order_relaxed ) &              \
                                 ( 1u << ( level ) ) ) != 0,                    \
                               0 ) ) {                                          \
            [&]() __attribute__( ( noinline, cold ) ) {                         \
                ::Platform::Mivlog::Line mivlogLine_;                           \
                mivlogLine_ << __VA_ARGS__;                                     \
                ::Platform::Mivlog::writeLine( signature, mivlogLine_.view() ); \
            }                                                                   \
            ();                                                                 \
        }                                                                       \
    } while ( 0 )

#define TRACE0( ... ) MIVLOG_TRACE_( 0, __VA_ARGS__ )
#define TRACE1( ... ) MIVLOG_TRACE_( 1, __VA_ARGS__ )
#define TRACE2( ... ) MIVLOG_TRACE_( 2, __VA_ARGS__ )
#define TRACE3( ... ) MIVLOG_TRACE_( 3, __VA_ARGS__ )
#define TRACE4( ... ) MIVLOG_TRACE_( 4, __VA_ARGS__ )
#define TRACE5( ... ) MIVLOG_TRACE_( 5, __VA_ARGS__ )
#define TRACE6( ... ) MIVLOG_TRACE_( 6, __VA_ARGS__ )
#define TRACE7( ... ) MIVLOG_TRACE_( 7, __VA_ARGS__ )
#define TRACE8( ... ) MIVLOG_TRACE_( 8, __VA_ARGS__ )
#define TRACE9( ... ) MIVLOG_TRACE_( 9, __VA_ARGS__ )
