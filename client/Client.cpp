// libcspfclient: the client's side of the state tree, over the platform.
//
// What lives where:
//  - Client::Impl: the tree, the inotify instance behind fd(), the
//    registration writer, one request table writer per (VRF, family) used, one
//    ResultTable per (VRF, family) read or followed, the agent status reader;
//  - RecordConversion: the public values to records and back;
//  - ResultTable: reading and following one result table.
// Every public call runs inside guard(), which turns a platform refusal into
// a cspf::Error of one line.
#include "cspf/Client.h"

#include <map>
#include <utility>

#include "client/RecordConversion.h"
#include "client/ResultTable.h"
#include "platform/Error.h"
#include "platform/Inotify.h"
#include "platform/PathComponent.h"
#include "platform/StateTree.h"
#include "records/AgentStatus.h"
#include "records/Client.h"
#include "records/PathTables.h"

namespace cspf {

namespace {

using TableId = std::pair<std::string, Family>;

std::string rootOf( const std::string& root ) {
    return root.empty() ? Platform::StateTree::defaultRoot() : root;
}

// A platform error, with `context` before its text.
template <typename F>
auto guard( const std::string& context, F&& f ) -> decltype( f() ) {
    try {
        return f();
    } catch ( const Platform::Error& e ) {
        throw Error( context + e.what() );
    }
}

std::string keyText( const Table& table, const std::string& destination, uint32_t id ) {
    return Platform::printableName( destination ) + " id " + std::to_string( id ) +
           " in VRF " + Platform::printableName( table.vrf ) + " " +
           familyName( table.family );
}

}  // namespace

struct Client::Impl {
    Impl( const std::string& clientName, const std::string& root, bool observing )
        : name( clientName ),
          context( "client '" + clientName + "': " ),
          registrationPath( Cspf::clientPath( clientName ) ),
          observer( observing ),
          tree( rootOf( root ) ) {}

    // The registration, opened again after leave().
    Cspf::ClientWriter& doRegistration() {
        if ( observer ) {
            throw Platform::Error(
                "opened to observe: only the client's own process writes its tables" );
        }
        if ( !registration ) {
            registration =
                Platform::create<Cspf::ClientWriter>( tree, nullptr, registrationPath );
            if ( batch > 0 ) {
                registration->bellHold();
            }
        }
        return *registration;
    }

    // The request table of `table`; with `make` it is created when missing,
    // else null is returned for a table that does not exist.
    Cspf::ConfigWriter* doRequests( const Table& table, bool make ) {
        if ( observer ) {
            doRegistration();  // refused
        }
        const TableId id( table.vrf, table.family );
        auto it = configs.find( id );
        if ( it != configs.end() ) {
            return it->second.get();
        }
        const std::string path = doRequestsPath( table );
        if ( !make && !tree.exists( path ) ) {
            return nullptr;
        }
        auto writer = Platform::create<Cspf::ConfigWriter>( tree, nullptr, path );
        if ( batch > 0 ) {
            writer->bellHold();
        }
        return configs.emplace( id, writer ).first->second.get();
    }

    ResultTable& doResults( const Table& table ) {
        const TableId id( table.vrf, table.family );
        auto it = results.find( id );
        if ( it == results.end() ) {
            it = results
                     .emplace(
                         id, std::make_unique<ResultTable>( tree, inotify, table, name ) )
                     .first;
        }
        return *it->second;
    }

    std::string doRequestsPath( const Table& table ) const {
        return Cspf::pathConfigTablePath( toVrfName( table.vrf ),
                                          toAddressFamily( table.family ), name );
    }

    // The requests as the agent reads them: an observer's view.
    std::vector<PathRequest> doObservedRequests( const Table& table ) {
        std::vector<PathRequest> out;
        const std::string path = doRequestsPath( table );
        if ( !tree.exists( path ) ) {
            return out;
        }
        auto reader = Platform::create<Cspf::Config>( tree, nullptr, path );
        reader->corruptionHandlerIs( []( const Platform::Error& ) {} );
        for ( const auto& entry : reader->keys() ) {
            if ( reader->has( entry.first ) ) {
                out.push_back( toRequest( reader->get( entry.first ) ) );
            }
        }
        return out;
    }

