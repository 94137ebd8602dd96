#pragma once

#include <QtGlobal>

namespace zel {

class BaseTask;

/**
 * While it lives, this thread is at work with a task: a queue starts it or handles its end, or it is being finished
 * away from its own thread. A task that is destroyed on another thread waits for that.
 *
 * Made while the task cannot be destroyed yet: by a queue with the lock that it holds the task under.
 */
class TaskUse {
public:
    explicit TaskUse(const BaseTask *task);
    ~TaskUse();
    Q_DISABLE_COPY_MOVE(TaskUse)

    /// Returns when no other thread uses \a task; at once on a thread that holds the lock of a queue, which the other
    /// one may need to get done.
    static void waitForOthers(const BaseTask *task);
    /// Counts the locks of queues that the calling thread holds.
    static void addHeldLocks(int count);

private:
    const BaseTask *const m_task;
};

} // namespace zel
