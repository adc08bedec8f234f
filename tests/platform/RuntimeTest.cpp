// The reactive runtime: change-only setters, keyed collections and
// re-entrancy-safe notification.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Attribute.h"

using namespace Platform;

namespace {

class Sensor : public Entity {
  public:
    CSPF_ATTR( int, level )
    CSPF_ATTR( double, stamp )
    CSPF_COUNTER( changes )
    CSPF_COLL( HashColl, std::string, int, reading, readings )
    CSPF_COLL( OrderedColl, int, std::string, label, labels )
};

class Child : public Entity {
  public:
    explicit Child( int id, std::string tag = "" )
        : id_( id ), tag_( std::move( tag ) ) {}
    void handleInitialized() { ++initialized; }
    int id_;
    std::string tag_;
    int initialized = 0;
};

class Parent : public Entity {
  public:
    CSPF_ENTITY_COLL( OrderedColl, int, Child, child, children )
};

// Records every call, and can run an action from inside a handler.
class Watcher : public Reactor {
  public:
    Watcher( Sensor* s, std::vector<std::string>* log, std::string name )
        : sensor_( s ), log_( log ), name_( std::move( name ) ) {
        watch( s, Sensor::levelTag, &Watcher::handleLevel );
        watch( s, Sensor::readingTag, &Watcher::handleReading );
    }
    void handleInitialized() { log_->push_back( name_ + ":init" ); }
    void handleLevel() {
        log_->push_back( name_ + ":level" );
        if ( onLevel ) {
            auto action = onLevel;
            action();
        }
    }
    void handleReading( const std::string& key ) {
        log_->push_back( name_ + ":reading:" + key + "=" +
                         std::to_string( sensor_->reading( key ) ) );
    }
    std::function<void()> onLevel;

