// A directory of the state database whose entries come and go.
//
// The entries are the names in the directory (tables, subdirectories, and
// whatever else a peer put there: presence of a name is what is reported);
// names starting with '.' are a writer's temporary files and never entries.
// A reactor watches `entryTag` and hears each name that came or went. The
// collection follows inotify; a rename over a present name (a writer
// replacing a table file) keeps the name present and is silent. When the
// directory is missing the collection is empty, and the nearest existing
// ancestor is watched until the directory appears. After a lost event (the
// queue overflowed) the directory is scanned again and only the names whose
// presence changed are reported.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Attribute.h"

namespace Platform {

class DumpContext;
class Inotify;
class InotifyWatch;
class StateTree;
class TreeDir;

class DirectoryWatch : public Entity {
  public:
    // `statePath` "" is the root. With `create`, the directory and its
    // parents are made when missing.
    DirectoryWatch( StateTree& tree, Inotify& inotify, std::string statePath,
                    bool create );
    ~DirectoryWatch() override;

    // The value is always true: a name is either present or absent.
    CSPF_COLL( OrderedColl, std::string, bool, entry, entries )

    const std::string& statePath() const { return statePath_; }
    const std::string& directory() const { return directory_; }
    // Whether the directory exists and is watched itself.
    bool present() const { return directoryWatch_ != nullptr; }
    uint32_t rescans() const { return rescans_; }
    // The last failure to re-watch after an event, empty when none.
    const std::string& lastError() const { return lastError_; }

    // Watches again from scratch and rescans, reporting only the names whose
    // presence changed; what an inotify queue overflow runs. Throws Error
    // when the directory or an ancestor cannot be watched.
    void resync();

    void dumpState( DumpContext& context, unsigned indent ) const;

  private:
    struct KeepAlive;

    void handleDirectoryEvent( uint32_t mask, std::string_view name );
    void handleAncestorEvent( uint32_t mask, std::string_view name );
    void doAttach();
    // doAttach (or resync) from an event: a failure is kept, not thrown.
    void doReattach( bool rescan );
    // The nearest existing directory above a missing root.
    std::string doNearestAboveRoot() const;
    std::vector<std::string> doScan( const TreeDir& directory ) const;
    void doApply( const std::vector<std::string>& names );
    // Whether only our own keep-alives still hold this watch: its owner let
    // go during a notification, so nothing more is reported.
    bool doAbandoned() const { return keeps_ > 0 && refCount() <= keeps_; }

    StateTree& tree_;
    Inotify& inotify_;
    std::string statePath_;
    std::string directory_;  // absolute
    std::unique_ptr<InotifyWatch> directoryWatch_;
    // While the directory is missing: its nearest existing ancestor, and the
    // name under it that leads to the directory.
    std::unique_ptr<InotifyWatch> ancestorWatch_;
    std::string ancestor_;
    std::string nextName_;
    uint32_t rescans_ = 0;
    std::string lastError_;
    uint32_t keeps_ = 0;
};

}  // namespace Platform
