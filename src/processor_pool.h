#pragma once

// The processors of the process, shared out among the conversions running in it.
//
// Which processor count means what:
// - GetNumOfCores() (thread.h) is the processors online. The service's worker pool has one
//   thread more than that, so that a response can be written while every processor converts;
//   the log's "Num of physical cores=" line shows it.
// - UsableProcessors() is the processors this process may run on: its affinity mask, which a
//   container or taskset may narrow below the processors online. The ProcessorPool shares out
//   that many.
//
// Every conversion holds one of the pool's processors while it runs and waits for one while all
// are held, so the worker pool's spare thread never makes two conversions share a processor.
// Waiters are served in the order they came. A conversion may put an idle processor to work for
// itself (a second stage, another photo of its request) only while no conversion waits, and only
// by taking it (TryTakeOne), never by seeing it idle.
//
// Threads: any; every member is safe to call from several threads at once.

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace Varnelo {

int UsableProcessors();

class ProcessorPool {
  public:
    explicit ProcessorPool(int count);
    ProcessorPool(const ProcessorPool&) = delete;
    ProcessorPool& operator=(const ProcessorPool&) = delete;

    // The pool of UsableProcessors() that the conversions of the process share.
    static ProcessorPool& Shared();

    // Takes a processor, waiting behind every earlier waiter while none is idle.
    void TakeOne();
    // Takes a processor when one is idle and no one waits; false otherwise, at once.
    bool TryTakeOne();
    void GiveOne();
    // Whether a processor is idle and no one waits for one.
    bool Idle();

    // How many TakeOne calls had to wait, since the pool was made.
    std::uint64_t Waits();

  private:
    std::mutex m_mutex;
    std::condition_variable m_released;
    int m_idle;
    std::uint64_t m_nextTicket = 0;  // the number the next waiter draws
    std::uint64_t m_serving = 0;     // the waiter whose turn it is
    std::uint64_t m_waits = 0;
};

// One of the shared pool's processors, held by the calling thread while the holder lives. A
// thread that already holds one (a helper that took it for a conversion) holds no second: the
// inner holder is empty.
class HeldProcessor {
  public:
    HeldProcessor();
    ~HeldProcessor();
    HeldProcessor(const HeldProcessor&) = delete;
    HeldProcessor& operator=(const HeldProcessor&) = delete;

    // Marks the calling thread as holding the processor it took with TryTakeOne; the processor
    // goes back to the pool when the holder goes.
    struct Taken {};
    explicit HeldProcessor(Taken);

  private:
    bool m_holds = false;
};

}  // namespace Varnelo