  private:
    Ptr<Sensor> sensor_;
    std::vector<std::string>* log_;
    std::string name_;
};

TEST( Runtime, SettersNotifyOnlyOnRealChange ) {
    auto s = create<Sensor>();
    int level = 0, stamp = 0, changes = 0;
    auto a = subscribe( s.get(), Sensor::levelTag, [&] { ++level; } );
    auto b = subscribe( s.get(), Sensor::stampTag, [&] { ++stamp; } );
    auto c = subscribe( s.get(), Sensor::changesTag, [&] { ++changes; } );

    s->levelIs( 3 );
    s->levelIs( 3 );
    EXPECT_EQ( level, 1 );
    s->stampIs( 12.5 );
    s->stampIs( 12.5 );
    s->stampIs( -0.0 );  // numerically different from 12.5
    s->stampIs( 0.0 );   // numerically equal to -0.0
    EXPECT_EQ( stamp, 2 );
    s->changesInc();
    s->changesInc( 0 );
    s->changesInc( 4 );
    EXPECT_EQ( changes, 2 );
    EXPECT_EQ( s->changes(), 5u );
}

TEST( Runtime, CollectionsNotifyPerKey ) {
    auto s = create<Sensor>();
    std::vector<std::string> keys;
    auto sub = subscribe( s.get(), Sensor::readingTag,
                          [&]( const std::string& k ) { keys.push_back( k ); } );
    s->readingIs( "a", 1 );
    s->readingIs( "a", 1 );  // same value: silent
    s->readingIs( "a", 2 );
    s->readingIs( "b", 0 );  // new key with a default value still notifies
    EXPECT_TRUE( s->readingHas( "b" ) );
    EXPECT_EQ( s->reading( "missing" ), 0 );
    s->readingDel( "zzz" );  // absent: silent
    s->readingDel( "a" );
    EXPECT_EQ( keys, ( std::vector<std::string>{ "a", "a", "b", "a" } ) );
    EXPECT_EQ( s->readings(), 1u );

    std::vector<int> order;
    auto sub2 = subscribe( s.get(), Sensor::labelTag,
                           [&]( const int& k ) { order.push_back( k ); } );
    for ( int k : { 5, 1, 3 } ) {
        s->labelIs( k, "x" );
    }
    order.clear();
    s->labelDelAll();  // in key order, one notification per key
    EXPECT_EQ( order, ( std::vector<int>{ 1, 3, 5 } ) );
    EXPECT_EQ( s->labels(), 0u );
}

TEST( Runtime, EntityCollectionFindsOrCreatesAndInitializesOnce ) {
    auto p = create<Parent>();
    int notified = 0;
    auto sub = subscribe( p.get(), Parent::childTag, [&]( const int& ) { ++notified; } );
    Ptr<Child> c1 = p->childIs( 7, "first" );
    Ptr<Child> again = p->childIs( 7, "second" );
    EXPECT_EQ( c1, again );
    EXPECT_EQ( c1->tag_, "first" );
    EXPECT_EQ( c1->initialized, 1 );
    EXPECT_EQ( notified, 1 );
    again.reset();
    p->childDel( 7 );
    EXPECT_FALSE( p->childHas( 7 ) );
    EXPECT_EQ( c1->refCount(), 1u );  // only our Ptr is left
}

using Log = std::vector<std::string>;

class RuntimeReentry : public ::testing::Test {
  protected:
    Ptr<Watcher> watcher( const std::string& name ) {
        return create<Watcher>( s.get(), &log, name );
    }
    // The calls that a change of level makes.
    Log levelIs( int level ) {
        log.clear();
        s->levelIs( level );
        return log;
    }
    Ptr<Sensor> s = create<Sensor>();
    Log log;
};

TEST_F( RuntimeReentry, HandlersMayDeleteReactorsBeingNotified ) {
    Ptr<Watcher> w1 = watcher( "w1" ), w2 = watcher( "w2" ), w3 = watcher( "w3" );
    w1->onLevel = [&] { w1.reset(); };  // w1 holds the only reference
    EXPECT_EQ( levelIs( 1 ), ( Log{ "w1:level", "w2:level", "w3:level" } ) );
    w2->onLevel = [&] { w3.reset(); };  // a sibling not yet called
    EXPECT_EQ( levelIs( 2 ), ( Log{ "w2:level" } ) );
}

TEST_F( RuntimeReentry, ReactorCreatedDuringNotificationIsNotCalledForIt ) {
    Ptr<Watcher> w1 = watcher( "w1" ), late;
    w1->onLevel = [&] {
        if ( !late ) {
            late = watcher( "late" );
        }
    };
    EXPECT_EQ( levelIs( 1 ), ( Log{ "w1:level", "late:init" } ) );
    EXPECT_EQ( levelIs( 2 ), ( Log{ "w1:level", "late:level" } ) );
}

TEST_F( RuntimeReentry, HandlerMayDeleteTheNotifier ) {
    Ptr<Watcher> w1 = watcher( "w1" ), w2 = watcher( "w2" );
    // The watchers hold the sensor; dropping both them and our Ptr deletes it
    // in the middle of its own notification.
    w1->onLevel = [&] {
        s.reset();
        w2.reset();
        w1.reset();
    };
    EXPECT_EQ( levelIs( 9 ), ( Log{ "w1:level" } ) );
}

TEST( Runtime, NestedNotificationAndManyWatchers ) {
    auto s = create<Sensor>();
    // A handler that changes another attribute of the same entity.
    int stamps = 0;
    auto a =
        subscribe( s.get(), Sensor::levelTag, [&] { s->stampIs( s->level() * 1.5 ); } );
    auto b = subscribe( s.get(), Sensor::stampTag, [&] { ++stamps; } );
    s->levelIs( 2 );
    EXPECT_EQ( stamps, 1 );
    EXPECT_DOUBLE_EQ( s->stamp(), 3.0 );

    // Removing most of many watchers keeps the others, in order.
    std::vector<SubscriptionPtr> subs;
    std::vector<int> calls;
    for ( int i = 0; i < 100; ++i ) {
        subs.push_back( subscribe( s.get(), Sensor::changesTag,
                                   [&calls, i] { calls.push_back( i ); } ) );
    }
    for ( int i = 0; i < 100; ++i ) {
        if ( i % 10 ) {
            subs[i].reset();
        }
    }
    s->changesInc();
    EXPECT_EQ( calls, ( std::vector<int>{ 0, 10, 20, 30, 40, 50, 60, 70, 80, 90 } ) );
    EXPECT_EQ( s->watchers(), 12u );
}

TEST( Runtime, SubscriptionOutlivesItsNotifier ) {
    SubscriptionPtr sub;
    {
        auto s = create<Sensor>();
        sub = subscribe( s.get(), Sensor::levelTag, [] {} );
    }
    EXPECT_EQ( sub->notifier(), nullptr );
    sub.reset();  // must not touch the dead notifier
}

}  // namespace
