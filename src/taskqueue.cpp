#include "taskqueue.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

#include "fsutils.h"
#include "log.h"
#include "utils.h"
#include "xmlrpc.h"

namespace Varnelo {

namespace {

std::string SemaphoreName(int id) { return "jprocsem_" + ToString(id); }

}  // namespace

Task::Task(const std::string& request)
    : m_message(std::make_unique<XMLRPC>()), m_terminate(request.empty()) {
    log.Put("Task::Task", 8);
    if (!m_terminate) m_message->Parse(request);
}

Task::~Task() = default;

void Task::Execute() {}

Mutex StdioTask::stdout_mutex;

StdioTask::StdioTask(const std::string& request) : Task(request) {}

bool Task::Answer(const char* kind, const std::function<void(const std::string&)>& write) {
    log.Put(std::string(kind) + "::Execute", 8);
    if (m_terminate) return false;
    const int result = m_message->Execute();
    const std::string response = m_message->GetResponse();
    if (!response.empty()) write(response);
    if (result == XML_SHUTDOWN) {
        log.Put(std::string(kind) + "::XML_SHUTDOWN", 8);
        m_terminate = true;
    }
    return true;
}

void StdioTask::Execute() {
    Answer("StdioTask", [](const std::string& response) {
        AutoLock lock(stdout_mutex);
        std::fwrite(response.data(), 1, response.size(), stdout);
        std::fwrite("\n*\n", 1, 3, stdout);
        std::fflush(stdout);
    });
}

SocketTask::SocketTask(const std::string& request, int socket) : Task(request), m_socket(socket) {}

void SocketTask::Execute() {
    const bool answered = Answer("SocketTask", [this](const std::string& response) {
        // The terminating null character goes on the wire: it marks the end of the response.
        send(m_socket, response.c_str(), response.size() + 1, 0);
    });
    if (!answered) return;  // a stop token leaves the socket alone
    log.Put("SocketTask::closesocket", 8);
    close(m_socket);
}

TaskQueue::TaskQueue(int capacity) : TaskQueue(capacity, static_cast<int>(getpid())) {}

TaskQueue::TaskQueue(int capacity, int nameId)
    : m_count(SemaphoreName(nameId).c_str(), 0), m_capacity(capacity), m_uncounted(0) {
    AutoLock lock(m_lock);
    if (m_count.Id() == -1) log.Put("TaskQueue::SEM_FAILED", 8);
    // A process that ended earlier under the same id may have left a count behind.
    while (m_count.TryWait()) log.Put("TaskQueue::SEM_SIGNALED", 8);
    log.Put("TaskQueue::SEM_COMPLETE", 8);
}

// Tasks still waiting are released with the queue.
TaskQueue::~TaskQueue() = default;

void TaskQueue::Push(std::unique_ptr<Task> task) {
    log.Put("TaskQueue::Push", 8);
    {
        AutoLock lock(m_lock);
        if (static_cast<int>(m_queue.size()) >= m_capacity) return;  // dropped: task destroyed
        m_queue.push_back(std::move(task));
    }
    m_count.Post();
}

std::unique_ptr<Task> TaskQueue::Pop() {
    for (;;) {
        const bool counted = m_count.TimedWait(kWakeCheckMs) == 0;
        std::unique_ptr<Task> task;
        bool stray = false;
        {
            AutoLock lock(m_lock);
            if (!m_queue.empty()) {
                task = std::move(m_queue.front());
                m_queue.pop_front();
                // Its count is still on its way, or another process took it.
                if (!counted) ++m_uncounted;
            } else if (counted) {
                if (m_uncounted > 0) {
                    --m_uncounted;  // the late count of a task taken without one
                } else {
                    log.Put("TaskQueue::sem error", 8);
                    stray = true;
                }
            }
        }
        if (task) {
            log.Put("TaskQueue::Pop", 8);
            return task;
        }
        if (stray) {
            Sleep_ms(10);
            return nullptr;
        }
    }
}

int TaskQueue::Size() {
    AutoLock lock(m_lock);
    return static_cast<int>(m_queue.size());
}

}  // namespace Varnelo
