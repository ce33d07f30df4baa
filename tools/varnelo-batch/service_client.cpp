#include "service_client.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <tinyxml.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>

#include "crc32.h"
#include "md5.h"

namespace Varnelo {

int MsUntil(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, 1 << 30));
}

namespace {

// The failure reasons of the two outcomes that leave the client something to do.
const char kTooSmall[] = "actual resolution less than requested";
const char kWarnings[] = "jpeg library warning(s)";
// The failures that an output file which cannot be written gives.
const char kResamplingError[] = "jpeg resampling error";
const char kCreateError[] = "create destination file error";
// The service reads request lines of at most this many characters.
const std::size_t kMaxLine = 1023;

// How a child ended, from its ExitStatus.
std::string Describe(int status) {
    if (status < 128) return "exited with status " + std::to_string(status);
    return "was killed by signal " + std::to_string(status - 128) + " (" + strsignal(status - 128) +
           ")";
}

// The service names its two hashes the other way round: the wire text "MD5" makes it compute
// a CRC-32 (answered "S1|" and 8 hex digits) and any other text an MD5 ("S2|" and 32 digits).
// This is the one place that knows it. No text turns hashing off: for NONE the member is left
// out and the caller drops the hash from the answer.
const char* WireHashName(HashChoice choice) {
    switch (choice) {
        case HashChoice::CRC32:
            return "MD5";
        case HashChoice::MD5:
            return "CRC32";
        case HashChoice::NONE:
            break;
    }
    return nullptr;
}

}  // namespace

// Whitespace and control characters go as character references: the service's XML reader
// folds runs of raw whitespace into one blank, which would turn "a  b.jpg" into "a b.jpg".
// Other bytes go as they are, under the ISO-8859-1 declaration of Call, so that file names
// that are not valid UTF-8 reach the service unchanged.
std::string XmlText(const std::string& text) {
    std::string out;
    for (const char ch : text) {
        const unsigned char c = static_cast<unsigned char>(ch);
        if (c == '&') {
            out += "&amp;";
        } else if (c == '<') {
            out += "&lt;";
        } else if (c == '>') {
            out += "&gt;";
        } else if (c <= ' ') {
            out += "&#" + std::to_string(c) + ";";
        } else {
            out += ch;
        }
    }
    return out;
}

std::string Member(const std::string& name, const std::string& type, const std::string& text) {
    return "<member><name>" + name + "</name><value><" + type + ">" + XmlText(text) + "</" + type +
           "></value></member>";
}

std::string Call(const std::string& method, const std::string& params) {
    return "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<methodCall><methodName>" + method +
           "</methodName>\n" + params + "</methodCall>\n*\n";
}

std::string ConnectCall() {
    return Call("upload.connect", "<params><param><value><struct/></value></param></params>\n");
}

std::string CloseCall() { return Call("upload.close", ""); }

std::string ImageCall(bool thumbnail, const std::vector<ImageOrder>& images) {
    std::string params;
    for (const ImageOrder& image : images) {
        params += "<param><value><struct>\n" + Member("imageId", "i4", std::to_string(image.id)) +
                  "\n" + Member("sourcePath", "string", image.source) + "\n" +
                  Member("destPath", "string", image.dest) + "\n" +
                  Member("resolution", "i4", std::to_string(image.resolution)) + "\n" +
                  Member("quality", "i4", std::to_string(image.quality)) + "\n";
        if (WireHashName(image.hash) != nullptr) {
            params += Member("hashMethod", "string", WireHashName(image.hash)) + "\n";
        }
        params += "</struct></value></param>\n";
    }
    return Call(thumbnail ? "upload.thumbnailRequest" : "upload.downsampleRequest",
                "<params>\n" + params + "</params>\n");
}

bool FitsARequestLine(const std::string& path) {
    return Member("sourcePath", "string", path).size() <= kMaxLine;
}

bool IsTooSmall(int width, int height, int size) {
    size = std::clamp(size, 32, 65536);
    long long fitted = width;
    if (width < height && height > size) {
        fitted = static_cast<long long>(width) * size / height;
    } else if (width > size) {
        fitted = size;
    }
    return std::max(fitted, 8LL) == width;
}

