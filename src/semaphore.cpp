#include "semaphore.h"

#include <fcntl.h>
#include <time.h>

#include <cstring>

#include "utils.h"

namespace Varnelo {

Semaphore::Semaphore(const char* name, int count) {
    std::strncpy(m_name, name, sizeof(m_name) - 1);
    m_name[sizeof(m_name) - 1] = '\0';
    m_handle = sem_open(m_name, O_CREAT, 0600, static_cast<unsigned>(count));
}

Semaphore::~Semaphore() {
    sem_unlink(m_name);
    // The handle is released with sem_destroy rather than sem_close; the mapping
    // lives until the process ends, which is when the only queue goes away.
    if (m_handle != SEM_FAILED) sem_destroy(m_handle);
}

int Semaphore::Wait() {
    if (m_handle == SEM_FAILED) return -1;
    return sem_wait(m_handle);
}

int Semaphore::TimedWait(int milliseconds) {
    if (m_handle == SEM_FAILED) {
        Sleep_ms(milliseconds);
        return -1;
    }
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    const long nanoseconds = deadline.tv_nsec + (milliseconds % 1000) * 1000000L;
    deadline.tv_sec += milliseconds / 1000 + nanoseconds / 1000000000L;
    deadline.tv_nsec = nanoseconds % 1000000000L;
    return sem_clockwait(m_handle, CLOCK_MONOTONIC, &deadline) == 0 ? 0 : -1;
}

bool Semaphore::TryWait() {
    if (m_handle == SEM_FAILED) return false;
    return sem_trywait(m_handle) == 0;
}

int Semaphore::Post() {
    if (m_handle == SEM_FAILED) return -1;
    return sem_post(m_handle);
}

long Semaphore::Id() const {
    return m_handle == SEM_FAILED ? -1L : reinterpret_cast<long>(m_handle);
}

}  // namespace Varnelo
