#include "threadpool.h"

#include <cxxabi.h>

#include "fsutils.h"
#include "log.h"
#include "taskqueue.h"

namespace Varnelo {

TaskThread::TaskThread(TaskQueue& queue, int id) : m_queue(queue), m_id(id), m_terminated(false) {
    log.Put("Create thread " + ToString(id), 8);
}

void TaskThread::Execute() {
    int job = 1;
    log.Put("ConvThread start " + ToString(m_id), 8);
    while (!m_terminated) {
        try {
            std::unique_ptr<Task> task = m_queue.Pop();
            if (!task) continue;
            const std::string number = ToString(m_id) + ":" + ToString(job);
            log.Put("  Start job " + number + " queue size=" + ToString(m_queue.Size()), 8);
            task->Execute();
            log.Put("  End job " + number + " queue size=" + ToString(m_queue.Size()), 8);
            ++job;
            m_terminated = task->IsTerminate();
        } catch (abi::__forced_unwind&) {
            throw;  // thread cancellation must be allowed to finish unwinding
        } catch (...) {
            log.Put("TaskThread::Exception", 8);
            m_terminated = true;
        }
    }
    log.Put("ConvThread stop " + ToString(m_id), 8);
}

ThreadPool::ThreadPool(TaskQueue& queue, int count) : m_queue(queue), m_count(count) { Create(); }

ThreadPool::~ThreadPool() { Delete(); }

void ThreadPool::Create() {
    for (int id = 0; id < m_count; ++id) {
        m_threads.push_back(std::make_unique<TaskThread>(m_queue, id));
    }
}

void ThreadPool::Start() {
    for (auto& thread : m_threads) thread->Start();
}

void ThreadPool::SetPriority(int priority) {
    for (auto& thread : m_threads) thread->SetPriority(priority);
}

void ThreadPool::Stop() {
    // Count the live workers before pushing any token: a worker that takes a token ends at
    // once, and checking each worker while pushing would then miss one that is still live.
    int live = 0;
    for (const auto& thread : m_threads) {
        if (!thread->IsTerminate()) ++live;
    }
    for (int i = 0; i < live; ++i) m_queue.Push(std::make_unique<Task>(std::string()));
}

void ThreadPool::Join() {
    for (auto& thread : m_threads) thread->Join();
}

void ThreadPool::Kill() {
    for (auto& thread : m_threads) thread->Kill();
}

bool ThreadPool::IsTerminate() const {
    for (const auto& thread : m_threads) {
        if (thread->IsTerminate()) return true;
    }
    return false;
}

void ThreadPool::Delete() { m_threads.clear(); }

}  // namespace Varnelo
