#include "mutex.h"

namespace Varnelo {

Mutex::Mutex() { pthread_mutex_init(&m_mutex, nullptr); }

Mutex::~Mutex() { pthread_mutex_destroy(&m_mutex); }

int Mutex::Lock() { return pthread_mutex_lock(&m_mutex); }

int Mutex::Unlock() { return pthread_mutex_unlock(&m_mutex); }

AutoLock::AutoLock(Mutex& mutex) : m_mutex(mutex) { m_mutex.Lock(); }

AutoLock::~AutoLock() { m_mutex.Unlock(); }

}  // namespace Varnelo
