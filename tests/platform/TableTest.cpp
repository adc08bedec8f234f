// Typed table entities: a reactor sees a mounted table like a collection,
// across the life of its file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/EventLoop.h"
#include "platform/Inotify.h"
#include "platform/StateTree.h"
#include "platform/Table.h"
#include "tests/support/ByteRecord.h"
#include "tests/support/TempDir.h"

using namespace Platform;

namespace {

// A record: key u32, value a string of up to 64 bytes.
struct NoteRecord {
    using Key = uint32_t;
    using Value = std::string;
    static constexpr const char* typeName = "Test::Note";
    static constexpr const char* layout = "key u32; value text 64; v1";
    static constexpr uint32_t keySize = 4;
    static constexpr uint32_t maxValueSize = 64;
    static void encodeKey( const Key& k, uint8_t* out ) { std::memcpy( out, &k, 4 ); }
    static Key decodeKey( const uint8_t* in ) {
        Key k;
        std::memcpy( &k, in, 4 );
        return k;
    }
    static void encodeValue( const Value& v, std::vector<uint8_t>& out ) {
        out.assign( v.begin(), v.end() );
    }
    static Value decodeValue( const uint8_t* in, size_t len ) {
        return std::string( reinterpret_cast<const char*>( in ), len );
    }
};

class Notes : public TableReader<NoteRecord> {
  public:
    using TableReader::TableReader;
    CSPF_TABLE_READ( note, notes )
};

// The same table seen by a reader that refuses keys from a million up.
struct CheckedNoteRecord : NoteRecord {
    static Key decodeKey( const uint8_t* in ) {
        const Key k = NoteRecord::decodeKey( in );
        if ( k >= 1000000 ) {
            throw DeserializationError( "key", "a note number is below a million" );
        }
        return k;
    }
};

class TableTest : public ::testing::Test {
  protected:
    // Runs loop rounds until nothing more arrives.
    void pump() {
        for ( int i = 0; i < 20 && loop_.runOnce( 20 ) > 0; ++i ) {
        }
    }

