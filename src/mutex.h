#pragma once

#include <pthread.h>

namespace Varnelo {

// A plain (non-recursive) POSIX mutex. Shared between threads by reference;
// Lock and Unlock may be called from any thread. Results are passed back, never checked.
class Mutex {
  public:
    Mutex();
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    int Lock();
    int Unlock();

  private:
    pthread_mutex_t m_mutex;
};

// Holds a Mutex for the lifetime of the object: locks on construction, unlocks on destruction.
class AutoLock {
  public:
    explicit AutoLock(Mutex& mutex);
    ~AutoLock();
    AutoLock(const AutoLock&) = delete;
    AutoLock& operator=(const AutoLock&) = delete;

  private:
    Mutex& m_mutex;
};

}  // namespace Varnelo
