#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "thread.h"

namespace Varnelo {

class TaskQueue;

// A worker: pops tasks from the queue, runs them and destroys them, until it has run a
// task that reports itself terminating (the close method, or the pool's empty stop token).
// An exception escaping a task is logged and ends this worker only.
class TaskThread : public Thread {
  public:
    TaskThread(TaskQueue& queue, int id);

    void Execute() override;
    // Set once this worker is to end; never reset. Read by other threads without a lock.
    bool IsTerminate() const { return m_terminated; }

  private:
    TaskQueue& m_queue;
    int m_id;
    std::atomic<bool> m_terminated;
};

// A fixed set of workers sharing one queue. Shut-down order: Stop (one stop token per live
// worker, queued behind the waiting work), then Join, then destruction.
//
// Threads: built, started, stopped and joined by the owner; IsTerminate may be polled from
// any thread.
class ThreadPool {
  public:
    ThreadPool(TaskQueue& queue, int count);
    virtual ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    void Create();
    void Start();
    void SetPriority(int priority);
    void Stop();
    void Join();
    void Kill();
    // True as soon as any worker has ended (or is about to).
    bool IsTerminate() const;
    // Destroys the workers; REQUIRES: they have been joined (or never started).
    void Delete();

  private:
    std::vector<std::unique_ptr<TaskThread>> m_threads;
    TaskQueue& m_queue;
    int m_count;
};

}  // namespace Varnelo
