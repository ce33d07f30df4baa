#pragma once

#include <string>

#include "taskqueue.h"
#include "thread.h"
#include "threadpool.h"

namespace Varnelo {

// Reads standard input, the only thread that does. Lines are collected until a line "*";
// the collected text becomes a StdioTask (parsed here) and is queued. Empty lines are
// dropped; a line "exit" ends the listener at once. After the end of input the listener
// queues what it had collected and then looks every 100 ms whether some worker has ended,
// and ends when one has.
//
// Lines may be up to kMaxLine bytes and requests up to kMaxRequest bytes; a request that
// exceeds either is dropped whole (with a log line) and reading goes on with the next one.
class StdioListenThread : public Thread {
  public:
    StdioListenThread(TaskQueue& queue, ThreadPool& pool);

    void Execute() override;

    static const std::string::size_type kMaxLine = 1u << 20;
    static const std::string::size_type kMaxRequest = 16u << 20;

  private:
    // Reads one line from standard input into `line` (without its newline). Returns false
    // at the end of input with nothing read. `overlong` tells that bytes past kMaxLine were
    // discarded.
    bool ReadLine(std::string& line, bool& overlong);
    bool FillBuffer();

    int m_readState;
    bool m_terminate;
    int m_spare;
    TaskQueue& m_queue;
    ThreadPool& m_pool;

    bool m_eof;
    char m_buffer[64 * 1024];
    std::size_t m_begin;
    std::size_t m_end;
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
