#include "semaphore.h"

#include <fcntl.h>

#include <cstring>

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