std::string SourceHash(const std::string& path, HashChoice choice) {
    std::unique_ptr<Hash> hash;
    if (choice == HashChoice::CRC32) hash = std::make_unique<CRC32>();
    if (choice == HashChoice::MD5) hash = std::make_unique<MD5>();
    if (hash == nullptr) return "";
    const std::string prefix = choice == HashChoice::CRC32 ? "S1|" : "S2|";
    return prefix + (hash->File(path.c_str(), Hash::FROM_END, 2048) ? hash->GetResultString() : "");
}

namespace {

using Fields = std::map<std::string, TiXmlElement*>;

std::string TextOf(const TiXmlElement* element) {
    const char* text = element != nullptr ? element->GetText() : nullptr;
    return text != nullptr ? text : "";
}

int IntOf(const TiXmlElement* element) { return std::atoi(TextOf(element).c_str()); }

// The typed value element of each member of a struct, by member name.
Fields FieldsOf(TiXmlElement* structure) {
    Fields fields;
    if (structure == nullptr) return fields;
    for (TiXmlElement* member = structure->FirstChildElement("member"); member != nullptr;
         member = member->NextSiblingElement("member")) {
        TiXmlElement* typed =
            TiXmlHandle(member).FirstChildElement("value").FirstChildElement().Element();
        if (typed != nullptr) fields[TextOf(member->FirstChildElement("name"))] = typed;
    }
    return fields;
}

TiXmlElement* Field(const Fields& fields, const char* name) {
    const auto it = fields.find(name);
    return it != fields.end() ? it->second : nullptr;
}

}  // namespace

Answer ParseAnswer(const std::string& text) {
    Answer answer;
    TiXmlDocument doc;
    doc.Parse(text.c_str());
    TiXmlElement* params =
        TiXmlHandle(&doc).FirstChildElement("methodResponse").FirstChildElement("params").Element();
    if (params == nullptr) return answer;
    for (TiXmlElement* param = params->FirstChildElement("param"); param != nullptr;
         param = param->NextSiblingElement("param")) {
        TiXmlElement* value =
            TiXmlHandle(param).FirstChildElement("value").FirstChildElement().Element();
        if (value == nullptr) continue;
        if (value->ValueStr() == "string" && TextOf(value) == "done") answer.kind = Answer::DONE;
        if (value->ValueStr() != "struct") continue;
        const Fields fields = FieldsOf(value);
        if (Field(fields, "minVersion") != nullptr) {
            answer.kind = Answer::CONNECTED;
            answer.minVersion = IntOf(Field(fields, "minVersion"));
            answer.currentVersion = IntOf(Field(fields, "currentVersion"));
            answer.accepted = TextOf(Field(fields, "accepted")) == "1";
        } else if (Field(fields, "imageId") != nullptr) {
            answer.kind = Answer::IMAGES;
            ImageResult result;
            result.done = true;
            result.reason = TextOf(Field(fields, "failureReason"));
            result.outcome = TextOf(Field(fields, "success")) == "1" ? ImageResult::MADE
                             : result.reason == kWarnings            ? ImageResult::WARNINGS
                             : result.reason == kTooSmall            ? ImageResult::TOO_SMALL
                                                                     : ImageResult::FAILED;
            result.writing = result.reason == kResamplingError || result.reason == kCreateError;
            const Fields original = FieldsOf(Field(fields, "originalImage"));
            const Fields resolution = FieldsOf(Field(original, "resolution"));
            if (Field(resolution, "width") != nullptr) {
                result.width = IntOf(Field(resolution, "width"));
                result.height = IntOf(Field(resolution, "height"));
            }
            result.hash = TextOf(Field(original, "hash"));
            answer.images.emplace_back(IntOf(Field(fields, "imageId")), result);
        }
    }
    return answer;
}

Fd& Fd::operator=(Fd&& other) noexcept {
    Reset();
    std::swap(m_fd, other.m_fd);
    return *this;
}

