// Mivlog's out-of-line half: start-up, the level parser, the line writer, the
// file sink with its rotation, and the sink that tests and tools install.
//
// Every trace line is one write() on a file opened with O_APPEND, so a crash
// loses at most the line in flight and nothing is buffered in the process.
#include "platform/Mivlog.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "platform/DumpContext.h"
#include "platform/Error.h"

namespace Platform::Mivlog {

namespace detail {
std::atomic<uint32_t> levelMask{ 0 };
std::atomic<uint32_t> messageCap{ Options{}.maxLineBytes };
}  // namespace detail

namespace {

constexpr uint32_t kMinLineBytes = 16;
constexpr uint32_t kMaxLineBytes = 64 * 1024;
constexpr uint32_t kMaxKeptFiles = 99;
constexpr const char kCutMark[] = "...";

// Everything the writer touches. The agent is single-threaded; the facility
// takes no lock.
struct State {
    Options options;
    std::string path;
    int fd = -1;
    uint64_t size = 0;
    Sink sink;
    Stats stats;
    std::string line;  // reused so that a steady stream of lines allocates nothing
    bool reopenFailed = false;
};

State& state() {
    static State* instance = new State;  // never destroyed: traces may run at exit
    return *instance;
}

// Set while inside writeLine: a sink that traces would otherwise recurse
// into a half-composed line.
bool writing = false;
std::atomic<uint64_t> nestedDropped{ 0 };

const char* envValue( const char* name ) {
    const char* value = std::getenv( name );
    return value && *value ? value : nullptr;
}

std::string errnoText( int err ) {
    return std::strerror( err );
}

void stderrLine( const std::string& text ) {
    std::string line = "mivlog: " + text + "\n";
    ssize_t ignored = ::write( STDERR_FILENO, line.data(), line.size() );
    (void)ignored;
}

uint32_t levelsUpTo( uint32_t highest ) {
    return ( 2u << highest ) - 1;
}

std::optional<uint32_t> parseLevel( std::string_view text ) {
    if ( text.size() != 1 || text[0] < '0' || text[0] > '9' ) {
        return std::nullopt;
    }
    return static_cast<uint32_t>( text[0] - '0' );
}

// Opens `path` for appending. The default directory is shared by every user,
// so the file must not be a link planted there and must be ours.
int doOpen( const std::string& path, uint64_t* size ) {
    int fd = ::open( path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW,
                     0600 );
    if ( fd < 0 ) {
        throw Error( "cannot open trace file " + path + ": " + errnoText( errno ) );
    }
    struct stat st;
    if ( ::fstat( fd, &st ) != 0 || !S_ISREG( st.st_mode ) || st.st_uid != ::geteuid() ) {
        ::close( fd );
        throw Error( "trace file " + path + " is not a regular file owned by this user" );
    }
    ::fchmod( fd, 0600 );  // a file left by an older run keeps no wider mode
    *size = static_cast<uint64_t>( st.st_size );
    return fd;
}

// Shifts "<file>.1".. up by one, renames the file to "<file>.1" and starts a
// new one. Where a rename is refused (another user's file in a sticky /tmp),
// the file is emptied instead, so the size bound holds either way.
void doRotate( State& s ) {
    ++s.stats.rotations;
    bool renamed = false;
    if ( s.options.keptFiles > 0 ) {
        for ( uint32_t i = s.options.keptFiles - 1; i >= 1; --i ) {
            std::string from = s.path + "." + std::to_string( i );
            std::string to = s.path + "." + std::to_string( i + 1 );
            ::rename( from.c_str(), to.c_str() );  // a missing older file is fine
        }
        renamed = ::rename( s.path.c_str(), ( s.path + ".1" ).c_str() ) == 0;
    }
    if ( !renamed ) {
        if ( ::ftruncate( s.fd, 0 ) == 0 ) {
            s.size = 0;
            return;
        }
    }
    ::close( s.fd );
    s.fd = -1;
    try {
        s.fd = doOpen( s.path, &s.size );
        s.reopenFailed = false;
    } catch ( const Error& e ) {
        if ( !s.reopenFailed ) {
            stderrLine( std::string( e.what() ) + "; traces are dropped" );
        }
        s.reopenFailed = true;
    }
}

void doWriteFile( State& s, const std::string& line ) {
    if ( s.size > 0 && s.size + line.size() > s.options.maxFileBytes ) {
        doRotate( s );
    }
    if ( s.fd < 0 ) {
        ++s.stats.linesDropped;
        return;
    }
    size_t off = 0;
    while ( off < line.size() ) {
        ssize_t n = ::write( s.fd, line.data() + off, line.size() - off );
        if ( n < 0 ) {
            if ( errno == EINTR ) {
                continue;
            }
            ++s.stats.linesDropped;  // a full disk must not stop the agent
            return;
        }
        off += static_cast<size_t>( n );
    }
    s.size += line.size();
    ++s.stats.linesWritten;
}

// Builds the line into s.line: signature, ": ", the message with its newlines
// written as "\n" so that one trace stays one line, then "\n". A line past
// the limit keeps what fits before "...\n", never ending inside a UTF-8
// character.
void doCompose( State& s, std::string_view signature, std::string_view message ) {
    const size_t limit = s.options.maxLineBytes;
    std::string& line = s.line;
    line.clear();
    // Collect at most one byte past what can be kept, enough to know to cut.
    auto put = [&]( std::string_view piece ) {
        if ( line.size() < limit ) {
            line.append( piece.substr( 0, limit - line.size() ) );
        }
    };
    // The writer's signature without a storage or virtual-ness prefix, so
    // that a handler's lines read the same whether or not it overrides.
    for ( std::string_view prefix : { "virtual ", "static " } ) {
        if ( signature.substr( 0, prefix.size() ) == prefix ) {
            signature.remove_prefix( prefix.size() );
        }
    }
    put( signature );
    put( ": " );
    for ( size_t start = 0; start < message.size() && line.size() < limit; ) {
        size_t newline = message.find( '\n', start );
        if ( newline == std::string_view::npos ) {
            put( message.substr( start ) );
            break;
        }
        put( message.substr( start, newline - start ) );
        put( "\\n" );
        start = newline + 1;
    }
    if ( line.size() + 1 <= limit ) {
        line.push_back( '\n' );
        return;
    }
    size_t keep = limit - ( sizeof( kCutMark ) - 1 ) - 1;
    for ( int back = 0; back < 3 && keep > 0 &&
                        ( static_cast<unsigned char>( line[keep] ) & 0xC0 ) == 0x80;
          ++back ) {
        --keep;
    }
    line.resize( keep );
    line.append( kCutMark );
    line.push_back( '\n' );
    ++s.stats.linesCut;
}

void doValidate( const Options& options ) {
    if ( options.maxFileBytes == 0 ) {
        throw RangeError( "Mivlog maximum file size must not be 0" );
    }
    if ( options.defaultHighestLevel >= static_cast<uint32_t>( kLevels ) ) {
        throw RangeError( "Mivlog default level " +
                          std::to_string( options.defaultHighestLevel ) + " is above 9" );
    }
    if ( options.keptFiles > kMaxKeptFiles ) {
        throw RangeError( "Mivlog keeps at most " + std::to_string( kMaxKeptFiles ) +
                          " rotated files, not " + std::to_string( options.keptFiles ) );
    }
    if ( options.maxLineBytes < kMinLineBytes || options.maxLineBytes > kMaxLineBytes ) {
        throw RangeError( "Mivlog line length " + std::to_string( options.maxLineBytes ) +
                          " is outside " + std::to_string( kMinLineBytes ) + ".." +
                          std::to_string( kMaxLineBytes ) );
    }
}

}  // namespace

std::string directory() {
    const char* dir = envValue( "MIVLOGDIR" );
    return dir ? dir : kDefaultDirectory;
}

std::string fileNameFor( const std::string& agentName ) {
    if ( agentName.empty() ) {
        throw NameError( "Mivlog agent name is empty" );
    }
    for ( char c : agentName ) {
        if ( c == '/' || static_cast<unsigned char>( c ) < 0x20 || c == 0x7f ) {
            throw NameError( "Mivlog agent name '" + agentName +
                             "' holds a '/' or a control character" );
        }
    }
    std::string name = agentName;
    if ( !envValue( "MIVLOGDIR" ) ) {
        // Without a directory of its own, an agent shares /tmp with other runs.
        name += "-" + std::to_string( ::getpid() );
    }
    return name + ".mv";
}

void init( const std::string& name, const Options& options ) {
    if ( std::getenv( "MIVLOG_DISABLE" ) ) {
        return;
    }
    doValidate( options );
    if ( name.empty() ) {
        throw NameError( "Mivlog file name is empty" );
    }
    std::string path =
        name.find( '/' ) != std::string::npos ? name : directory() + "/" + name;
    uint64_t size = 0;
    int fd = doOpen( path, &size );

    std::string warning;
    uint32_t mask =
        levelsForVariable( std::getenv( "MIVLOG_LEVELS" ),
                           levelsUpTo( options.defaultHighestLevel ), &warning );
    if ( !warning.empty() ) {
        stderrLine( warning );
    }
    State& s = state();
    if ( s.fd >= 0 ) {
        ::close( s.fd );
    }
    s.fd = fd;
    s.size = size;
    s.path = path;
    s.options = options;
    s.reopenFailed = false;
    detail::messageCap.store( options.maxLineBytes, std::memory_order_relaxed );
    detail::levelMask.store( mask, std::memory_order_relaxed );
}

void init( const std::string& name, uint32_t maxFileMiB, uint32_t defaultHighestLevel,
           uint32_t keptFiles, uint32_t maxLineBytes ) {
    Options options;
    options.maxFileBytes = static_cast<uint64_t>( maxFileMiB ) << 20;
    options.defaultHighestLevel = defaultHighestLevel;
    options.keptFiles = keptFiles;
    options.maxLineBytes = maxLineBytes;
    init( name, options );
}

void initFromEnvironment( const std::string& agentName ) {
    if ( std::getenv( "MIVLOG_DISABLE" ) ) {
        return;  // checked before the name too: a disabled agent touches nothing
    }
    init( fileNameFor( agentName ), 24, 0, 1, 512 );
}

void shutdown() {
    State& s = state();
    detail::levelMask.store( 0, std::memory_order_relaxed );
    if ( s.fd >= 0 ) {
        ::close( s.fd );
    }
    s.fd = -1;
    s.size = 0;
    s.path.clear();
    s.options = Options{};
    detail::messageCap.store( s.options.maxLineBytes, std::memory_order_relaxed );
}

std::optional<uint32_t> parseLevels( std::string_view text ) {
    if ( text == "all" ) {
        return kAllLevels;
    }
    if ( text == "none" ) {
        return kNoLevels;
    }
    if ( text.find_first_of( ",-" ) == std::string_view::npos ) {
        auto highest = parseLevel( text );
        if ( !highest ) {
            return std::nullopt;
        }
        return levelsUpTo( *highest );
    }
    uint32_t mask = 0;
    while ( true ) {
        size_t comma = text.find( ',' );
        std::string_view item = text.substr( 0, comma );
        size_t dash = item.find( '-' );
        if ( dash == std::string_view::npos ) {
            auto level = parseLevel( item );
            if ( !level ) {
                return std::nullopt;
            }
            mask |= 1u << *level;
        } else {
            auto low = parseLevel( item.substr( 0, dash ) );
            auto high = parseLevel( item.substr( dash + 1 ) );
            if ( !low || !high || *low > *high ) {
                return std::nullopt;
            }
            mask |= levelsUpTo( *high ) & ~( levelsUpTo( *low ) >> 1 );
        }
        if ( comma == std::string_view::npos ) {
            return mask;
        }
        text.remove_prefix( comma + 1 );
    }
}

std::string levelsText( uint32_t mask ) {
    mask &= kAllLevels;
    if ( mask == kNoLevels ) {
        return "none";
    }
    if ( mask == kAllLevels ) {
        return "all";
    }
    std::string text;
    for ( int level = 0; level < kLevels; ) {
        if ( !( mask & ( 1u << level ) ) ) {
            ++level;
            continue;
        }
        int last = level;
        while ( last + 1 < kLevels && ( mask & ( 1u << ( last + 1 ) ) ) ) {
            ++last;
        }
        if ( !text.empty() ) {
            text += ',';
        }
        text += static_cast<char>( '0' + level );
        // A lone "n" would read back as 0..n, so a single level other than 0
        // is written as a range.
        if ( last != level || ( level != 0 && mask == ( 1u << level ) ) ) {
            text += '-';
            text += static_cast<char>( '0' + last );
        }
        level = last + 1;
    }
    return text;
}

uint32_t levelsForVariable( const char* value, uint32_t defaultMask,
                            std::string* warning ) {
    if ( !value || !*value ) {
        return defaultMask;
    }
    auto mask = parseLevels( value );
    if ( mask ) {
        return *mask;
    }
    if ( warning ) {
        *warning = std::string( "ignoring malformed MIVLOG_LEVELS='" ) + value +
                   "' (forms: 3, 0,4,7, 2-5, all, none); levels " +
                   levelsText( defaultMask ) + " stay on";
    }
    return defaultMask;
}

void levelsIs( uint32_t mask ) {
    if ( mask & ~kAllLevels ) {
        throw RangeError( "Mivlog level mask has bits above level 9" );
    }
    detail::levelMask.store( mask, std::memory_order_relaxed );
}

void sinkIs( Sink sink ) {
    State& s = state();
    s.sink = std::move( sink );
}

std::string filePath() {
    State& s = state();
    return s.fd >= 0 ? s.path : std::string();
}

Stats stats() {
    State& s = state();
    Stats result = s.stats;
    result.linesDropped += nestedDropped.load( std::memory_order_relaxed );
    return result;
}

void writeLine( std::string_view signature, std::string_view message ) {
    if ( writing ) {
        // A sink that traces: drop the nested line.
        nestedDropped.fetch_add( 1, std::memory_order_relaxed );
        return;
    }
    State& s = state();
    writing = true;
    {
        if ( !s.sink && s.fd < 0 ) {
            ++s.stats.linesDropped;
        } else {
            doCompose( s, signature, message );
            if ( s.sink ) {
                try {
                    s.sink( s.line );
                    ++s.stats.linesWritten;
                } catch ( ... ) {
                    ++s.stats.linesDropped;
                }
            } else {
                doWriteFile( s, s.line );
            }
        }
    }
    writing = false;
}

void dumpState( DumpContext& context, unsigned indent ) {
    State& s = state();
    objDumpLine( context, indent, "Mivlog file %s\n",
                 s.fd >= 0 ? s.path.c_str() : "(none)" );
    objDumpLine( context, indent + 2, "levels %s, sink %s\n",
                 levelsText( levels() ).c_str(), s.sink ? "installed" : "file" );
    objDumpLine( context, indent + 2,
                 "size %" PRIu64 " of %" PRIu64 ", kept files %u, line limit %u\n",
                 s.size, s.options.maxFileBytes, s.options.keptFiles,
                 s.options.maxLineBytes );
    objDumpLine( context, indent + 2,
                 "lines written %" PRIu64 ", cut %" PRIu64 ", dropped %" PRIu64
                 ", rotations %" PRIu64 "\n",
                 s.stats.linesWritten, s.stats.linesCut,
                 s.stats.linesDropped + nestedDropped.load( std::memory_order_relaxed ),
                 s.stats.rotations );
}

void Line::doAppendSlow( const char* data, size_t size ) {
    size_t used = view().size();
    if ( used >= cap_ ) {
        return;
    }
    if ( size > cap_ - used ) {
        size = cap_ - used;
    }
    if ( !spilled_ ) {
        if ( used + size <= sizeof( small_ ) ) {
            std::memcpy( small_ + size_, data, size );
            size_ += size;
            return;
        }
        large_.reserve( cap_ );
        large_.assign( small_, size_ );
        spilled_ = true;
    }
    large_.append( data, size );
}

void Line::appendFloating( long double value, bool isLong ) {
    // General format at precision 6 is "%g", which is what a default
    // std::ostream prints; to_chars does it without printf's cost.
    char text[64];
    auto result =
        isLong ? std::to_chars( text, text + sizeof( text ), value,
                                std::chars_format::general, 6 )
               : std::to_chars( text, text + sizeof( text ), static_cast<double>( value ),
                                std::chars_format::general, 6 );
    if ( result.ec == std::errc() ) {
        append( text, static_cast<size_t>( result.ptr - text ) );
    }
}

void Line::appendPointer( const volatile void* pointer ) {
    char text[2 + 16];
    text[0] = '0';
    text[1] = 'x';
    auto result = std::to_chars( text + 2, text + sizeof( text ),
                                 reinterpret_cast<uintptr_t>( pointer ), 16 );
    append( text, static_cast<size_t>( result.ptr - text ) );
}

}  // namespace Platform::Mivlog
