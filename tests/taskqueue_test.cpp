#include "taskqueue.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "fsutils.h"
#include "support/temp_dir.h"

namespace Varnelo {
namespace {

// A task that records its number when run and its destruction.
class ProbeTask : public Task {
  public:
    ProbeTask(int number, int* ran, bool* destroyed = nullptr)
        : Task("<probe/>"), m_number(number), m_ran(ran), m_destroyed(destroyed) {}
    ~ProbeTask() override {
        if (m_destroyed != nullptr) *m_destroyed = true;
    }
    void Execute() override { *m_ran = m_number; }

  private:
    int m_number;
    int* m_ran;
    bool* m_destroyed;
};

std::string QueueSemaphoreName() { return "jprocsem_" + ToString(getpid()); }

TEST(TaskQueueTest, FirstInFirstOutUpToCapacityThenDropsSilently) {
    TaskQueue queue(4096);
    int ran = -1;
    for (int i = 0; i < 4096; ++i) queue.Push(std::make_unique<ProbeTask>(i, &ran));
    bool destroyed = false;
    queue.Push(std::make_unique<ProbeTask>(4096, &ran, &destroyed));
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(queue.Size(), 4096);
    for (int i = 0; i < 4096; ++i) {
        std::unique_ptr<Task> task = queue.Pop();
        ASSERT_NE(task, nullptr);
        task->Execute();
        ASSERT_EQ(ran, i);
    }
    Semaphore count(QueueSemaphoreName().c_str(), 0);
    EXPECT_FALSE(count.TryWait()) << "the dropped task must not have been counted";
}

TEST(TaskQueueTest, DrainsACountLeftUnderItsNameAndSurvivesAStrayOne) {
    LogCapture capture(9);
    Semaphore leftover(QueueSemaphoreName().c_str(), 0);
    for (int i = 0; i < 3; ++i) leftover.Post();
    TaskQueue queue(8);
    EXPECT_EQ(capture.Count("TaskQueue::SEM_SIGNALED"), 3);
    EXPECT_EQ(capture.Count("TaskQueue::SEM_COMPLETE"), 1);

    leftover.Post();  // a count with no task behind it
    EXPECT_EQ(queue.Pop(), nullptr);
    EXPECT_EQ(capture.Count("TaskQueue::sem error"), 1);
}

}  // namespace
}  // namespace Varnelo