void Fd::Reset() {
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
}

bool ServiceChild::Start(const std::string& binary, const std::vector<std::string>& args,
                         const std::string& stderrPath) {
    Kill();
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0) return false;
    Fd inRead(in[0]), inWrite(in[1]);
    if (pipe2(out, O_CLOEXEC) != 0) return false;
    Fd outRead(out[0]), outWrite(out[1]);
    Fd err(stderrPath.empty()
               ? -1
               : open(stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    std::vector<char*> argv = {const_cast<char*>(binary.c_str())};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) return false;
    if (pid == 0) {
        setpgid(0, 0);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        dup2(inRead.Get(), STDIN_FILENO);
        dup2(outWrite.Get(), STDOUT_FILENO);
        if (err.Get() >= 0) dup2(err.Get(), STDERR_FILENO);
        execv(binary.c_str(), argv.data());
        _exit(127);
    }
    m_pid = pid;
    m_in = std::move(inWrite);
    m_out = std::move(outRead);
    fcntl(m_in.Get(), F_SETFL, O_NONBLOCK);
    fcntl(m_out.Get(), F_SETFL, O_NONBLOCK);
    m_buffer.clear();
    return true;
}

bool ServiceChild::Send(const std::string& text) {
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
    std::size_t done = 0;
    while (done < text.size() && m_in.Get() >= 0) {
        const ssize_t n = write(m_in.Get(), text.data() + done, text.size() - done);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
        } else if (n < 0 && errno == EAGAIN && MsUntil(deadline) > 0) {
            pollfd fd = {m_in.Get(), POLLOUT, 0};
            poll(&fd, 1, MsUntil(deadline));
        } else if (!(n < 0 && errno == EINTR)) {
            return false;
        }
    }
    return done == text.size();
}

bool ServiceChild::Read() {
    char buffer[65536];
    for (;;) {
        const ssize_t n = read(m_out.Get(), buffer, sizeof(buffer));
        if (n > 0) {
            m_buffer.append(buffer, static_cast<std::size_t>(n));
        } else if (n == 0) {
            return false;
        } else if (errno != EINTR) {
            return errno == EAGAIN;
        }
    }
}

bool ServiceChild::NextResponse(std::string& response) {
    const std::string::size_type end = m_buffer.find("\n*\n");
    if (end == std::string::npos) return false;
    response = m_buffer.substr(0, end);
    m_buffer.erase(0, end + 3);
    return true;
}

bool ServiceChild::WaitResponse(std::string& response, Clock::time_point deadline) {
    bool open = true;
    while (!NextResponse(response)) {
        if (!open || MsUntil(deadline) == 0) return false;
        pollfd fd = {m_out.Get(), POLLIN, 0};
        poll(&fd, 1, MsUntil(deadline));
        open = Read();
    }
    return true;
}

std::string ServiceChild::TakeRest(Clock::time_point deadline) {
    for (bool open = m_out.Get() >= 0 && Read(); open && MsUntil(deadline) > 0; open = Read()) {
        pollfd fd = {m_out.Get(), POLLIN, 0};
        poll(&fd, 1, MsUntil(deadline));
    }
    std::string rest;
    rest.swap(m_buffer);
    return rest;
}

bool ServiceChild::Exited(Clock::time_point deadline) {
    for (;;) {
        int status = 0;
        if (m_pid <= 0) return true;
        if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
            Ended(status);
            return true;
        }
        if (MsUntil(deadline) == 0) return false;
        poll(nullptr, 0, 5);
    }
}

std::string ServiceChild::Reap(Clock::time_point deadline) {
    if (m_pid > 0 && Exited(deadline)) return Describe(m_status);
    return Kill();
}

std::string ServiceChild::Kill() {
    if (m_pid <= 0) return "was not running";
    kill(m_pid, SIGKILL);
    int status = 0;
    while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    return Ended(status);
}

std::string ServiceChild::Ended(int status) {
    m_pid = -1;
    m_in.Reset();  // what it wrote before it ended can still be read
    m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return Describe(m_status);
}

}  // namespace Varnelo
