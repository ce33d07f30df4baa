#pragma once

// Runs the service for a batch: starts it beside this program with pipes, greets it, sends
// what the scheduler hands out, reads the answers as the workers finish them, hands every
// settled image to the finisher, and restarts the service when it dies or stays silent for
// longer than the photos in hand can take. Ctrl-C (SIGINT, SIGTERM, SIGHUP) stops sending and
// closes the service in order once it has answered what it holds; a second one stops at
// once. One thread; the signal handlers only count and wake the loop.

#include <vector>

#include "commit.h"
#include "options.h"
#include "photo.h"
#include "progress.h"
#include "scheduler.h"

namespace Varnelo {

// Routes Ctrl-C and its kin to the driver from now on.
void CatchInterrupts();

class Driver {
  public:
    Driver(const Options& options, std::vector<Photo>& photos, Finisher& finisher,
           Progress& progress);
    Driver(const Driver&) = delete;
    Driver& operator=(const Driver&) = delete;

    // Runs until every pending output is settled or the user interrupts. Outputs left when the
    // run ends are settled as not processed (or failed, when the service cannot run).
    void Run();

    int Restarts() const { return m_restarts; }
    bool Interrupted() const { return m_state == State::INTERRUPTED; }

  private:
    enum class State {
        SENDING,      // handing out requests as the service answers them
        CLOSING,      // all sent: the close is asked, the service answers what it holds
        INTERRUPTED,  // the same after Ctrl-C, with photos left unsent
        BROKEN,       // the service cannot be started: what is left fails
    };

    bool StartService();
    bool Handshake(std::string& why);
    bool Send(const Request& request);
    void Settle(const std::vector<Settled>& settled, bool failIfDropped = false);
    void ServiceLost(const std::string& how);
    void BeginClose(State closing);
    bool Closing() const { return m_state == State::CLOSING || m_state == State::INTERRUPTED; }
    Clock::duration StallTimeout() const;

    const Options& m_options;
    std::vector<Photo>& m_photos;
    Finisher& m_finisher;
    Progress& m_progress;
    Scheduler m_scheduler;
    std::vector<int> m_open;  // per photo, its outputs not yet settled
    ServiceChild m_service;
    std::string m_whyNot;  // why the service cannot run
    int m_restarts = 0;
    State m_state = State::SENDING;
    Clock::time_point m_lastAnswer = Clock::now();
};

}  // namespace Varnelo
