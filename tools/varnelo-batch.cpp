// varnelo-batch: makes upload-ready copies of a folder of photos through the varnelo service.
//
// It starts the service beside itself with pipes and drives it as an upload client does: a
// handshake, several photos per request and several requests in flight so that every worker
// stays busy, answers matched by imageId in whatever order the workers finish them, and an
// orderly close. A service that dies or stops answering is restarted and the photos it held
// are sent again. Progress and a summary go to standard error; a CSV or JSON Lines report is
// optional.
//
// usage: varnelo-batch [options] PHOTO|FOLDER... -o OUTDIR   (kUsage below has the options)

#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "fsutils.h"
#include "thread.h"
#include "varnelo-batch/photos.h"
#include "varnelo-batch/service_client.h"

namespace fs = std::filesystem;

namespace Varnelo {
namespace {

const char kUsage[] =
    "usage: varnelo-batch [options] PHOTO|FOLDER... -o OUTDIR\n"
    "\n"
    "Makes upload-ready copies of JPEG photos through the varnelo service. Folders are\n"
    "searched for .jpg and .jpeg files; the copies keep their layout under OUTDIR.\n"
    "\n"
    "  -o, --output DIR     where the copies go (created when missing)\n"
    "  -r, --recursive      also search the folders inside the folders\n"
    "      --size N         longer side of the copies in pixels, 32..65536 (default 1600)\n"
    "      --quality Q      JPEG quality of the copies, 0..100 (default 85)\n"
    "      --omit-exif      leave EXIF and the other metadata out of the copies\n"
    "      --hash H         hash of each source's last 2048 bytes: crc32, md5 (default), none\n"
    "      --thumbnails     also write NAME_thumb.jpg beside each copy\n"
    "      --thumb-size N   longer side of the thumbnails, 32..65536 (default 72)\n"
    "      --report FILE    write a report: CSV for *.csv, JSON Lines for *.jsonl or *.json\n"
    "      --service PATH   the varnelo executable (default: the one beside this program)\n"
    "  -q, --quiet          print errors only\n"
    "  -v, --verbose        print a line for every photo, also on a terminal\n"
    "  -h, --help           print this text\n"
    "\n"
    "Exit status: 0 when every photo was converted or was too small to reduce, 1 when any\n"
    "failed, 2 on bad usage, 130 when interrupted.\n";

const std::size_t kMaxPhotosPerRequest = 8;
const int kStartAttempts = 3;

struct Options {
    std::vector<std::string> inputs;
    std::string outDir;
    bool recursive = false;
    int size = 1600, quality = 85, thumbSize = 72;
    bool omitExif = false, thumbnails = false;
    HashChoice hash = HashChoice::MD5;
    std::string report;
    ReportFormat reportFormat = ReportFormat::NONE;
    std::string service;
    int verbosity = 1;  // 0 errors only, 1 normal, 2 a line per photo everywhere
};

void Error(const std::string& message) {
    std::fprintf(stderr, "varnelo-batch: %s\n", message.c_str());
}

std::string Quoted(const std::string& text) { return "'" + text + "'"; }

std::string FormatBytes(std::uint64_t bytes) {
    char text[32];
    if (bytes >= (1u << 20)) {
        std::snprintf(text, sizeof(text), "%.1f MB", bytes / 1048576.0);
    } else {
        std::snprintf(text, sizeof(text), "%.1f KB", bytes / 1024.0);
    }
    return text;
}

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// ---------------------------------------------------------------------------------------------
// Command line

bool ParseNumber(const char* text, int low, int high, int& number) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < low || value > high) return false;
    number = static_cast<int>(value);
    return true;
}

