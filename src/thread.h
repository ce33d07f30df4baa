#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <functional>

namespace Varnelo {

// Base of the service's long-lived threads. Start runs Execute on a new POSIX thread with
// asynchronous cancellation enabled. Join and Kill are harmless on a thread that was never
// started, has finished, or has already been joined: a handle is never cancelled or joined
// after it has been joined once.
//
// Threads: Start, Join and Kill are called by the owner's thread (one at a time).
class Thread {
  public:
    Thread();
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    int Start();
    int Join();
    int Kill();
    void SetPriority(int priority);

    // The thread's body.
    virtual void Execute() = 0;

  private:
    static void* ThreadCallback(void* self);

    pthread_t m_handle;
    bool m_started;
    bool m_joined;
    std::atomic<bool> m_running;
};

// Processors online; 1 when the system cannot tell.
int GetNumOfCores();

// Runs `body` on a new thread whose stack holds `stackBytes`, with an inaccessible page below
// it, and waits for the thread to end. The stack is mapped for this call alone and unmapped
// before it returns, so the pages a deep recursion touched go back to the system at once. An
// exception `body` throws is thrown again on the calling thread. Returns false, without running
// `body`, when no such thread can be made.
bool RunWithStack(std::size_t stackBytes, const std::function<void()>& body);

}  // namespace Varnelo
