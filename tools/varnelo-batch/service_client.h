#pragma once

// The client's side of the service's protocol: the texts of its requests, the answers read
// back, what the service does with a photo of a given size, and the service itself as a child
// process that speaks them over pipes. No other part of varnelo-batch knows a text of the
// protocol.

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Varnelo {

using Clock = std::chrono::steady_clock;

// Milliseconds from now until `deadline`, 0 when it has passed.
int MsUntil(Clock::time_point deadline);

// The protocol version this client speaks; the handshake names the range the service takes.
const int kProtocolVersion = 4;

enum class HashChoice { CRC32, MD5, NONE };

// Text for the content of an XML element, escaped for the service's reader.
std::string XmlText(const std::string& text);
// One struct member on a line of its own, without the newline.
std::string Member(const std::string& name, const std::string& type, const std::string& text);
// A method call framed for the service; `params` is empty or whole lines.
std::string Call(const std::string& method, const std::string& params);

// One image of a request: the service reads `source` and writes `dest`, its longer side at
// most `resolution` pixels. The metadata segments are always kept: the client rewrites them
// itself when asked to.
struct ImageOrder {
    int id = 0;
    std::string source, dest;
    int resolution = 0, quality = 0;
    HashChoice hash = HashChoice::NONE;
};

// The calls the client makes: the handshake, a batch of copies or thumbnails, the close.
std::string ConnectCall();
std::string ImageCall(bool thumbnail, const std::vector<ImageOrder>& images);
std::string CloseCall();
// Whether `path` fits in a line of a request, as the service reads lines of at most 1023
// characters.
bool FitsARequestLine(const std::string& path);

// Whether the service finds a photo of `width` x `height` not larger than `size` and makes
// nothing of it: its longer side is brought to the size (clamped to 32..65536) and the other
// in proportion, neither below 8 pixels, and only the widths are compared.
bool IsTooSmall(int width, int height, int size);

// The hash text the service reports for the file at `path`: "S1|" and the CRC-32, or "S2|"
// and the MD5, of its last 2048 bytes; empty for NONE. For the photos that the service answers
// without one.
std::string SourceHash(const std::string& path, HashChoice choice);

// What became of one image: the service's answer, or the client's own verdict.
struct ImageResult {
    enum Outcome {
        MADE,       // written, and the answer says how large the photo is
        WARNINGS,   // written whole, but the JPEG library warned: the photo may be damaged
        TOO_SMALL,  // not larger than the size asked: nothing written
        FAILED,     // with the reason
    } outcome = FAILED;
    bool done = false;
    std::string reason;  // the failure reason
    // A FAILED image whose failure writing the file can cause: a full disk or a folder that
    // is not writable show as these.
    bool writing = false;
    int width = -1, height = -1;  // of the source; -1 when the answer did not say
    std::string hash;
};

// One response as the client understands it.
struct Answer {
    enum Kind { UNKNOWN, IMAGES, CONNECTED, DONE } kind = UNKNOWN;
    std::vector<std::pair<int, ImageResult>> images;  // by imageId, in the response's order
    int minVersion = 0, currentVersion = 0;
    bool accepted = false;
};

Answer ParseAnswer(const std::string& text);

// An owned file descriptor, closed when the object goes away.
class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : m_fd(fd) {}
    ~Fd() { Reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd& operator=(Fd&& other) noexcept;

    int Get() const { return m_fd; }
    void Reset();

  private:
    int m_fd = -1;
};

// The service as a child process whose standard input and output are pipes to this program
// (the tests run it, and this client, the same way). It runs in a process group of its own, so
// that a Ctrl-C at the terminal reaches only this program, which then closes the service in
// order; it is killed if this program dies. The destructor kills a child that still runs and
// reaps it. One thread uses it.
class ServiceChild {
  public:
    ServiceChild() = default;
    ~ServiceChild() { Kill(); }
    ServiceChild(const ServiceChild&) = delete;
    ServiceChild& operator=(const ServiceChild&) = delete;

    // Kills a running child and starts `binary` with `args`. Its standard error goes to the file
    // `stderrPath` (where the JPEG library prints its warnings), or stays this program's when the
    // path is empty. False when no process could be made; a binary that cannot be run shows as
    // output that ends at once.
    bool Start(const std::string& binary, const std::vector<std::string>& args,
               const std::string& stderrPath);
    pid_t Pid() const { return m_pid; }
    int OutputFd() const { return m_out.Get(); }
    bool InputOpen() const { return m_in.Get() >= 0; }
    void CloseInput() { m_in.Reset(); }

    // Writes all of `text`; false when the service does not take it within a few seconds.
    bool Send(const std::string& text);
    // Reads what the service has written so far without waiting; false once its output ended.
    bool Read();
    // Takes the next whole response read so far, without its separator line "*".
    bool NextResponse(std::string& response);
    // The same, reading until `deadline` for it; false when none came by then or the output
    // ended first.
    bool WaitResponse(std::string& response, Clock::time_point deadline);
    // Reads until the output ends or `deadline`; returns all read and not taken as a response.
    std::string TakeRest(Clock::time_point deadline);

    // Waits until `deadline` for the child to end, without killing it; true once it has.
    bool Exited(Clock::time_point deadline);
    // The exit status of the child that ended last, or 128 + the signal that ended it.
    int ExitStatus() const { return m_status; }
    // Waits until `deadline` for the service to end, then kills it; says how it ended.
    std::string Reap(Clock::time_point deadline);
    // Kills the service if it runs and reaps it; says how it ended.
    std::string Kill();

  private:
    std::string Ended(int status);

    pid_t m_pid = -1;
    int m_status = -1;
    Fd m_in, m_out;
    std::string m_buffer;
};

}  // namespace Varnelo