    // Whether the registration lists `entry`, from whichever side we hold.
    bool doListed( const Cspf::ClientEntry& entry ) const {
        if ( registration ) {
            return registration->has( entry ) && registration->get( entry );
        }
        return observed && observed->has( entry ) && observed->get( entry );
    }

    std::vector<Cspf::ClientEntry> doEntries() const {
        std::vector<Cspf::ClientEntry> out;
        if ( registration ) {
            out.assign( registration->keys().begin(), registration->keys().end() );
        } else if ( observed ) {
            observed->sync();
            for ( const auto& entry : observed->keys() ) {
                out.push_back( entry.first );
            }
        }
        return out;
    }

    std::vector<std::string> doVrfs() const {
        std::vector<std::string> out;
        for ( const Cspf::ClientEntry& e : doEntries() ) {
            if ( e.kind == Cspf::ClientEntry::Kind::vrf && doListed( e ) ) {
                out.push_back( e.vrf.toString() );
            }
        }
        return out;
    }

    std::vector<Family> doFamilies() const {
        std::vector<Family> out;
        for ( Family f : { Family::ipv4, Family::ipv6 } ) {
            if ( doListed(
                     Cspf::ClientEntry::ofAddressFamily( toAddressFamily( f ) ) ) ) {
                out.push_back( f );
            }
        }
        return out;
    }

    // Follows the result tables of the registered cross product while a
    // callback is set. Tables that leave the registration stay followed:
    // the agent removes their results, and the client hears of it.
    // `joining`: the watch already runs, so what a newly followed table
    // holds is news.
    void doFollow( bool joining = true ) {
        if ( !watch ) {
            return;
        }
        const std::vector<Family> families = doFamilies();
        for ( const std::string& vrf : doVrfs() ) {
            for ( Family f : families ) {
                doResults( Table{ vrf, f } ).followingIs( true, joining );
            }
        }
    }

