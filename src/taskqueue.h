#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "mutex.h"
#include "semaphore.h"

namespace Varnelo {

class XMLRPC;

// One request for the worker pool: the request text, parsed at construction on the
// producing thread, and the XMLRPC object that executes and answers it. A task built from
// an empty text is the pool's token for stopping one worker: it reports IsTerminate() from
// the start and does nothing when executed.
//
// Ownership: the queue owns a task from Push until Pop; then the worker that popped it.
class Task {
  public:
    explicit Task(const std::string& request);
    virtual ~Task();
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;

    // Runs the request on a worker thread; the base does nothing.
    virtual void Execute();
    bool IsTerminate() const { return m_terminate; }

  protected:
    // The steps every answering task takes: traces "<kind>::Execute"; unless this is a stop
    // token (then it returns false at once), executes the request, hands a non-empty response
    // to `write` and, for the close method, traces "<kind>::XML_SHUTDOWN" and marks the task
    // terminating.
    bool Answer(const char* kind, const std::function<void(const std::string&)>& write);

    std::unique_ptr<XMLRPC> m_message;
    bool m_terminate;
};

// Answers on standard output: the response text and "\n*\n", whole, under stdout_mutex.
// A request that produces no response writes nothing at all. Running the close method
// marks the task terminating, which ends the worker that ran it.
class StdioTask : public Task {
  public:
    explicit StdioTask(const std::string& request);
    void Execute() override;

    // Serialises every response written to standard output.
    static Mutex stdout_mutex;
};

// Answers one request on a connected socket, the response followed by its terminating
// null character, then closes the socket. Nothing in the service creates one; it lets a
// socket listener hand connections to the same pool.
class SocketTask : public Task {
  public:
    SocketTask(const std::string& request, int socket);
    void Execute() override;

  private:
    int m_socket;
};

// Bounded first-in-first-out hand-over of tasks from producers to the workers. A mutex
// guards the queue; the named semaphore "jprocsem_<pid>" counts queued tasks so that Pop
// can sleep. Push never blocks: a task pushed onto a full queue is destroyed silently.
//
// The semaphore's name is cut to 15 characters, so services whose process ids differ only in
// their last digits share one kernel count, and a worker of one may take the count that another
// posted for its own task. Pop therefore waits at most kWakeCheckMs at a time and then looks at
// its own queue: a task whose count went elsewhere waits no longer than that.
//
// Threads: any number may Push, Pop and Size at once. Only one queue should exist per
// process at a time, since the semaphore's name is derived from the process id.
class TaskQueue {
  public:
    explicit TaskQueue(int capacity);
    // With `nameId` in place of the process id in the semaphore's name: for tests that need
    // two queues to share a name.
    TaskQueue(int capacity, int nameId);
    virtual ~TaskQueue();
    TaskQueue(const TaskQueue&) = delete;
    TaskQueue& operator=(const TaskQueue&) = delete;

    void Push(std::unique_ptr<Task> task);
    // Blocks until there is a task; returns null (after a 10 ms pause) when a count had no
    // task behind it.
    std::unique_ptr<Task> Pop();
    int Size();

    static constexpr int kWakeCheckMs = 100;

  private:
    std::deque<std::unique_ptr<Task>> m_queue;
    Mutex m_lock;
    Semaphore m_count;
    int m_capacity;
    // Tasks that Pop took after a wait ran out, before their count reached one of this queue's
    // waiters: as many counts of this process's own may still arrive with no task behind them,
    // and are no fault. Guarded by m_lock.
    int m_uncounted;
};

}  // namespace Varnelo
