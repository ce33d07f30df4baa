#include "thread.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

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

namespace {

// An anonymous private mapping, unmapped on every path.
class Mapping {
  public:
    explicit Mapping(std::size_t bytes)
        : m_bytes(bytes),
          m_base(mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0)) {}
    ~Mapping() {
        if (Valid()) munmap(m_base, m_bytes);
    }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    bool Valid() const { return m_base != MAP_FAILED; }
    char* Base() const { return static_cast<char*>(m_base); }

  private:
    std::size_t m_bytes;
    void* m_base;
};

class ThreadAttributes {
  public:
    ThreadAttributes() { pthread_attr_init(&m_attributes); }
    ~ThreadAttributes() { pthread_attr_destroy(&m_attributes); }
    ThreadAttributes(const ThreadAttributes&) = delete;
    ThreadAttributes& operator=(const ThreadAttributes&) = delete;

    pthread_attr_t* Get() { return &m_attributes; }

  private:
    pthread_attr_t m_attributes;
};

struct StackCall {
    const std::function<void()>* body;
    std::exception_ptr failure;
};

void* RunStackCall(void* argument) {
    StackCall* call = static_cast<StackCall*>(argument);
    try {
        (*call->body)();
    } catch (...) {
        call->failure = std::current_exception();
    }
    return nullptr;
}

}  // namespace

bool RunWithStack(std::size_t stackBytes, const std::function<void()>& body) {
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t usable = (stackBytes + page - 1) / page * page;
    Mapping stack(usable + page);
    if (!stack.Valid() || mprotect(stack.Base(), page, PROT_NONE) != 0) return false;
    ThreadAttributes attributes;
    if (pthread_attr_setstack(attributes.Get(), stack.Base() + page, usable) != 0) return false;
    StackCall call{&body, nullptr};
    pthread_t thread;
    if (pthread_create(&thread, attributes.Get(), RunStackCall, &call) != 0) return false;
    pthread_join(thread, nullptr);
    if (call.failure) std::rethrow_exception(call.failure);
    return true;
}

}  // namespace Varnelo