    const std::string name;
    const std::string context;
    const std::string registrationPath;
    const bool observer;
    Platform::StateTree tree;
    // Destroyed after every watch that uses it.
    Platform::Inotify inotify{ nullptr };
    Platform::Ptr<Cspf::ClientWriter> registration;
    Platform::Ptr<Cspf::Client> observed;  // an observer's registration
    std::map<TableId, Platform::Ptr<Cspf::ConfigWriter>> configs;
    std::map<TableId, std::unique_ptr<ResultTable>> results;
    Platform::Ptr<Cspf::AgentStatusReader> agentStatus;
    WatchFn watch;
    unsigned batch = 0;
};

Client::Client( const std::string& name, const std::string& root, Access access ) {
    guard( "", [&] { Cspf::clientPath( name ); } );  // the name's own error
    guard( "cannot open client '" + name + "': ", [&] {
        impl_ = std::make_unique<Impl>( name, root, access == Access::observe );
        Impl& d = *impl_;
        if ( !d.observer ) {
            // Claims the name: a second writer of the registration is refused.
            d.doRegistration();
            return;
        }
        if ( !d.tree.exists( d.registrationPath ) ) {
            throw Platform::Error( "not registered" );
        }
        d.observed =
            Platform::create<Cspf::Client>( d.tree, &d.inotify, d.registrationPath );
        d.observed->corruptionHandlerIs( []( const Platform::Error& ) {} );
        d.observed->handleInitialized();
    } );
}

Client::~Client() {
    if ( impl_->batch > 0 ) {
        impl_->batch = 1;
        try {
            batchEnd();
        } catch ( const Error& ) {
            // Closing anyway; what was written stays in the tables.
        }
    }
}

const std::string& Client::name() const {
    return impl_->name;
}

void Client::vrfIs( const std::string& vrf ) {
    guard( impl_->context, [&] {
        impl_->doRegistration().vrfIs( toVrfName( vrf ) );
        impl_->doFollow();
    } );
}

void Client::vrfDel( const std::string& vrf ) {
    guard( impl_->context, [&] { impl_->doRegistration().vrfDel( toVrfName( vrf ) ); } );
}

void Client::familyIs( Family family ) {
    guard( impl_->context, [&] {
        impl_->doRegistration().addressFamilyIs( toAddressFamily( family ) );
        impl_->doFollow();
    } );
}

void Client::familyDel( Family family ) {
    guard( impl_->context, [&] {
        impl_->doRegistration().addressFamilyDel( toAddressFamily( family ) );
    } );
}

std::vector<std::string> Client::vrfs() const {
    return guard( impl_->context, [&] { return impl_->doVrfs(); } );
}

std::vector<Family> Client::families() const {
    return guard( impl_->context, [&] { return impl_->doFamilies(); } );
}

void Client::leave() {
    guard( impl_->context, [&] {
        Impl& d = *impl_;
        d.doRegistration();  // an observer is refused
        // The registration goes first: the agent then drops the client as a
        // whole instead of request by request.
        d.registration = nullptr;
        d.tree.removeTable( d.registrationPath );
        d.configs.clear();
        const std::string prefix = "te/cspf/config/vrf/";
        for ( const std::string& path : d.tree.listTables( "te/cspf/config/vrf" ) ) {
            // te/cspf/config/vrf/<vrf>/<af>/<client>: exactly two more slashes.
            const std::string rest = path.substr( prefix.size() );
            const size_t vrfEnd = rest.find( '/' );
            const size_t afEnd = rest.find( '/', vrfEnd + 1 );
            if ( vrfEnd != std::string::npos && afEnd != std::string::npos &&
                 rest.compare( afEnd + 1, std::string::npos, d.name ) == 0 ) {
                d.tree.removeTable( path );
            }
        }
    } );
}

void Client::requestIs( const Table& table, const PathRequest& request ) {
    guard( impl_->context, [&] {
        Impl& d = *impl_;
        const Cspf::PathKey key = toPathKey( table, request.destination, request.id );
        Cspf::PathConfig config( key, 0, request.autoUpdate,
                                 toConstraint( request.excludeInterface ) );
        // The table exists before the agent hears of its VRF and family: it
        // reads the request tables of what the registration lists.
        Cspf::ConfigWriter& writer = *d.doRequests( table, true );
        Cspf::ClientWriter& registration = d.doRegistration();
        registration.vrfIs( toVrfName( table.vrf ) );
        registration.addressFamilyIs( toAddressFamily( table.family ) );
        if ( writer.has( key ) ) {
            config.refreshReqSeq = writer.get( key ).refreshReqSeq;
        }
        writer.pathConfigIs( config );
        d.doFollow();
    } );
}

void Client::requestDel( const Table& table, const std::string& destination,
                         uint32_t id ) {
    guard( impl_->context, [&] {
        const Cspf::PathKey key = toPathKey( table, destination, id );
        if ( Cspf::ConfigWriter* writer = impl_->doRequests( table, false ) ) {
            writer->pathConfigDel( key );
        }
    } );
}

uint32_t Client::refresh( const Table& table, const std::string& destination,
                          uint32_t id ) {
    return guard( impl_->context, [&] {
        const Cspf::PathKey key = toPathKey( table, destination, id );
        Cspf::ConfigWriter* writer = impl_->doRequests( table, false );
        if ( !writer || !writer->has( key ) ) {
            throw Platform::Error( "no request for " + keyText( table, destination, id ) +
                                   " to refresh" );
        }
        Cspf::PathConfig config = writer->get( key );
        config.refreshReqSeq += 1;
        writer->pathConfigIs( config );
        return config.refreshReqSeq;
    } );
}

std::vector<PathRequest> Client::requests( const Table& table ) const {
    return guard( impl_->context, [&] {
        if ( impl_->observer ) {
            return impl_->doObservedRequests( table );
        }
        std::vector<PathRequest> out;
        if ( Cspf::ConfigWriter* writer = impl_->doRequests( table, false ) ) {
            for ( const Cspf::PathKey& key : writer->keys() ) {
                out.push_back( toRequest( writer->get( key ) ) );
            }
        }
        return out;
    } );
}

void Client::batchBegin() {
    Impl& d = *impl_;
    if ( d.batch++ > 0 ) {
        return;
    }
    if ( d.registration ) {
        d.registration->bellHold();
    }
    for ( auto& [id, writer] : d.configs ) {
        writer->bellHold();
    }
}

void Client::batchEnd() {
    Impl& d = *impl_;
    if ( d.batch == 0 ) {
        throw Error( d.context + "batchEnd() without batchBegin()" );
    }
    if ( --d.batch > 0 ) {
        return;
    }
    // Requests ring before the registration, so that an agent told of a new
    // VRF or family finds its requests complete.
    for ( auto& [id, writer] : d.configs ) {
        writer->bellRelease();
    }
    if ( d.registration ) {
        d.registration->bellRelease();
    }
}

std::optional<PathResult> Client::result( const Table& table,
                                          const std::string& destination,
                                          uint32_t id ) const {
    return guard( impl_->context, [&] {
        const Cspf::PathKey key = toPathKey( table, destination, id );
        return impl_->doResults( table ).result( key );
    } );
}

std::vector<PathResult> Client::results( const Table& table ) const {
    return guard( impl_->context, [&] { return impl_->doResults( table ).results(); } );
}

// The client's names for the runs the record tells apart, in the same order.
static_assert( static_cast<int>( AgentState::Run::none ) ==
                   static_cast<int>( Cspf::AgentRun::none ) &&
               static_cast<int>( AgentState::Run::running ) ==
                   static_cast<int>( Cspf::AgentRun::running ) &&
               static_cast<int>( AgentState::Run::stopped ) ==
                   static_cast<int>( Cspf::AgentRun::stopped ) &&
               static_cast<int>( AgentState::Run::died ) ==
                   static_cast<int>( Cspf::AgentRun::died ) );

const char* runName( AgentState::Run run ) {
    return Cspf::toString( static_cast<Cspf::AgentRun>( run ) );
}

AgentState Client::agentState() const {
    return guard( impl_->context, [&] {
        Impl& d = *impl_;
        AgentState state;
        if ( !d.agentStatus ) {
            if ( !d.tree.exists( Cspf::kAgentStatusPath ) ) {
                return state;
            }
            d.agentStatus = Platform::create<Cspf::AgentStatusReader>(
                d.tree, nullptr, Cspf::kAgentStatusPath );
            d.agentStatus->corruptionHandlerIs( []( const Platform::Error& ) {} );
        }
        state.run = static_cast<AgentState::Run>( d.agentStatus->run() );
        const Cspf::AgentStatusValue v = d.agentStatus->value();
        state.enabled = state.run == AgentState::Run::running && v.agentEnabled;
        state.pid = v.pid;
        state.startedAt = v.startedAt;
        return state;
    } );
}

bool Client::agentEnabled() const {
    return agentState().enabled;
}

void Client::watchIs( WatchFn callback ) {
    guard( impl_->context, [&] {
        Impl& d = *impl_;
        d.watch = std::move( callback );
        if ( !d.watch ) {
            for ( auto& [id, table] : d.results ) {
                table->followingIs( false );
            }
            return;
        }
        d.doFollow( false );
    } );
}

int Client::fd() const {
    return impl_->inotify.fd();
}

size_t Client::process() {
    std::vector<ResultChange> changes;
    std::string failure;
    WatchFn watch;
    guard( impl_->context, [&] {
        Impl& d = *impl_;
        d.inotify.poll();
        d.doFollow();
        for ( auto& [id, table] : d.results ) {
            try {
                table->afterAttach();
            } catch ( const Platform::Error& e ) {
                // Every other table is still served; the failure is told after.
                if ( failure.empty() ) {
                    failure = e.what();
                }
            }
            table->changesTake( changes );
        }
        watch = d.watch;
    } );
    // The callback may call back into the client: nothing above is in use.
    if ( watch ) {
        for ( const ResultChange& change : changes ) {
            watch( change );
        }
    }
    if ( !failure.empty() ) {
        throw Error( impl_->context + failure );
    }
    return watch ? changes.size() : 0;
}

}  // namespace cspf
