#pragma once

// A thread that a conversion or a request starts for part of its own work, joined when the
// owner goes (or at Join), whatever path the owner leaves by. Declare it after everything the
// thread uses, so that it is joined before those go.
//
// Threads: Start and Join are called by the owner's thread.

#include <system_error>
#include <thread>
#include <utility>

namespace Varnelo {

class HelperThread {
  public:
    HelperThread() = default;
    ~HelperThread() { Join(); }
    HelperThread(const HelperThread&) = delete;
    HelperThread& operator=(const HelperThread&) = delete;

    // Runs `body` on a new thread; false, without running it, when the system has no thread to
    // give.
    template <typename Body>
    bool Start(Body&& body) {
        try {
            m_thread = std::thread(std::forward<Body>(body));
            return true;
        } catch (const std::system_error&) {
            return false;
        }
    }
    void Join() {
        if (m_thread.joinable()) m_thread.join();
    }

  private:
    std::thread m_thread;
};

}  // namespace Varnelo
