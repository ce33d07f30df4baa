#include "support/service_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <tinyxml.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "crc32.h"
#include "md5.h"

namespace Varnelo {

namespace {

using Clock = std::chrono::steady_clock;

int RemainingMs(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

ServiceProcess::ServiceProcess(const std::string& binary, const std::vector<std::string>& args)
    : m_pid(-1), m_stdin(-1), m_stdout(-1), m_exited(false), m_status(0) {
    char pattern[] = "/tmp/varnelo-stderr-XXXXXX";
    const int errFd = mkstemp(pattern);
    if (errFd < 0) throw std::runtime_error("mkstemp failed");
    m_stderrPath = pattern;

    int in[2];
    int out[2];
    if (pipe(in) != 0 || pipe(out) != 0) throw std::runtime_error("pipe failed");

    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(binary.c_str()));
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);

    m_pid = fork();
    if (m_pid < 0) throw std::runtime_error("fork failed");
    if (m_pid == 0) {
        dup2(in[0], STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        dup2(errFd, STDERR_FILENO);
        close(in[0]);
        close(in[1]);
        close(out[0]);
        close(out[1]);
        close(errFd);
        execv(binary.c_str(), argv.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(errFd);
    m_stdin = in[1];
    m_stdout = out[0];
    // The test must not die if the service has already closed its input.
    signal(SIGPIPE, SIG_IGN);
}

ServiceProcess::~ServiceProcess() {
    CloseInput();
    if (!m_exited && m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    if (m_stdout >= 0) close(m_stdout);
    unlink(m_stderrPath.c_str());
}

void ServiceProcess::Send(const std::string& text) {
    std::size_t done = 0;
    while (done < text.size() && m_stdin >= 0) {
        const ssize_t n = write(m_stdin, text.data() + done, text.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;
        }
        done += static_cast<std::size_t>(n);
    }
}

void ServiceProcess::CloseInput() {
    if (m_stdin >= 0) {
        close(m_stdin);
        m_stdin = -1;
    }
}

bool ServiceProcess::ReadSome(int timeoutMs) {
    if (m_stdout < 0) return false;
    pollfd fd = {m_stdout, POLLIN, 0};
    const int ready = poll(&fd, 1, timeoutMs);
    if (ready <= 0) return true;
    char buffer[65536];
    const ssize_t n = read(m_stdout, buffer, sizeof(buffer));
    if (n <= 0) {
        if (n < 0 && errno == EINTR) return true;
        close(m_stdout);
        m_stdout = -1;
        return false;
    }
    m_output.append(buffer, static_cast<std::size_t>(n));
    return true;
}

std::vector<std::string> ServiceProcess::ReadResponses(std::size_t count, int timeoutMs) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    std::vector<std::string> responses;
    for (;;) {
        // Each response text is followed by the separator "\n*\n".
        std::string::size_type separator;
        while (responses.size() < count &&
               (separator = m_output.find("\n*\n")) != std::string::npos) {
            responses.push_back(m_output.substr(0, separator));
            m_output.erase(0, separator + 3);
        }
        if (responses.size() >= count || RemainingMs(deadline) == 0) return responses;
        if (!ReadSome(RemainingMs(deadline))) return responses;
    }
}

std::string ServiceProcess::ReadRest(int timeoutMs) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (RemainingMs(deadline) > 0 && ReadSome(RemainingMs(deadline))) {
    }
    std::string rest;
    rest.swap(m_output);
    return rest;
}

int ServiceProcess::Wait(int timeoutMs) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!m_exited) {
        int status = 0;
        const pid_t done = waitpid(m_pid, &status, WNOHANG);
        if (done == m_pid) {
            m_exited = true;
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            break;
        }
        if (RemainingMs(deadline) == 0) return -1;
        usleep(2000);
    }
    return m_status;
}

std::string ServiceProcess::Stderr() const { return ReadFileBytes(m_stderrPath); }

PrivateService::PrivateService() : m_binary(m_dir.Path("varnelo")) {
    std::filesystem::copy_file(VARNELO_BIN, m_binary);
}

std::vector<std::string> PrivateService::LogLines() const {
    return Lines(ReadFileBytes(LogPath()));
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::string::size_type start = 0;
    while (start <= text.size()) {
        const std::string::size_type end = text.find('\n', start);
        if (end == std::string::npos) {
            if (start < text.size()) lines.push_back(text.substr(start));
            break;
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

std::string Request(const std::string& method, const std::string& params) {
    return "<?xml version=\"1.0\"?>\n<methodCall>\n<methodName>" + method + "</methodName>\n" +
           (params.empty() ? "" : "<params>\n" + params + "</params>\n") + "</methodCall>\n*\n";
}

std::string Member(const std::string& name, const std::string& type, const std::string& text) {
    return "<member><name>" + name + "</name><value><" + type + ">" + text + "</" + type +
           "></value></member>";
}

std::string ImageParam(int id, const std::string& src, const std::string& dst,
                       const std::string& more) {
    return "<param><value><struct>" + Member("imageId", "i4", std::to_string(id)) +
           Member("sourcePath", "string", src) + Member("destPath", "string", dst) + more +
           "</struct></value></param>\n";
}

namespace {

std::string Answer(const std::string& value) {
    return "<methodResponse>\n <params>\n  <param>\n   <value>\n" + value +
           "   </value>\n  </param>\n </params>\n</methodResponse>\n";
}

std::string StructMember(const std::string& name, const std::string& type,
                         const std::string& text) {
    return "     <member>\n      <name>" + name + "</name>\n      <value>\n       <" + type + ">" +
           text + "</" + type + ">\n      </value>\n     </member>\n";
}

void Collect(TiXmlElement* fields, const std::string& prefix, ImageAnswer& answer) {
    for (TiXmlElement* m = fields->FirstChildElement("member"); m != nullptr;
         m = m->NextSiblingElement("member")) {
        const std::string name = m->FirstChildElement("name")->GetText();
        if (prefix.empty()) answer.members.push_back(name);
        TiXmlElement* typed = m->FirstChildElement("value")->FirstChildElement();
        if (std::string(typed->Value()) == "struct") {
            Collect(typed, prefix + name + "/", answer);
        } else {
            answer.values[prefix + name] = typed->GetText() != nullptr ? typed->GetText() : "";
        }
    }
}

std::string TailHash(Hash&& hash, const std::string& path) {
    return hash.File(path.c_str(), Hash::FROM_END, 2048) ? hash.GetResultString() : "unreadable";
}

}  // namespace

const std::string kDone = Answer("    <string>done</string>\n");
const std::string kConnected = Answer("    <struct>\n" + StructMember("minVersion", "i4", "1") +
                                      StructMember("currentVersion", "i4", "4") +
                                      StructMember("accepted", "boolean", "1") + "    </struct>\n");
const std::string kNoPicasa =
    Answer("    <struct>\n" + StructMember("picasaInstalled", "boolean", "0") + "    </struct>\n");

std::vector<ImageAnswer> ImageAnswers(const std::string& response) {
    std::vector<ImageAnswer> answers;
    TiXmlDocument doc;
    doc.Parse(response.c_str());
    TiXmlElement* params =
        TiXmlHandle(&doc).FirstChildElement("methodResponse").FirstChildElement("params").Element();
    if (doc.Error() || params == nullptr) return answers;
    for (TiXmlElement* param = params->FirstChildElement("param"); param != nullptr;
         param = param->NextSiblingElement("param")) {
        answers.emplace_back();
        Collect(param->FirstChildElement("value")->FirstChildElement("struct"), "", answers.back());
    }
    return answers;
}

std::string TailCrc32(const std::string& path) { return "S1|" + TailHash(CRC32(), path); }
std::string TailMd5(const std::string& path) { return "S2|" + TailHash(MD5(), path); }

}  // namespace Varnelo