// Fills `options`; prints the problem and the usage text and returns 2 on bad usage, 0 after
// --help, -1 when the run is to go ahead.
int ParseOptions(int argc, char** argv, Options& options) {
    enum { SIZE = 256, QUALITY, OMIT_EXIF, HASH, THUMBNAILS, THUMB_SIZE, REPORT, SERVICE };
    static const option kLong[] = {{"output", required_argument, nullptr, 'o'},
                                   {"recursive", no_argument, nullptr, 'r'},
                                   {"size", required_argument, nullptr, SIZE},
                                   {"quality", required_argument, nullptr, QUALITY},
                                   {"omit-exif", no_argument, nullptr, OMIT_EXIF},
                                   {"hash", required_argument, nullptr, HASH},
                                   {"thumbnails", no_argument, nullptr, THUMBNAILS},
                                   {"thumb-size", required_argument, nullptr, THUMB_SIZE},
                                   {"report", required_argument, nullptr, REPORT},
                                   {"service", required_argument, nullptr, SERVICE},
                                   {"quiet", no_argument, nullptr, 'q'},
                                   {"verbose", no_argument, nullptr, 'v'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
    auto bad = [](const std::string& problem) {
        Error(problem);
        std::fputs(kUsage, stderr);
        return 2;
    };
    opterr = 0;
    int c;
    while ((c = getopt_long(argc, argv, ":o:rqvh", kLong, nullptr)) != -1) {
        switch (c) {
            case 'o':
                options.outDir = optarg;
                break;
            case 'r':
                options.recursive = true;
                break;
            case SIZE:
                if (!ParseNumber(optarg, 32, 65536, options.size)) {
                    return bad("--size wants a number of pixels from 32 to 65536");
                }
                break;
            case QUALITY:
                if (!ParseNumber(optarg, 0, 100, options.quality)) {
                    return bad("--quality wants a number from 0 to 100");
                }
                break;
            case OMIT_EXIF:
                options.omitExif = true;
                break;
            case HASH: {
                std::string name = optarg;
                ToLower(name);
                if (name == "crc32") {
                    options.hash = HashChoice::CRC32;
                } else if (name == "md5") {
                    options.hash = HashChoice::MD5;
                } else if (name == "none") {
                    options.hash = HashChoice::NONE;
                } else {
                    return bad("--hash wants crc32, md5 or none");
                }
                break;
            }
            case THUMBNAILS:
                options.thumbnails = true;
                break;
            case THUMB_SIZE:
                if (!ParseNumber(optarg, 32, 65536, options.thumbSize)) {
                    return bad("--thumb-size wants a number of pixels from 32 to 65536");
                }
                break;
            case REPORT: {
                options.report = optarg;
                options.reportFormat = ReportFormatFor(options.report);
                if (options.reportFormat == ReportFormat::NONE) {
                    return bad("--report wants a file name ending in .csv, .jsonl or .json");
                }
                break;
            }
            case SERVICE:
                options.service = optarg;
                break;
            case 'q':
                options.verbosity = 0;
                break;
            case 'v':
                options.verbosity = 2;
                break;
            case 'h':
                std::fputs(kUsage, stdout);
                return 0;
            case ':':
                return bad(std::string("option ") + argv[optind - 1] + " wants a value");
            default:
                return bad(std::string("unknown option ") + argv[optind - 1]);
        }
    }
    options.inputs.assign(argv + optind, argv + argc);
    if (options.inputs.empty()) return bad("no photo or folder given");
    if (options.outDir.empty()) return bad("no output folder given (-o OUTDIR)");
    return -1;
}

// The service beside this program's own executable.
std::string ServiceBesideMe(const char* argv0) {
    std::error_code ec;
    fs::path self = fs::read_symlink("/proc/self/exe", ec);
    if (ec) self = fs::absolute(argv0, ec);
    return (self.parent_path() / "varnelo").string();
}

// Ctrl-C (and SIGTERM, SIGHUP) are counted and wake the main loop through a pipe.
volatile sig_atomic_t g_interrupts = 0;
int g_wakeFds[2] = {-1, -1};

void OnInterrupt(int) {
    const int saved = errno;
    g_interrupts = g_interrupts + 1;
    const ssize_t ignored = write(g_wakeFds[1], "!", 1);
    (void)ignored;
    errno = saved;
}

void CatchInterrupts() {
    if (pipe2(g_wakeFds, O_CLOEXEC | O_NONBLOCK) != 0) return;
    struct sigaction action = {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

// ---------------------------------------------------------------------------------------------
// Progress

// Shows what is done on standard error: a bar redrawn in place when that is a terminal, one
// line per photo otherwise (and with -v), nothing but errors with -q.
class Progress {
  public:
    Progress(const Options& options, std::size_t total, std::uint64_t totalBytes)
        : m_options(options),
          m_bar(options.verbosity > 0 && isatty(STDERR_FILENO)),
          m_lines(options.verbosity == 2 || (options.verbosity == 1 && !m_bar)),
          m_total(total),
          m_totalBytes(totalBytes),
          m_start(Clock::now()) {}

    Clock::time_point StartTime() const { return m_start; }
    // How often Tick wants to run, in milliseconds; -1 for never.
    int TickMs() const { return m_bar ? 100 : -1; }

    void PhotoDone(const Photo& photo) {
        ++m_done;
        m_doneBytes += photo.bytes;
        if (!m_lines) return;
        char count[48];
        std::snprintf(count, sizeof(count), "[%*zu/%zu] ", Digits(m_total), m_done, m_total);
        std::string line = count;
        if (photo.copy.success) {
            line += "converted  " + photo.shown + " -> " + photo.outShown;
        } else if (photo.copy.reason == kTooSmall) {
            line += "too small  " + photo.shown + " (no copy made)";
        } else {
            line += "failed     " + photo.shown + ": " + photo.copy.reason;
        }
        if (!photo.thumbnail.empty() && !photo.thumb.success && photo.thumb.reason != kTooSmall) {
            line += "; thumbnail failed: " + photo.thumb.reason;
        }
        Note(line);
    }

    // A line that must not run into the bar; dropped with -q.
    void Note(const std::string& line) {
        if (m_options.verbosity == 0) return;
        Clear();
        std::fprintf(stderr, "%s\n", line.c_str());
    }

    void Tick() {
        if (!m_bar || Clock::now() - m_lastDraw < std::chrono::milliseconds(100)) return;
        m_lastDraw = Clock::now();
        const double elapsed = Seconds(m_lastDraw - m_start);
        const int width = 24;
        const int filled = m_total ? static_cast<int>(width * m_done / m_total) : width;
        char rate[32] = "", left[32] = "";
        if (m_done > 0 && elapsed > 0) {
            std::snprintf(rate, sizeof(rate), "  %.1f photos/s", m_done / elapsed);
            const double perByte = elapsed / std::max<std::uint64_t>(m_doneBytes, 1);
            const int secs = static_cast<int>(perByte * (m_totalBytes - m_doneBytes));
            std::snprintf(left, sizeof(left), "  %d:%02d left", secs / 60, secs % 60);
        }
        std::fprintf(stderr, "\r%zu/%zu [%s%s]%s%s\033[K", m_done, m_total,
                     std::string(filled, '#').c_str(), std::string(width - filled, '.').c_str(),
                     rate, left);
        m_drawn = true;
    }

    // Removes the bar from the screen.
    void Clear() {
        if (m_drawn) std::fputs("\r\033[K", stderr);
        m_drawn = false;
        m_lastDraw = Clock::time_point();
    }

  private:
    static int Digits(std::size_t n) { return static_cast<int>(std::to_string(n).size()); }

    const Options& m_options;
    const bool m_bar, m_lines;
    const std::size_t m_total;
    const std::uint64_t m_totalBytes;
    std::size_t m_done = 0;
    std::uint64_t m_doneBytes = 0;
    Clock::time_point m_start, m_lastDraw;
    bool m_drawn = false;
};

// ---------------------------------------------------------------------------------------------
// The batch

// Drives one service through all the photos: keeps about two requests per worker queued,
// settles each copy and thumbnail from the answer with its imageId, and restarts the service
// when it dies or stops answering. A photo that was in flight at one death is sent again
// alone, and only one such photo is in flight at a time, so that a photo that kills the
// service is found and given up at its second death without taking others with it.
class Batch {
  public:
    Batch(const Options& options, std::vector<Photo>& photos, Progress& progress)
        : m_options(options),
          m_photos(photos),
          m_progress(progress),
          m_workers(static_cast<std::size_t>(GetNumOfCores()) + 1) {
        for (std::size_t i = 0; i < photos.size(); ++i) {
            photos[i].unanswered = options.thumbnails ? 2 : 1;
            AddTask(i, false);
            if (options.thumbnails) AddTask(i, true);
        }
    }

    // Runs until every photo is settled or the user interrupts; false when the service
    // could not be (re)started, after settling what was left as failed.
    bool Run() {
        if (!Pending()) return true;
        if (!StartService()) return GiveUp();
        while (Pending() || m_closing) {
            if (g_interrupts > 1) {
                m_service.Kill();
                break;
            }
            if (g_interrupts > 0 && !m_interrupted) {
                m_interrupted = true;
                m_progress.Note(
                    "varnelo-batch: interrupted; finishing the photos already sent and closing "
                    "the service (Ctrl-C again to stop at once)");
                if (!m_closing) BeginClose();
            }
            if (!m_closing) {
                Submit();
                if (m_broken) return GiveUp();
                if (!Pending()) BeginClose();
            }
            if (m_closeAnswered && m_service.InputOpen()) m_service.CloseInput();

            int wait = MsUntil(m_lastAnswer + StallTimeout());
            if (m_progress.TickMs() >= 0) wait = std::min(wait, m_progress.TickMs());
            pollfd fds[2] = {{m_service.OutputFd(), POLLIN, 0}, {g_wakeFds[0], POLLIN, 0}};
            poll(fds, 2, wait);
            char drain[16];
            while (read(g_wakeFds[0], drain, sizeof(drain)) > 0) {
            }
            const bool open = m_service.Read();
            std::string response;
            while (m_service.NextResponse(response)) Receive(response);
            if (m_closing && !open) {
                const std::string how = m_service.Reap(Clock::now() + std::chrono::seconds(10));
                if (m_options.verbosity == 2) m_progress.Note("varnelo-batch: the service " + how);
                break;
            }
            if (!open || Clock::now() >= m_lastAnswer + StallTimeout()) {
                const std::string how =
                    !open ? "ended unexpectedly: it " + m_service.Kill() : "stopped answering";
                if (m_closing) break;  // hung in the close: the destructor kills it
                ServiceLost(how);
                if (m_broken) return GiveUp();
            }
            m_progress.Tick();
        }
        return true;
    }

    int Restarts() const { return m_restarts; }
    bool Interrupted() const { return m_interrupted; }

  private:
    struct Task {
        std::size_t photo;
        bool thumbnail;
        int deaths = 0;
        int request = 0;  // the request it is in flight in, or 0
    };
    struct Request {
        std::vector<int> tasks;
        std::uint64_t bytes = 0;
        bool suspect = false;
    };

    void AddTask(std::size_t photo, bool thumbnail) {
        m_tasks.push_back({photo, thumbnail});
        const int id = static_cast<int>(m_tasks.size());
        if (m_photos[photo].unreadable) {
            Settle(id, Failure("cannot read the file"));
        } else {
            (thumbnail ? m_pendingThumbs : m_pendingCopies).push_back(id);
        }
    }

    static ImageResult Failure(const std::string& reason) {
        ImageResult result;
        result.done = true;
        result.reason = reason;
        return result;
    }

    bool Pending() const {
        return !m_pendingCopies.empty() || !m_pendingThumbs.empty() || !m_suspects.empty() ||
               !m_inFlight.empty();
    }

    // Long enough for the worker that has the biggest request in flight to finish it, even
    // on a slow machine or a sanitizer build; it only decides when a silent service is hung.
    Clock::duration StallTimeout() const {
        std::uint64_t biggest = 0;
        for (const auto& entry : m_inFlight) biggest = std::max(biggest, entry.second.bytes);
        return std::chrono::seconds(10) + std::chrono::milliseconds(biggest * 4000 / 1048576);
    }

    // Starts the service and greets it, trying a few times.
    bool StartService() {
        std::string why;
        for (int attempt = 1; attempt <= kStartAttempts; ++attempt) {
            if (Handshake(why)) {
                m_lastAnswer = Clock::now();
                return true;
            }
            m_service.Kill();
            if (why.find("version") != std::string::npos) break;
        }
        m_progress.Clear();
        Error("the service " + Quoted(m_options.service) + " did not start: " + why);
        return false;
    }

    bool Handshake(std::string& why) {
        // The service's standard error carries the JPEG library's warnings: shown only with -v.
        if (!m_service.Start(m_options.service, {},
                             m_options.verbosity == 2 ? std::string() : "/dev/null")) {
            why = std::strerror(errno);
            return false;
        }
        const std::string connect =
            Call("upload.connect", "<params><param><value><struct/></value></param></params>\n");
        if (!m_service.Send(connect)) {
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

    // Settles everything still open as failed because the service cannot run.
    bool GiveUp() {
        for (std::size_t id = 1; id <= m_tasks.size(); ++id) {
            const Task& task = m_tasks[id - 1];
            const Photo& photo = m_photos[task.photo];
            if (!(task.thumbnail ? photo.thumb : photo.copy).done) {
                Settle(static_cast<int>(id), Failure("the service could not be started"));
            }
        }
        return false;
    }

    // Sends requests until about two per worker are in flight: the images of one request run
    // one after another on one worker, so requests shrink towards the end of the batch to
    // keep every worker busy.
    void Submit() {
        const std::size_t target = 2 * m_workers;
        while (m_inFlight.size() < target) {
            Request request;
            if (!m_suspects.empty() && !m_suspectInFlight) {
                request.tasks.push_back(m_suspects.front());
                m_suspects.pop_front();
                request.suspect = true;
            } else if (!m_pendingCopies.empty() || !m_pendingThumbs.empty()) {
                // The queue whose next photo comes first, so photos finish roughly in order.
                std::deque<int>* queue = &m_pendingCopies;
                if (queue->empty() || (!m_pendingThumbs.empty() &&
                                       m_pendingThumbs.front() < m_pendingCopies.front())) {
                    queue = &m_pendingThumbs;
                }
                const std::size_t pending = m_pendingCopies.size() + m_pendingThumbs.size();
                const std::size_t n =
                    std::clamp<std::size_t>(pending / target, 1, kMaxPhotosPerRequest);
                while (request.tasks.size() < n && !queue->empty()) {
                    request.tasks.push_back(queue->front());
                    queue->pop_front();
                }
            } else {
                return;
            }
            if (!Send(request)) return;
        }
    }

    // One image of a request, or "" when a line would be too long for the service.
    std::string ImageStruct(int id) const {
        const Task& task = m_tasks[id - 1];
        const Photo& photo = m_photos[task.photo];
        const Options& o = m_options;
        std::vector<std::string> lines = {
            Member("imageId", "i4", std::to_string(id)),
            Member("sourcePath", "string", photo.source),
            Member("destPath", "string", task.thumbnail ? photo.thumbnail : photo.output),
            Member("resolution", "i4", std::to_string(task.thumbnail ? o.thumbSize : o.size)),
            Member("quality", "i4", std::to_string(o.quality))};
        if (!task.thumbnail && o.omitExif) lines.push_back(Member("omitEXIF", "boolean", "1"));
        if (!task.thumbnail && WireHashName(o.hash) != nullptr) {
            lines.push_back(Member("hashMethod", "string", WireHashName(o.hash)));
        }
        std::string text = "<param><value><struct>\n";
        for (const std::string& line : lines) {
            if (line.size() > kMaxLine) return "";
            text += line + "\n";
        }
        return text + "</struct></value></param>\n";
    }

    // False when the service was lost on the way (it has been restarted, or m_broken set).
    bool Send(Request request) {
        const bool thumbnail = m_tasks[request.tasks.front() - 1].thumbnail;
        std::string params;
        std::vector<int> sent;
        for (const int id : request.tasks) {
            const std::string image = ImageStruct(id);
            if (image.empty()) {
                Settle(id, Failure("path too long for the service"));
                continue;
            }
            params += image;
            sent.push_back(id);
            request.bytes += m_photos[m_tasks[id - 1].photo].bytes;
        }
        if (sent.empty()) return true;
        if (m_inFlight.empty()) m_lastAnswer = Clock::now();
        const int number = m_nextRequest++;
        for (const int id : sent) m_tasks[id - 1].request = number;
        m_suspectInFlight = m_suspectInFlight || request.suspect;
        request.tasks = sent;
        m_inFlight.emplace(number, std::move(request));
        const std::string method =
            thumbnail ? "upload.thumbnailRequest" : "upload.downsampleRequest";
        if (m_service.Send(Call(method, "<params>\n" + params + "</params>\n"))) return true;
        ServiceLost("stopped reading requests");
        return false;
    }

    void Receive(const std::string& text) {
        m_lastAnswer = Clock::now();
        const Answer answer = ParseAnswer(text);
        if (answer.kind == Answer::DONE) m_closeAnswered = true;
        int number = 0;
        for (const auto& [id, result] : answer.images) {
            if (id < 1 || id > static_cast<int>(m_tasks.size())) continue;
            Task& task = m_tasks[id - 1];
            const auto request = m_inFlight.find(task.request);
            if (request == m_inFlight.end()) continue;
            number = task.request;
            std::vector<int>& left = request->second.tasks;
            left.erase(std::remove(left.begin(), left.end(), id), left.end());
            task.request = 0;
            Settle(id, result);
        }
        // One response answers the whole request: an image missing from it will not come.
        const auto request = m_inFlight.find(number);
        if (request == m_inFlight.end()) return;
        for (const int id : request->second.tasks) {
            m_tasks[id - 1].request = 0;
            Settle(id, Failure("no answer from the service"));
        }
        if (request->second.suspect) m_suspectInFlight = false;
        m_inFlight.erase(request);
    }

    void Settle(int id, ImageResult result) {
        const Task& task = m_tasks[id - 1];
        Photo& photo = m_photos[task.photo];
        ImageResult& slot = task.thumbnail ? photo.thumb : photo.copy;
        if (slot.done) return;
        const std::string& path = task.thumbnail ? photo.thumbnail : photo.output;
        std::error_code ec;
        if (result.success) {
            result.outputBytes = fs::file_size(path, ec);
        } else {
            // A failed copy is not fit to upload, and one from an earlier run is stale.
            fs::remove(path, ec);
        }
        if (m_options.hash == HashChoice::NONE) result.hash.clear();
        result.done = true;
        slot = result;
        if (--photo.unanswered == 0) m_progress.PhotoDone(photo);
    }

    void ServiceLost(const std::string& how) {
        m_service.Kill();
        std::size_t again = 0;
        for (const auto& entry : m_inFlight) {
            for (const int id : entry.second.tasks) {
                Task& task = m_tasks[id - 1];
                task.request = 0;
                if (++task.deaths >= 2) {
                    Settle(id, Failure("service died on this photo"));
                } else {
                    m_suspects.push_back(id);
                    ++again;
                }
            }
        }
        m_inFlight.clear();
        m_suspectInFlight = false;
        ++m_restarts;
        m_progress.Note("varnelo-batch: the service " + how + "; restarting it and sending " +
                        std::to_string(again) + " images again");
        m_broken = !StartService();
    }

    void BeginClose() {
        m_closing = true;
        m_lastAnswer = Clock::now();
        if (!m_service.Send(Call("upload.close", ""))) m_service.CloseInput();
    }

    const Options& m_options;
    std::vector<Photo>& m_photos;
    Progress& m_progress;
    const std::size_t m_workers;
    std::vector<Task> m_tasks;  // imageId n is m_tasks[n - 1]
    std::deque<int> m_pendingCopies, m_pendingThumbs, m_suspects;
    std::map<int, Request> m_inFlight;
    int m_nextRequest = 1;
    bool m_suspectInFlight = false;
    ServiceChild m_service;
    int m_restarts = 0;
    bool m_broken = false, m_closing = false, m_closeAnswered = false, m_interrupted = false;
    Clock::time_point m_lastAnswer = Clock::now();
};

// ---------------------------------------------------------------------------------------------
// Summary

// Prints the summary and returns the exit status.
int Summarise(const Options& options, const std::vector<Photo>& photos, const Batch& batch,
              double seconds) {
    std::size_t converted = 0, tooSmall = 0, failed = 0, notDone = 0;
    std::size_t thumbsWritten = 0, thumbsFailed = 0;
    std::uint64_t bytesIn = 0, bytesOut = 0;
    std::map<std::string, std::size_t> reasons;
    for (const Photo& p : photos) {
        if (!p.copy.done) {
            ++notDone;
            continue;
        }
        bytesIn += p.bytes;
        bytesOut += p.copy.outputBytes + p.thumb.outputBytes;
        if (p.copy.success) {
            ++converted;
        } else if (p.copy.reason == kTooSmall) {
            ++tooSmall;
        } else {
            ++failed;
            ++reasons[p.copy.reason];
        }
        if (p.thumb.success) ++thumbsWritten;
        if (p.thumb.done && !p.thumb.success && p.thumb.reason != kTooSmall) ++thumbsFailed;
    }
    const bool anyFailed = failed > 0 || thumbsFailed > 0;
    if (options.verbosity > 0) {
        const std::size_t done = photos.size() - notDone;
        std::fprintf(stderr, "%zu photo%s in %.1f s (%.1f photos/s)\n", done, done == 1 ? "" : "s",
                     seconds, seconds > 0 ? done / seconds : 0.0);
        std::fprintf(stderr, "  converted            %6zu\n", converted);
        if (tooSmall > 0) {
            std::fprintf(stderr,
                         "  too small to reduce  %6zu  (not larger than %d pixels: no copy "
                         "made)\n",
                         tooSmall, options.size);
        }
        if (failed > 0) std::fprintf(stderr, "  failed               %6zu\n", failed);
        for (const auto& [reason, count] : reasons) {
            std::fprintf(stderr, "    %6zu  %s\n", count, reason.c_str());
        }
        if (options.thumbnails) {
            std::fprintf(stderr, "  thumbnails           %6zu written, %zu failed\n", thumbsWritten,
                         thumbsFailed);
        }
        std::fprintf(stderr, "  read %s, wrote %s\n", FormatBytes(bytesIn).c_str(),
                     FormatBytes(bytesOut).c_str());
        if (batch.Restarts() > 0) {
            std::fprintf(stderr, "  the service was restarted %d time%s\n", batch.Restarts(),
                         batch.Restarts() == 1 ? "" : "s");
        }
        if (notDone > 0) std::fprintf(stderr, "  not processed        %6zu\n", notDone);
        if (!options.report.empty()) {
            std::fprintf(stderr, "  report: %s\n", options.report.c_str());
        }
    }
    if (batch.Interrupted()) return 130;
    return anyFailed || notDone > 0 ? 1 : 0;
}

int Main(int argc, char** argv) {
    Options options;
    const int parsed = ParseOptions(argc, argv, options);
    if (parsed >= 0) return parsed;
    if (options.service.empty()) options.service = ServiceBesideMe(argv[0]);
    if (access(options.service.c_str(), X_OK) != 0) {
        Error("cannot run the service " + Quoted(options.service) + ": " + std::strerror(errno));
        return 1;
    }
    std::error_code ec;
    fs::path outPath = fs::absolute(options.outDir, ec);
    outPath = fs::weakly_canonical(outPath, ec);
    const std::string outDir = outPath.string();
    std::vector<Photo> photos;
    std::string error;
    if (!FindPhotos(options.inputs, options.recursive, outDir, photos, error)) {
        Error(error);
        return 1;
    }
    NameCopies(outDir, options.outDir, options.thumbnails, photos);
    if (!MakeFolders(outDir, photos, error)) {
        Error(error);
        return 1;
    }
    if (photos.empty()) {
        if (options.verbosity > 0) {
            Error("no .jpg or .jpeg photos found (folders are searched one level deep without -r)");
        }
        const bool reported = options.report.empty() ||
                              WriteReport(options.report, options.reportFormat, false, photos);
        return reported ? 0 : 1;
    }

    CatchInterrupts();
    std::uint64_t totalBytes = 0;
    for (const Photo& photo : photos) totalBytes += photo.bytes;
    Progress progress(options, photos.size(), totalBytes);
    if (options.verbosity == 2) {
        progress.Note("varnelo-batch: " + std::to_string(photos.size()) + " photos, " +
                      FormatBytes(totalBytes) + ", through " + options.service + " with " +
                      std::to_string(GetNumOfCores() + 1) + " workers");
    }
    Batch batch(options, photos, progress);
    const bool ran = batch.Run();
    progress.Clear();
    const double seconds = Seconds(Clock::now() - progress.StartTime());
    bool reported = true;
    if (!options.report.empty() &&
        !WriteReport(options.report, options.reportFormat, options.thumbnails, photos)) {
        Error("cannot write the report " + Quoted(options.report) + ": " + std::strerror(errno));
        reported = false;
    }
    const int status = Summarise(options, photos, batch, seconds);
    return status == 0 && (!ran || !reported) ? 1 : status;
}

}  // namespace
}  // namespace Varnelo

int main(int argc, char** argv) { return Varnelo::Main(argc, argv); }
