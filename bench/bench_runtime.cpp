// Cost of the reactive runtime: an attribute change that notifies one
// reactor, an unchanged set, and a keyed-collection change.
#include <benchmark/benchmark.h>

#include "platform/Attribute.h"

using namespace Platform;

namespace {

class Counter : public Entity {
  public:
    CSPF_ATTR( uint32_t, value )
    CSPF_ATTR( uint32_t, other )
    CSPF_COLL( HashColl, uint32_t, uint32_t, slot, slots )
};

class CounterSm : public Reactor {
  public:
    explicit CounterSm( Counter* c ) : counter_( c ) {
        watch( c, Counter::valueTag, &CounterSm::handleValue );
        watch( c, Counter::slotTag, &CounterSm::handleSlot );
    }
    void handleValue() { sum_ += counter_->value(); }
    void handleSlot( const uint32_t& k ) { sum_ += k; }
    uint64_t sum_ = 0;

  private:
    Ptr<Counter> counter_;
};

void BM_AttributeChangeNotifiesOneReactor( benchmark::State& state ) {
    auto c = create<Counter>();
    auto sm = create<CounterSm>( c.get() );
    uint32_t v = 0;
    for ( auto _ : state ) {
        c->valueIs( ++v );
    }
    benchmark::DoNotOptimize( sm->sum_ );
}
BENCHMARK( BM_AttributeChangeNotifiesOneReactor );

void BM_AttributeSetUnchanged( benchmark::State& state ) {
    auto c = create<Counter>();
    auto sm = create<CounterSm>( c.get() );
    c->valueIs( 7 );
    for ( auto _ : state ) {
        c->valueIs( 7 );
    }
    benchmark::DoNotOptimize( sm->sum_ );
}
BENCHMARK( BM_AttributeSetUnchanged );

// A change of an attribute that nobody watches, on an entity that has
// watchers of other attributes.
void BM_AttributeChangeUnwatchedTag( benchmark::State& state ) {
    auto c = create<Counter>();
    auto sm = create<CounterSm>( c.get() );
    uint32_t v = 0;
    for ( auto _ : state ) {
        c->otherIs( ++v );
    }
    benchmark::DoNotOptimize( sm->sum_ );
}
BENCHMARK( BM_AttributeChangeUnwatchedTag );

void BM_CollectionChangeNotifiesOneReactor( benchmark::State& state ) {
    auto c = create<Counter>();
    auto sm = create<CounterSm>( c.get() );
    for ( uint32_t k = 0; k < 1024; ++k ) {
        c->slotIs( k, 0 );
    }
    uint32_t v = 0;
    for ( auto _ : state ) {
        ++v;
        c->slotIs( v & 1023, v );
    }
    benchmark::DoNotOptimize( sm->sum_ );
}
BENCHMARK( BM_CollectionChangeNotifiesOneReactor );

}  // namespace
