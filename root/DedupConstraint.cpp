#include "root/DedupConstraint.h"

#include <new>
#include <ostream>

#include "platform/Error.h"
#include "platform/ValueForm.h"

namespace Cspf {

namespace {

constexpr std::string_view kContentType = "Cspf::DedupConstraintContent";
constexpr const char* kAttribute = "pathConstraint";

}  // namespace

uint32_t oneAtATimeStep( uint32_t h, const uint8_t* bytes, size_t n ) {
    for ( size_t i = 0; i < n; ++i ) {
        h += bytes[i];
        h += h << 10;
        h ^= h >> 6;
    }
    return h;
}

uint32_t oneAtATimeHash( const uint8_t* bytes, size_t n ) {
    return oneAtATimeStep( 0, bytes, n );
}

uint32_t oneAtATimeFinal( uint32_t h ) {
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
}

DedupConstraintContent::DedupConstraintContent( std::string_view text ) {
    Platform::ValueForm form( text, kContentType, kAttribute );
    if ( form.fields().size() != 1 ) {
        throw Platform::DeserializationError( kAttribute,
                                              "expected the one field pathConstraint" );
    }
    try {
        pathConstraint = PathConstraint( form.field( kAttribute ) );
    } catch ( const Platform::DeserializationError& e ) {
        if ( e.attribute() == kAttribute ) {
            throw;
        }
        throw Platform::DeserializationError( kAttribute, e.what() );
    } catch ( const Platform::Error& e ) {
        // A value out of range is bad input here, whoever found it.
        throw Platform::DeserializationError( kAttribute, e.what() );
    }
}

uint32_t DedupConstraintContent::hash() const {
    // Byte order is fixed here, not taken from memory, so that the hash is the
    // same on every host.
    const uint32_t c = pathConstraint.hash();
    const uint8_t bytes[4] = { static_cast<uint8_t>( c ), static_cast<uint8_t>( c >> 8 ),
                               static_cast<uint8_t>( c >> 16 ),
                               static_cast<uint8_t>( c >> 24 ) };
    return oneAtATimeFinal( oneAtATimeHash( bytes, sizeof( bytes ) ) );
}

std::string DedupConstraintContent::toString() const {
    return Platform::ValueFormWriter( kContentType )
        .field( kAttribute, pathConstraint.toString() )
        .str();
}

std::ostream& operator<<( std::ostream& os, const DedupConstraintContent& content ) {
    return os << content.toString();
}

DedupConstraint::DedupConstraint( const DedupConstraintContent& content )
    : content_( content ) {}

const char* DedupConstraint::fwkType() const {
    return "Cspf::DedupConstraint";
}

DedupConstraint::~DedupConstraint() = default;

uint32_t DedupConstraint::hash() const {
    return content_.hash();
}

bool DedupConstraint::compare( const Platform::DedupHandle& other ) const {
    const auto* o = dynamic_cast<const DedupConstraint*>( &other );
    return o && compareByContent( o->content_ );
}

bool DedupConstraint::compareByContent( const DedupConstraintContent& content ) const {
    return content_ == content;
}

Platform::Ptr<DedupConstraint> DedupConstraint::dedupContent(
    Platform::DedupHashTable& table, const DedupConstraintContent& content ) {
    Platform::Ptr<Platform::DedupHandle> h = table.findOrInsert(
        content.hash(),
        [&]( const Platform::DedupHandle& candidate ) {
            // Only DedupConstraints live in a constraint table.
            return static_cast<const DedupConstraint&>( candidate )
                .compareByContent( content );
        },
        [&] {
            return Platform::Ptr<Platform::DedupHandle>(
                allocDedupConstraint( content ) );
        } );
    return Platform::ptrCast<DedupConstraint>( h );
}

void DedupConstraint::dumpState( Platform::DumpContext& context, unsigned indent ) const {
    Platform::objDumpLine( context, indent, "Constraint Handle: %p %s\n",
                           static_cast<const void*>( this ),
                           content_.toString().c_str() );
}

Platform::ValidPtr<DedupConstraint> allocDedupConstraint(
    const DedupConstraintContent& content ) {
    // nothrow: a failed allocation is reported as a range error, like every
    // other factory that must yield an object.
    return Platform::ValidPtr<DedupConstraint>( new ( std::nothrow )
                                                    DedupConstraint( content ) );
}

DedupConstraintLifeTimeNotifier::DedupConstraintLifeTimeNotifier(
    DedupConstraint* handle )
    : Platform::DedupHandleLifeTimeNotifier( handle ) {}

DedupConstraintContent DedupConstraintLifeTimeNotifier::content() const {
    if ( const DedupConstraint* h = dedupConstraint() ) {
        return h->content();
    }
    return DedupConstraintContent();
}

}  // namespace Cspf
