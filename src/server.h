#pragma once

#include <string>

#include "taskqueue.h"
#include "thread.h"
#include "threadpool.h"

namespace Varnelo {

// Reads lines from a file descriptor through a buffer of its own. Lines are split at the
// newline character alone; a line longer than kMaxLine bytes is cut to that length and reported.
// Used by one thread.
class LineReader {
  public:
    explicit LineReader(int fd);

    // Reads the next line into `line`, without its newline. Returns false at the end of input
    // with nothing read. `overlong` tells that bytes past kMaxLine were discarded.
    bool ReadLine(std::string& line, bool& overlong);
    // True once the input has ended (or can no longer be read).
    bool AtEnd() const { return m_eof; }

    static const std::string::size_type kMaxLine = 1u << 20;

  private:
    bool FillBuffer();

    int m_fd;
    bool m_eof;
    char m_buffer[64 * 1024];
    std::size_t m_begin;
    std::size_t m_end;
};

// Cuts the lines of the client's input into request texts: lines are collected until a line
// "*" and then make one request; empty lines are dropped, every other line is kept with a "\n"
// after it. A request of more than kMaxRequest bytes, or one that had an overlong line, is
// dropped whole (with one log line) and framing goes on with the next one.
class RequestFramer {
  public:
    enum Event { NONE, REQUEST, EXIT };

    RequestFramer();

    // Takes the next line. REQUEST: `request` holds a complete request text. EXIT: the line
    // was "exit"; what was collected is dropped.
    Event AddLine(const std::string& line, bool overlong, std::string& request);
    // At the end of input: true with whatever was collected since the last "*" in `request`.
    bool Flush(std::string& request);

    static const std::string::size_type kMaxRequest = 16u << 20;

  private:
    void Drop();
    bool Take(std::string& request);

    std::string m_collected;
    bool m_dropping;  // the rest of an oversized request is being skipped, up to its "*"
};

// Reads standard input, the only thread that does, through a LineReader and a RequestFramer;
// each request becomes a StdioTask (parsed here) and is queued. A line "exit" ends the listener
// at once. After the end of input the listener queues what it had collected and then looks
// every 100 ms whether some worker has ended, and ends when one has.
class StdioListenThread : public Thread {
  public:
    StdioListenThread(TaskQueue& queue, ThreadPool& pool);

    void Execute() override;

  private:
    int m_readState;
    bool m_terminate;
    int m_spare;
    TaskQueue& m_queue;
    ThreadPool& m_pool;
};

// The process-wide server: owns the task queue, the worker pool (one worker more than
// there are processors) and the standard-input listener, built in that order and destroyed
// in reverse. Instance and Delete are for the main thread only.
class CServer {
  public:
    static CServer* Instance();
    static void Delete();

    void SetUseStdio(bool useStdio);
    // Starts the workers, then the listener. 0 on success.
    int Start();
    // Blocks until the listener has ended.
    void Join();
    // Stops and joins the workers (queued work is run first), then the listener.
    void Stop();

    virtual ~CServer();

  private:
    CServer();
    CServer(const CServer&) = delete;
    CServer& operator=(const CServer&) = delete;

    static CServer* instance;

    TaskQueue m_queue;
    ThreadPool m_pool;
    StdioListenThread m_listener;
    bool m_useStdio;
};

}  // namespace Varnelo