    TestKit::TempTree tmp_{ "tabletest" };
    StateTree& tree_ = tmp_.tree;
    EventLoop loop_;
    Inotify inotify_{ &loop_ };
};

TEST_F( TableTest, ReaderFollowsItsWriterThroughTheLoop ) {
    auto writer = create<TableWriter<NoteRecord>>( tree_, &loop_, "a/b/notes" );
    writer->set( 3, "three" );
    auto reader = create<Notes>( tree_, &inotify_, "a/b/notes" );
    EXPECT_EQ( reader->note( 3 ), "three" );
    std::vector<uint32_t> seen;
    auto sub = subscribe( reader.get(), Notes::noteTag,
                          [&]( const uint32_t& k ) { seen.push_back( k ); } );
    writer->set( 1, "one" );
    writer->set( 1, "uno" );
    writer->set( 2, "two" );
    writer->del( 3 );
    EXPECT_TRUE( seen.empty() );  // nothing before the loop runs
    pump();
    std::sort( seen.begin(), seen.end() );
    EXPECT_EQ( seen, ( std::vector<uint32_t>{ 1, 2, 3 } ) );
    EXPECT_EQ( reader->note( 1 ), "uno" );
    EXPECT_FALSE( reader->noteHas( 3 ) );
    EXPECT_EQ( reader->notes(), 2u );
}

TEST_F( TableTest, ReaderHearsEveryBellAcrossTheWritersReplacements ) {
    // Growth replaces the file; each key, written and rung one at a time as
    // a client does, must reach the reader from the file that holds it.
    auto writer = create<TableWriter<NoteRecord>>( tree_, nullptr, "grow" );
    auto reader = create<Notes>( tree_, &inotify_, "grow" );
    std::set<uint32_t> seen;
    auto sub = subscribe( reader.get(), Notes::noteTag,
                          [&]( const uint32_t& k ) { seen.insert( k ); } );
    for ( uint32_t k = 0; k < 300; ++k ) {
        writer->set( k, "n" );
        pump();
        ASSERT_EQ( seen.count( k ), 1u ) << "key " << k;
    }
}

TEST_F( TableTest, AbsentTableFillsWhenCreatedAndEmptiesWhenRemoved ) {
    auto reader = create<Notes>( tree_, &inotify_, "late/notes" );
    EXPECT_FALSE( reader->attached() );
    EXPECT_EQ( reader->notes(), 0u );
    std::vector<uint32_t> seen;
    auto sub = subscribe( reader.get(), Notes::noteTag,
                          [&]( const uint32_t& k ) { seen.push_back( k ); } );
    {
        auto writer = create<TableWriter<NoteRecord>>( tree_, &loop_, "late/notes" );
        writer->set( 9, "nine" );
        pump();
        EXPECT_EQ( seen, ( std::vector<uint32_t>{ 9 } ) );
        // Growth replaces the file; the reader moves along and sees all.
        for ( uint32_t k = 100; k < 400; ++k ) {
            writer->set( k, "x" );
        }
        pump();
        EXPECT_EQ( reader->notes(), 301u );
    }
    seen.clear();
    EXPECT_TRUE( tree_.removeTable( "late/notes" ) );
    pump();
    EXPECT_EQ( seen.size(), 301u );
    EXPECT_EQ( reader->notes(), 0u );
}

TEST_F( TableTest, ReaderAttachingLateIndexesWhatOneFollowingAllAlongSaw ) {
    auto writer = create<TableWriter<NoteRecord>>( tree_, &loop_, "many/notes" );
    auto early = create<Notes>( tree_, &inotify_, "many/notes" );
    // Keys in scrambled order, some rewritten, some gone, and growth on the way.
    for ( uint32_t i = 0; i < 600; ++i ) {
        writer->set( ( i * 7919 ) % 1000, "n" + std::to_string( i ) );
    }
    for ( uint32_t k = 0; k < 1000; k += 3 ) {
        writer->del( k );
    }
    for ( uint32_t k = 1; k < 1000; k += 10 ) {
        writer->set( k, "again" );
    }
    writer->set( 1000001, "unreadable key" );
    pump();

    // The unreadable key is left out (and told on stderr: no handler yet).
    auto late = create<TableReader<CheckedNoteRecord>>( tree_, &inotify_, "many/notes" );
    std::vector<std::string> reports;
    late->corruptionHandlerIs( [&]( const Error& e ) { reports.push_back( e.what() ); } );
    ASSERT_EQ( early->keys().size(), writer->size() );
    EXPECT_EQ( late->size(), writer->size() - 1 );
    // Same keys, same versions, in key order, either way they came in.
    std::map<uint32_t, uint64_t> expected( early->keys().begin(), early->keys().end() );
    expected.erase( 1000001 );
    EXPECT_EQ( late->keys(), expected );

    // From there on both follow the same changes.
    writer->set( 3, "back" );
    writer->del( 1 );
    writer->set( 11, "changed" );
    writer->set( 1000001, "still unreadable" );
    pump();
    ASSERT_EQ( reports.size(), 1u );
    EXPECT_NE( reports[0].find( "bad key" ), std::string::npos );
    expected = std::map<uint32_t, uint64_t>( early->keys().begin(), early->keys().end() );
    expected.erase( 1000001 );
    EXPECT_EQ( late->keys(), expected );
    EXPECT_GT( late->keys().at( 11 ), late->keys().at( 21 ) );
}

TEST_F( TableTest, WriterKeysStayExactThroughBurstsOfNewKeys ) {
    std::set<uint32_t> model;
    {
        auto writer = create<TableWriter<NoteRecord>>( tree_, nullptr, "burst/notes" );
        // Nobody looks at the keys while a burst goes on.
        size_t told = 0;
        auto sub = subscribe( writer.get(), TableWriter<NoteRecord>::recordTag,
                              [&]( const uint32_t& ) { ++told; } );
        auto setKey = [&]( uint32_t k, const std::string& v ) {
            model.insert( k );
            writer->set( k, v );
        };
        auto delKey = [&]( uint32_t k ) {
            model.erase( k );
            writer->del( k );
        };
        for ( uint32_t i = 0; i < 300; ++i ) {
            setKey( ( i * 37 ) % 500, "a" );
        }
        EXPECT_TRUE( writer->has( 37 ) );
        EXPECT_FALSE( writer->has( 1 ) );
        for ( uint32_t i = 300; i < 400; ++i ) {
            setKey( ( i * 37 ) % 500, "b" );
        }
        delKey( ( 350 * 37 ) % 500 );  // added and deleted in the same burst
        setKey( ( 351 * 37 ) % 500, "c" );
        setKey( 1000, "d" );
        EXPECT_FALSE( writer->set( 1000, "d" ) );  // unchanged: nothing to merge
        EXPECT_EQ( writer->size(), model.size() );
        EXPECT_EQ( writer->keys(), model );
        EXPECT_EQ( told, 400u + 3u );
        for ( uint32_t i = 0; i < 20; ++i ) {
            setKey( 3000 - i, "f" );
        }
        EXPECT_EQ( writer->keys(), model );
    }
    // A writer that attaches again finds the same keys.
    auto again = create<TableWriter<NoteRecord>>( tree_, nullptr, "burst/notes" );
    EXPECT_EQ( again->keys(), model );
    again->delAll();
    EXPECT_EQ( again->size(), 0u );
}

constexpr char kLimitType[] = "Test::Limit";
using LimitRecord = TestKit::ByteRecord<kLimitType>;

TEST_F( TableTest, SingletonNotifiesItsValue ) {
    auto writer = create<SingletonWriter<LimitRecord>>( tree_, &loop_, "cfg/limit" );
    auto reader = create<SingletonReader<LimitRecord>>( tree_, &inotify_, "cfg/limit" );
    EXPECT_FALSE( reader->exists() );
    int changes = 0;
    auto sub = subscribe( reader.get(), SingletonReader<LimitRecord>::valueTag,
                          [&] { ++changes; } );
    writer->valueIs( 5 );
    writer->valueIs( 5 );
    pump();
    EXPECT_EQ( changes, 1 );
    EXPECT_EQ( reader->value(), 5u );
}

// Settings a peer broke read as absent, told once, and come back with the
// writer's next write; the writer's lock says whether it lives.
TEST_F( TableTest, SingletonOverAnUnsoundFileReadsAsAbsentUntilRewritten ) {
    create<SingletonWriter<LimitRecord>>( tree_, &loop_, "cfg/limit" )->valueIs( 5 );
    ASSERT_EQ( truncate( tree_.filePath( "cfg/limit" ).c_str(), 16 ), 0 );
    auto reader = create<SingletonReader<LimitRecord>>( tree_, &inotify_, "cfg/limit" );
    std::vector<std::string> told;
    reader->corruptionHandlerIs( [&]( const Error& e ) { told.push_back( e.what() ); } );
    pump();
    reader->sync();
    ASSERT_EQ( told.size(), 1u );
    EXPECT_NE( told[0].find( "truncated" ), std::string::npos ) << told[0];
    EXPECT_FALSE( reader->exists() );
    EXPECT_FALSE( reader->writerAlive() );
    auto writer = create<SingletonWriter<LimitRecord>>( tree_, &loop_, "cfg/limit" );
    writer->valueIs( 7 );
    pump();
    EXPECT_EQ( reader->value(), 7u );
    EXPECT_TRUE( reader->writerAlive() );
    writer = nullptr;
    EXPECT_FALSE( reader->writerAlive() );
    EXPECT_EQ( told.size(), 1u );
}

}  // namespace
