#include "agent/ClientRefusals.h"

#include <algorithm>
#include <utility>

#include "platform/Error.h"
#include "platform/Mivlog.h"

namespace Cspf {

ClientRefusals::ClientRefusals( Platform::TaskScheduler& taskScheduler,
                                Platform::Ptr<ClientStatusWriter> status )
    : taskScheduler_( taskScheduler ), status_( std::move( status ) ) {}

bool ClientRefusals::retryable( const std::exception& e ) {
    const auto* system = dynamic_cast<const Platform::SystemError*>( &e );
    return system && system->transient();
}

void ClientRefusals::refusedIs( const std::string& client, const std::string& part,
                                const std::string& reason, bool retry ) {
    if ( status_ ) {
        status_->reasonIs( client, part, retry ? reason + " (retrying)" : reason );
    }
    if ( !retry ) {
        return;
    }
    if ( retried_ ) {
        retryAgain_ = true;  // armed when the pass ends, with the longer delay
        return;
    }
    if ( !retryTask_ ) {
        retryTask_ = std::make_unique<Platform::TimerTask>(
            taskScheduler_, 0, "client attach retry", [this] { handleRetry(); } );
    }
    if ( !retryTask_->scheduled() ) {
        TRACE4( "retrying refused clients in " << retryDelay_ << " s" );
        retryTask_->scheduleTaskDelay( retryDelay_ );
    }
}

void ClientRefusals::servedIs( const std::string& client, const std::string& part ) {
    if ( status_ ) {
        status_->reasonDel( client, part );
    }
}

void ClientRefusals::clientDel( const std::string& client ) {
    if ( status_ ) {
        status_->clientDel( client );
    }
}

void ClientRefusals::handleRetry() {
    TRACE4( "retrying the clients refused for a local reason" );
    retried_ = true;
    retryAgain_ = false;
    if ( retryHandler_ ) {
        retryHandler_();
    }
    retried_ = false;
    if ( !retryAgain_ ) {
        retryDelay_ = kRetryInitialDelay;
        return;
    }
    retryDelay_ = std::min( 2 * retryDelay_, kRetryMaxDelay );
    TRACE4( "retrying refused clients in " << retryDelay_ << " s" );
    retryTask_->scheduleTaskDelay( retryDelay_ );
}

}  // namespace Cspf
