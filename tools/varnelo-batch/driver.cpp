#include "driver.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "thread.h"

namespace Varnelo {

namespace {

const int kStartAttempts = 3;

volatile sig_atomic_t g_interrupts = 0;
int g_wakeFds[2] = {-1, -1};

void OnInterrupt(int) {
    const int saved = errno;
    g_interrupts = g_interrupts + 1;
    const ssize_t ignored = write(g_wakeFds[1], "!", 1);
    (void)ignored;
    errno = saved;
}

}  // namespace

void CatchInterrupts() {
    if (pipe2(g_wakeFds, O_CLOEXEC | O_NONBLOCK) != 0) return;
    struct sigaction action = {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

Driver::Driver(const Options& options, std::vector<Photo>& photos, Finisher& finisher,
               Progress& progress)
    : m_options(options),
      m_photos(photos),
      m_finisher(finisher),
      m_progress(progress),
      m_scheduler(static_cast<std::size_t>(GetNumOfCores()) + 1, options.jobs),
      m_open(photos.size(), 0) {
    for (std::size_t i = 0; i < photos.size(); ++i) {
        for (const bool thumbnail : {false, true}) {
            const Output& output = thumbnail ? photos[i].thumb : photos[i].copy;
            if (output.status != Status::PENDING || output.temp.empty()) continue;
            m_scheduler.Add(i, thumbnail, photos[i].file.size);
            ++m_open[i];
        }
        if (m_open[i] == 0) m_progress.PhotoDone(photos[i]);
    }
}

void Driver::Run() {
    if (!m_scheduler.Open()) return;
    if (!StartService()) return Settle(m_scheduler.DropAll(m_whyNot), true);
    while (m_scheduler.Open() || Closing()) {
        if (g_interrupts > 1) {
            m_service.Kill();
            break;
        }
        if (g_interrupts > 0 && m_state != State::INTERRUPTED) {
            m_progress.Note(
                "varnelo-batch: interrupted; finishing the photos already sent and closing "
                "the service (Ctrl-C again to stop at once)");
            BeginClose(State::INTERRUPTED);
        }
        if (m_state == State::SENDING) {
            if (!m_scheduler.InFlight()) m_lastAnswer = Clock::now();
            bool lost = false;
            for (Request request; !lost && m_scheduler.Next(request);) lost = !Send(request);
            if (m_state == State::BROKEN) return Settle(m_scheduler.DropAll(m_whyNot), true);
            if (lost) continue;  // restarted: send again before waiting
            if (!m_scheduler.Open()) BeginClose(State::CLOSING);
        }

        int wait = MsUntil(m_lastAnswer + StallTimeout());
        if (m_progress.TickMs() >= 0) wait = std::min(wait, m_progress.TickMs());
        pollfd fds[2] = {{m_service.OutputFd(), POLLIN, 0}, {g_wakeFds[0], POLLIN, 0}};
        poll(fds, g_wakeFds[0] >= 0 ? 2 : 1, wait);
        char drain[16];
        while (g_wakeFds[0] >= 0 && read(g_wakeFds[0], drain, sizeof(drain)) > 0) {
        }
        const bool open = m_service.Read();
        for (std::string response; m_service.NextResponse(response);) {
            m_lastAnswer = Clock::now();
            const Answer answer = ParseAnswer(response);
            // The close is answered once all before it are: the service may end now.
            if (answer.kind == Answer::DONE) m_service.CloseInput();
            Settle(m_scheduler.Answered(answer.images));
        }
        if (Closing() && !open) {
            const std::string how = m_service.Reap(Clock::now() + std::chrono::seconds(10));
            if (m_options.verbosity == 2) m_progress.Note("varnelo-batch: the service " + how);
            break;
        }
        const bool waiting = m_scheduler.InFlight() || Closing();
        if (!open || (waiting && Clock::now() >= m_lastAnswer + StallTimeout())) {
            const std::string how =
                !open ? "ended unexpectedly: it " + m_service.Kill() : "stopped answering";
            if (Closing()) break;  // hung in the close: what it held is not processed
            ServiceLost(how);
            if (m_state == State::BROKEN) return Settle(m_scheduler.DropAll(m_whyNot), true);
        }
        m_progress.Tick();
    }
    m_service.Kill();
    Settle(m_scheduler.DropAll("not processed"));
}

void Driver::Settle(const std::vector<Settled>& settled, bool failIfDropped) {
    for (const Settled& s : settled) {
        const std::size_t i = m_scheduler.PhotoOf(s.id);
        const bool thumbnail = m_scheduler.IsThumbnail(s.id);
        if (s.processed || failIfDropped) {
            m_finisher.Answered(m_photos[i], thumbnail, s.result);
        } else {
            m_finisher.Dropped(m_photos[i], thumbnail);
        }
        if (--m_open[i] == 0) m_progress.PhotoDone(m_photos[i]);
    }
}

// Long enough for the worker that has the biggest request in flight to finish it, even on a
// slow machine or a sanitizer build; it only decides when a silent service is hung.
Clock::duration Driver::StallTimeout() const {
    return std::chrono::seconds(10) +
           std::chrono::milliseconds(m_scheduler.BiggestInFlight() * 4000 / 1048576);
}

bool Driver::StartService() {
    std::string why;
    for (int attempt = 1; attempt <= kStartAttempts; ++attempt) {
        if (Handshake(why)) {
            m_lastAnswer = Clock::now();
            return true;
        }
        m_service.Kill();
        if (why.find("version") != std::string::npos) break;
    }
    m_whyNot = "the service '" + m_options.service + "' did not start: " + why;
    m_progress.Note("varnelo-batch: " + m_whyNot);
    return false;
}

bool Driver::Handshake(std::string& why) {
    // The service's standard error carries the JPEG library's warnings: shown only with -v.
    if (!m_service.Start(m_options.service, {},
                         m_options.verbosity == 2 ? std::string() : "/dev/null")) {
        why = std::strerror(errno);
        return false;
    }
    if (!m_service.Send(ConnectCall())) {
        why = "it does not read its input";
        return false;
    }
    std::string response;
    if (!m_service.WaitResponse(response, Clock::now() + std::chrono::seconds(10))) {
        why = "it did not answer the handshake";
        return false;
    }
    const Answer answer = ParseAnswer(response);
    if (answer.kind != Answer::CONNECTED || !answer.accepted) {
        why = "it did not accept the handshake";
        return false;
    }
    if (answer.minVersion > kProtocolVersion || answer.currentVersion < kProtocolVersion) {
        why = "it speaks protocol versions " + std::to_string(answer.minVersion) + " to " +
              std::to_string(answer.currentVersion) + ", this program version " +
              std::to_string(kProtocolVersion);
        return false;
    }
    return true;
}

// False when the service was lost on the way (it has been restarted, or is broken).
bool Driver::Send(const Request& request) {
    std::vector<ImageOrder> images;
    for (const int id : request.ids) {
        const Photo& photo = m_photos[m_scheduler.PhotoOf(id)];
        ImageOrder image;
        image.id = id;
        image.source = photo.source;
        image.dest = (request.thumbnail ? photo.thumb : photo.copy).temp;
        image.resolution = request.thumbnail ? m_options.thumbSize : m_options.size;
        image.quality = m_options.quality;
        image.hash = request.thumbnail ? HashChoice::NONE : m_options.hash;
        images.push_back(image);
    }
    if (m_service.Send(ImageCall(request.thumbnail, images))) return true;
    ServiceLost("stopped reading requests");
    return false;
}

void Driver::ServiceLost(const std::string& how) {
    m_service.Kill();
    const std::vector<Settled> failed = m_scheduler.Died();
    Settle(failed);
    ++m_restarts;
    m_progress.Note("varnelo-batch: the service " + how + "; restarting it (" +
                    std::to_string(failed.size()) + " image" + (failed.size() == 1 ? "" : "s") +
                    " given up)");
    if (!StartService()) m_state = State::BROKEN;
}

void Driver::BeginClose(State closing) {
    const bool asked = Closing();
    m_state = closing;
    if (asked) return;
    m_lastAnswer = Clock::now();
    if (!m_service.Send(CloseCall())) m_service.CloseInput();
}

}  // namespace Varnelo
