#include "thread.h"

#include <unistd.h>

#include <cerrno>

namespace Varnelo {

Thread::Thread() : m_handle(), m_started(false), m_joined(false), m_running(false) {}

Thread::~Thread() = default;

int Thread::Start() {
    m_running = true;
    const int result = pthread_create(&m_handle, nullptr, &Thread::ThreadCallback, this);
    if (result == 0) {
        m_started = true;
        m_joined = false;
    } else {
        m_running = false;
    }
    return result;
}

int Thread::Join() {
    if (!m_started || m_joined) return ESRCH;
    const int result = pthread_join(m_handle, nullptr);
    m_joined = true;
    return result;
}

int Thread::Kill() {
    // A finished thread is left alone: there is nothing to cancel, and its handle may
    // already be gone after a join.
    if (!m_started || m_joined || !m_running) return ESRCH;
    return pthread_cancel(m_handle);
}

void Thread::SetPriority(int) {}

void* Thread::ThreadCallback(void* self) {
    Thread* thread = static_cast<Thread*>(self);
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
    thread->Execute();
    thread->m_running = false;
    return nullptr;
}

int GetNumOfCores() {
    const long cores = sysconf(_SC_NPROCESSORS_ONLN);
    return cores > 0 ? static_cast<int>(cores) : 1;
}

}  // namespace Varnelo
