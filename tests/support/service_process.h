#pragma once

// Process-level testing: a child process started with pipes, as the client starts the service,
// the request texts the client writes and the answers it reads back.

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "varnelo-batch/service_client.h"

namespace Varnelo {

// A child process started with pipes on its standard input and output, as the client starts
// the service (through the batch client's ServiceChild). Standard error goes to a file that
// Stderr() reads back. The destructor kills a child that still runs and reaps it.
class ServiceProcess {
  public:
    explicit ServiceProcess(const std::string& binary, const std::vector<std::string>& args = {});
    ~ServiceProcess();
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    pid_t pid() const { return m_child.Pid(); }
    void Send(const std::string& text) { m_child.Send(text); }
    void CloseInput() { m_child.CloseInput(); }

    // Reads until `count` responses have come, the output ends, or `timeoutMs` passes. Returns
    // the responses read, without their separators.
    std::vector<std::string> ReadResponses(std::size_t count, int timeoutMs = 20000);
    // Reads until the output ends or `timeoutMs` passes; returns what ReadResponses did not.
    std::string ReadRest(int timeoutMs = 20000);
    // Waits for the child to end: its exit status, 128 + signal, or -1 after `timeoutMs`.
    int Wait(int timeoutMs = 20000);
    std::string Stderr() const { return ReadFileBytes(m_dir.Path("stderr")); }

  private:
    TempDir m_dir;
    ServiceChild m_child;
};

// The service copied into a private folder, so that its log file (beside the executable) lands
// there.
class PrivateService {
  public:
    PrivateService();
    const std::string& Binary() const { return m_binary; }
    std::string LogPath() const { return m_dir.Path("log"); }
    std::vector<std::string> LogLines() const;

  private:
    TempDir m_dir;
    std::string m_binary;
};

// A text split into its lines.
std::vector<std::string> Lines(const std::string& text);
// `text` with every `from` replaced by `to`.
std::string Replace(std::string text, const std::string& from, const std::string& to);

// A method call framed as the client sends it, with `params` inside <params> when not empty.
std::string Request(const std::string& method, const std::string& params = "");
// An image request's <param>: imageId, sourcePath and destPath, then `more` members.
std::string ImageParam(int id, const std::string& src, const std::string& dst,
                       const std::string& more = "");

// What the service answers, known in advance.
extern const std::string kDone;       // upload.close, service.erase
extern const std::string kConnected;  // upload.connect
extern const std::string kNoPicasa;   // upload.installInfoRequest

// One answered image: its top-level member names in order, and leaf texts by path
// ("imageId", "originalImage/resolution/width", ...).
struct ImageAnswer {
    std::vector<std::string> members;
    std::map<std::string, std::string> values;
};
// The answers of an image method's response, in order; empty when the text is not one whole
// methodResponse document.
std::vector<ImageAnswer> ImageAnswers(const std::string& response);

// "S1|" and the CRC-32, or "S2|" and the MD5, of the last 2048 bytes of a file.
std::string TailCrc32(const std::string& path);
std::string TailMd5(const std::string& path);

}  // namespace Varnelo
