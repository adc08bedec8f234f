// Cspf::DedupConstraint: one shared handle per distinct path constraint.
//
// Paths are computed once per distinct constraint of a VRF and family, so a
// request's PathConstraint is first turned into a DedupConstraint handle;
// equal constraints get the same handle, which leaves its table when its last
// holder lets go. What lives here:
//   oneAtATimeHash / oneAtATimeFinal   the hash scheme of dedup contents
//   DedupConstraintContent             the deduplicated value
//   DedupConstraint                    the handle, and how one is found or made
//   DedupConstraintLifeTimeNotifier    a weak watcher of one handle
// The table that holds the handles is DedupConstraintTable.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include "platform/Dedup.h"
#include "platform/DumpContext.h"
#include "platform/Ptr.h"
#include "records/PathConstraint.h"

namespace Cspf {

// Jenkins' one-at-a-time hash, split so that a key made of several fields can
// feed them one after the other: oneAtATimeHash() mixes the first field in
// from h = 0, oneAtATimeStep() continues with the next ones, and
// oneAtATimeFinal() ends the hash once after the last field.
uint32_t oneAtATimeStep( uint32_t h, const uint8_t* bytes, size_t n );
uint32_t oneAtATimeHash( const uint8_t* bytes, size_t n );
uint32_t oneAtATimeFinal( uint32_t h );

class DedupConstraintContent {
  public:
    PathConstraint pathConstraint;

    DedupConstraintContent() = default;
    explicit DedupConstraintContent( const PathConstraint& constraint )
        : pathConstraint( constraint ) {}
    // Reads the string form back; any failure raises DeserializationError
    // naming "pathConstraint".
    explicit DedupConstraintContent( std::string_view text );

    bool operator==( const DedupConstraintContent& other ) const = default;
    // The one-at-a-time hash of the four bytes of pathConstraint.hash(), least
    // significant first: stable across processes, like the constraint's own.
    uint32_t hash() const;

    // "Value('Cspf::DedupConstraintContent', ** {'pathConstraint': <constraint>})"
    std::string toString() const;
};

std::ostream& operator<<( std::ostream& os, const DedupConstraintContent& content );

class DedupConstraint : public Platform::DedupHandle {
  public:
    explicit DedupConstraint( const DedupConstraintContent& content );

    const char* fwkType() const override;

  protected:
    // Only the last reference ends a handle (DedupHandle::lastRefGone).
    ~DedupConstraint() override;

  public:
    uint32_t hash() const override;
    // Equal contents; a handle of another kind is never equal.
    bool compare( const Platform::DedupHandle& other ) const override;
    virtual bool compareByContent( const DedupConstraintContent& content ) const;

    const DedupConstraintContent& content() const { return content_; }
    const PathConstraint& pathConstraint() const { return content_.pathConstraint; }

    // The handle of `content` in `table`: the existing one with one more
    // reference, or a new one inserted (the table's notifiee hears
    // handleInsert).
    static Platform::Ptr<DedupConstraint> dedupContent(
        Platform::DedupHashTable& table, const DedupConstraintContent& content );

    void dumpState( Platform::DumpContext& context, unsigned indent ) const;

  private:
    const DedupConstraintContent content_;
};

// Builds a new, unlinked handle. An allocation that yields no object raises
// RangeError "null ValidPtr".
Platform::ValidPtr<DedupConstraint> allocDedupConstraint(
    const DedupConstraintContent& content );

// Watches one handle without holding it. Once the handle has gone,
// dedupConstraint() is null and content() is the default content, never the
// last one seen; watchers of handleTag hear the end.
class DedupConstraintLifeTimeNotifier : public Platform::DedupHandleLifeTimeNotifier {
  public:
    explicit DedupConstraintLifeTimeNotifier( DedupConstraint* handle );

    DedupConstraint* dedupConstraint() const {
        return static_cast<DedupConstraint*>( handle() );
    }
    DedupConstraintContent content() const;
    PathConstraint pathConstraint() const { return content().pathConstraint; }
};

}  // namespace Cspf
