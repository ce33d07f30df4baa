#include "server.h"

#include <cxxabi.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "log.h"
#include "utils.h"

namespace Varnelo {

LineReader::LineReader(int fd) : m_fd(fd), m_eof(false), m_begin(0), m_end(0) {}

bool LineReader::FillBuffer() {
    for (;;) {
        const ssize_t n = read(m_fd, m_buffer, sizeof(m_buffer));
        if (n > 0) {
            m_begin = 0;
            m_end = static_cast<std::size_t>(n);
            return true;
        }
        if (n < 0 && errno == EINTR) continue;
        // End of input, or an input that can no longer be read: the same to the reader.
        m_eof = true;
        return false;
    }
}

bool LineReader::ReadLine(std::string& line, bool& overlong) {
    line.clear();
    overlong = false;
    bool readAny = false;
    for (;;) {
        if (m_begin == m_end && !FillBuffer()) return readAny;
        readAny = true;
        const char* start = m_buffer + m_begin;
        const std::size_t available = m_end - m_begin;
        const void* newline = std::memchr(start, '\n', available);
        const std::size_t length =
            newline != nullptr ? static_cast<const char*>(newline) - start : available;
        const std::size_t room = kMaxLine - line.size();
        if (length > room) overlong = true;
        line.append(start, length > room ? room : length);
        m_begin += length;
        if (newline != nullptr) {
            ++m_begin;
            return true;
        }
    }
}

RequestFramer::RequestFramer() : m_dropping(false) {}

void RequestFramer::Drop() {
    if (!m_dropping) log.Put("StdioThread request too long, dropped", 8);
    m_dropping = true;
    m_collected.clear();
}

bool RequestFramer::Take(std::string& request) {
    request = std::move(m_collected);
    m_collected.clear();
    if (m_dropping) {
        request.clear();
        m_dropping = false;
    }
    return !request.empty();
}

RequestFramer::Event RequestFramer::AddLine(const std::string& line, bool overlong,
                                            std::string& request) {
    if (overlong) {
        Drop();
        return NONE;
    }
    if (line == "*") {
        log.Put("EXECUTE=" + line, 8);
        return Take(request) ? REQUEST : NONE;
    }
    if (line == "exit") {
        m_collected.clear();
        return EXIT;
    }
    if (line.empty() || m_dropping) return NONE;
    if (m_collected.size() + line.size() + 1 > kMaxRequest) {
        Drop();
        return NONE;
    }
    m_collected += line;
    m_collected += '\n';
    return NONE;
}

bool RequestFramer::Flush(std::string& request) { return Take(request); }

StdioListenThread::StdioListenThread(TaskQueue& queue, ThreadPool& pool)
    : m_readState(0), m_terminate(false), m_spare(9), m_queue(queue), m_pool(pool) {}

void StdioListenThread::Execute() {
    LineReader input(STDIN_FILENO);
    RequestFramer framer;
    std::string line;
    std::string request;

    log.Put("+connect stdio", 8);
    m_spare = 0;
    m_readState = 0;
    while (!m_terminate) {
        try {
            if (input.AtEnd()) {
                Sleep_ms(100);
                if (framer.Flush(request)) m_readState = 2;
                if (m_pool.IsTerminate()) {
                    log.Put("Detect terminating", 8);
                    m_terminate = true;
                }
            } else {
                bool overlong = false;
                if (!input.ReadLine(line, overlong)) line.clear();
                const RequestFramer::Event event = framer.AddLine(line, overlong, request);
                if (event == RequestFramer::EXIT) {
                    log.Put("StdioThread exit", 8);
                    m_terminate = true;
                    break;
                }
                if (event == RequestFramer::REQUEST) m_readState = 2;
            }
            if (m_readState == 2) {
                m_readState = 0;
                m_queue.Push(std::make_unique<StdioTask>(request));
            }
        } catch (abi::__forced_unwind&) {
            throw;  // thread cancellation must be allowed to finish unwinding
        } catch (...) {
            log.Put("StdioThread::Exception", 8);
        }
    }
    m_terminate = true;
    log.Put("-disconnect stdio", 8);
}

CServer* CServer::instance = nullptr;

CServer* CServer::Instance() {
    if (instance == nullptr) instance = new CServer();
    return instance;
}

void CServer::Delete() {
    delete instance;
    instance = nullptr;
}

// One worker more than the processors online (processor_pool.h says which count is which). The
// workers run requests; the conversions inside them are limited to one per usable processor by
// the processor pool, which every conversion holds a processor of while it runs: so the spare
// worker answers a request that converts nothing (a handshake, a deletion) at once, and the one
// that converts waits for a processor instead of sharing one.
CServer::CServer()
    : m_queue(4096),
      m_pool(m_queue, GetNumOfCores() + 1),
      m_listener(m_queue, m_pool),
      m_useStdio(false) {}

CServer::~CServer() = default;

void CServer::SetUseStdio(bool useStdio) { m_useStdio = useStdio; }

int CServer::Start() {
    log.Put("Start server...", 6);
    // Does nothing on this platform; kept so that a port which can lower the workers' priority
    // has its place in the start-up order.
    m_pool.SetPriority(-2);
    m_pool.Start();
    if (m_useStdio) {
        log.Put("Create stdio process...", 6);
        m_listener.Start();
        log.Put("Create stdio process is ok", 6);
    }
    log.Put("Start server is ok", 6);
    return 0;
}

void CServer::Join() {
    if (m_useStdio) m_listener.Join();
}

void CServer::Stop() {
    log.Put("Stop server", 6);
    m_pool.Stop();
    m_pool.Join();
    if (m_useStdio) {
        m_listener.Kill();
        m_listener.Join();
    }
}

}  // namespace Varnelo
