#include "processor_pool.h"

#include <sched.h>

#include "thread.h"

namespace Varnelo {

namespace {

// Whether the calling thread holds one of the shared pool's processors.
thread_local bool t_holds = false;

}  // namespace

int UsableProcessors() {
#if defined(__linux__)
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 0) return CPU_COUNT(&set);
#endif
    return GetNumOfCores();
}

ProcessorPool::ProcessorPool(int count) : m_idle(count) {}

ProcessorPool& ProcessorPool::Shared() {
    static ProcessorPool pool(UsableProcessors());
    return pool;
}

void ProcessorPool::TakeOne() {
    std::unique_lock<std::mutex> lock(m_mutex);
    const std::uint64_t ticket = m_nextTicket++;
    if (ticket != m_serving || m_idle == 0) {
        ++m_waits;
        m_released.wait(lock, [&] { return ticket == m_serving && m_idle > 0; });
    }
    ++m_serving;
    --m_idle;
    // The next waiter may find a processor idle too.
    if (m_idle > 0 && m_serving != m_nextTicket) m_released.notify_all();
}

bool ProcessorPool::TryTakeOne() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_idle == 0 || m_serving != m_nextTicket) return false;
    --m_idle;
    return true;
}

void ProcessorPool::GiveOne() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_idle;
    }
    m_released.notify_all();
}

bool ProcessorPool::Idle() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_idle > 0 && m_serving == m_nextTicket;
}

std::uint64_t ProcessorPool::Waits() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_waits;
}

HeldProcessor::HeldProcessor() {
    if (t_holds) return;
    ProcessorPool::Shared().TakeOne();
    t_holds = m_holds = true;
}

HeldProcessor::HeldProcessor(Taken) { t_holds = m_holds = true; }

HeldProcessor::~HeldProcessor() {
    if (!m_holds) return;
    t_holds = false;
    ProcessorPool::Shared().GiveOne();
}

}  // namespace Varnelo
