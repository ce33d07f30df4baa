#include "photo_scheduler.h"

#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "helper_thread.h"
#include "log.h"
#include "processor_pool.h"

namespace Varnelo {

namespace {

class Scheduler {
  public:
    Scheduler(std::size_t count, const std::vector<std::vector<std::size_t>>& waitFor,
              const std::function<void(std::size_t)>& convert)
        : m_waitFor(waitFor), m_convert(convert), m_slots(count) {}
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    // The worker's part: converts photos in order, starting helpers while processors are idle,
    // and writes the trace of each finished photo in order.
    void Run() {
        for (std::optional<std::size_t> photo; (photo = Claim());) {
            AwaitTurn(*photo);
            // The worker's photo waits for a processor like any conversion; then the request's
            // next photos take the idle ones before this one could stage.
            const HeldProcessor processor;
            StartHelpers();
            Convert(*photo);
            WriteFinished();
        }
        for (std::unique_ptr<HelperThread>& helper : m_helpers) helper->Join();
        WriteFinished();
        if (m_failed) std::rethrow_exception(m_slots[m_written].error);
    }

  private:
    struct Slot {
        bool done = false;
        std::string trace;
        std::exception_ptr error;
    };

    // The next photo nobody has taken, in request order; none once a photo has thrown.
    std::optional<std::size_t> Claim() {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopped || m_next == m_slots.size()) return std::nullopt;
        return m_next++;
    }
    bool Unclaimed() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return !m_stopped && m_next < m_slots.size();
    }
    bool Ready(std::size_t photo) {
        for (std::size_t earlier : m_waitFor[photo]) {
            if (!m_slots[earlier].done) return false;
        }
        return true;
    }
    void AwaitTurn(std::size_t photo) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return Ready(photo); });
    }
    bool IsReady(std::size_t photo) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return Ready(photo);
    }

    void Convert(std::size_t photo) {
        Slot& slot = m_slots[photo];
        std::exception_ptr error;
        std::string trace;
        {
            LogDivert divert;
            try {
                m_convert(photo);
            } catch (...) {
                error = std::current_exception();
            }
            trace = divert.Take();
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            slot.trace = std::move(trace);
            slot.error = error;
            slot.done = true;
            if (error) m_stopped = true;
        }
        m_changed.notify_all();
    }

    // Writes the trace of the finished photos that are next in order, up to one that threw.
    void WriteFinished() {
        for (;;) {
            std::string trace;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                if (m_failed || m_written == m_slots.size() || !m_slots[m_written].done) return;
                Slot& slot = m_slots[m_written];
                trace.swap(slot.trace);
                if (slot.error) {
                    m_failed = true;
                } else {
                    ++m_written;
                }
            }
            log.PutLines(trace);
        }
    }

    // Starts a helper on every processor it can take, while photos are left to start.
    void StartHelpers() {
        ProcessorPool& pool = ProcessorPool::Shared();
        while (Unclaimed() && pool.TryTakeOne()) {
            auto helper = std::make_unique<HelperThread>();
            if (!helper->Start([this] { Help(); })) {
                pool.GiveOne();
                return;
            }
            m_helpers.push_back(std::move(helper));
        }
    }

    // A helper's part: starts on the processor the worker took for it, and converts one photo
    // after another while it can take a processor again.
    void Help() {
        std::optional<HeldProcessor> processor(std::in_place, HeldProcessor::Taken{});
        for (std::optional<std::size_t> photo; (photo = Claim());) {
            if (!IsReady(*photo)) {
                processor.reset();
                AwaitTurn(*photo);
                processor.emplace();
            }
            Convert(*photo);
            processor.reset();
            if (!ProcessorPool::Shared().TryTakeOne()) return;
            processor.emplace(HeldProcessor::Taken{});
        }
    }

    const std::vector<std::vector<std::size_t>>& m_waitFor;
    const std::function<void(std::size_t)>& m_convert;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Slot> m_slots;
    std::size_t m_next = 0;                                // the next photo to claim
    std::size_t m_written = 0;                             // photos whose trace is written
    bool m_stopped = false;                                // a photo threw: no more are claimed
    bool m_failed = false;                                 // the worker met that photo in order
    std::vector<std::unique_ptr<HelperThread>> m_helpers;  // last: joined first
};

}  // namespace

void RunPhotos(std::size_t count, const std::vector<std::vector<std::size_t>>& waitFor,
               const std::function<void(std::size_t)>& convert) {
    if (count == 1) {
        convert(0);
        return;
    }
    Scheduler(count, waitFor, convert).Run();
}

}  // namespace Varnelo
