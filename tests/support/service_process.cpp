#include "support/service_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "support/temp_dir.h"

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

}  // namespace Varnelo
