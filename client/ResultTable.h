// One result table of a client ("te/cspf/status/vrf/<vrf>/<af>/<client>"),
// read and, once the client watches, followed.
//
// The agent creates the table when it first serves the client in that VRF
// and family, and removes it when the client leaves, so the table (and its
// directories) may come and go at any time. A DirectoryWatch on the table's
// directory (which watches the nearest existing ancestor while the directory
// is missing) makes the client's inotify fd readable when the table appears;
// afterAttach() then attaches to it, from process(), outside any dispatch,
// unless a read (result(), results()) opened it first: a reader opened while
// following is followed from its opening, whoever opened it. The table reader
// itself follows the bell, replacements and removal.
//
// Changes are collected per key while inotify dispatches and handed out by
// changesTake(): one change per key whose presence or value moved since the
// last one handed out, so a result that came and went unseen is not reported.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "cspf/Client.h"
#include "platform/Notifier.h"
#include "platform/Ptr.h"
#include "records/PathKey.h"

namespace Platform {
class DirectoryWatch;
class Inotify;
class StateTree;
}  // namespace Platform

namespace Cspf {
class StatusReader;
}

namespace cspf {

class ResultTable {
  public:
    ResultTable( Platform::StateTree& tree, Platform::Inotify& inotify,
                 const Table& table, const std::string& client );
    ~ResultTable();
    ResultTable( const ResultTable& ) = delete;
    ResultTable& operator=( const ResultTable& ) = delete;

    // The current state (the reader syncs first); nothing while the table is
    // absent. A corrupt record reads as absent.
    std::optional<PathResult> result( const Cspf::PathKey& key );
    std::vector<PathResult> results();

    // Starts or stops collecting changes. What the table holds when following
    // starts is taken as known, unless `reportHeld` (a table that joins a
    // watch already running): then it is reported as added.
    void followingIs( bool following, bool reportHeld = false );
    bool following() const { return dir_ != nullptr; }
    // Attaches to a table that appeared since the last look; everything it
    // holds is then reported as added. Throws Platform::Error, once per
    // reason, for a table that cannot be read (another type, a bad header).
    void afterAttach();
    // Appends the changes collected since the last call.
    void changesTake( std::vector<ResultChange>& out );

  private:
    // Opens the reader when the table exists; false when it does not. While
    // following, what the new reader holds is reported as added when
    // `reportHeld`, else taken as known.
    bool doOpen( bool reportHeld = true );
    // Collects the reader's changes from now on; what it holds now is news
    // when `reportHeld`, else known.
    void doFollowReader( bool reportHeld );
    std::optional<PathResult> doLookup( const Cspf::PathKey& key ) const;

    Platform::StateTree& tree_;
    Platform::Inotify& inotify_;
    Table table_;
    std::string statePath_;
    Platform::Ptr<Cspf::StatusReader> reader_;
    Platform::Ptr<Platform::DirectoryWatch> dir_;
    Platform::SubscriptionPtr readerSub_;
    std::set<Cspf::PathKey> pending_;
    // The keys present as last reported.
    std::set<Cspf::PathKey> known_;
    // Why the table could not be attached at the last look, if so.
    std::string refused_;
};

}  // namespace cspf
