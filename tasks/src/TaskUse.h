#pragma once

#include <QtGlobal>

namespace zel {

class Task;

/**
 * While it lives, a queue is at work with a task on this thread: it starts it, or handles its end. A task that is
 * destroyed on another thread waits for that.
 *
 * Made while the task cannot be destroyed yet: with the lock of the queue that holds it.
 */
class TaskUse {
public:
    explicit TaskUse(const Task *task);
    ~TaskUse();
    Q_DISABLE_COPY_MOVE(TaskUse)

    /// Returns when no other thread uses \a task; at once on a thread that holds the lock of a queue, which the other
    /// one may need to get done.
    static void waitForOthers(const Task *task);
    /// Counts the locks of queues that the calling thread holds.
    static void addHeldLocks(int count);

private:
    const Task *const m_task;
};

} // namespace zel
