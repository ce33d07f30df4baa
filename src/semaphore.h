#pragma once

#include <semaphore.h>

namespace Varnelo {

// A POSIX named counting semaphore. Objects built with the same name share one kernel
// semaphore (also across processes). The name is cut to 15 characters.
// Destruction unlinks the name; operations are safe from any thread.
class Semaphore {
  public:
    Semaphore(const char* name, int count);
    ~Semaphore();
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    // Blocks until the count is positive, then decrements it.
    int Wait();
    // Like Wait, but gives up after `milliseconds` (of the monotonic clock) or a signal; 0 when
    // the count was decremented, -1 otherwise. Without a semaphore it sleeps out the time.
    int TimedWait(int milliseconds);
    // Decrements the count if it is positive; never blocks. True when it did.
    bool TryWait();
    int Post();
    // The handle as an integer: -1 when the open failed.
    long Id() const;

  private:
    sem_t* m_handle;
    char m_name[16];
};

}  // namespace Varnelo
