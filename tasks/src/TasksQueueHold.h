#pragma once

#include <QtGlobal>

#include <memory>
#include <set>

namespace zel {

class Task;
class TasksQueueLock;

/// The locks of queues. Their order means nothing.
using TasksQueueLocks = std::set<std::shared_ptr<TasksQueueLock>>;

/// Keeps queues from starting anything while it lives. It is made without a lock, and
/// goes with the locks of the queues.
class TasksQueueHold {
public:
    explicit TasksQueueHold(TasksQueueLocks locks);
    ~TasksQueueHold();
    Q_DISABLE_COPY_MOVE(TasksQueueHold)

    /// The lock of the queue that holds \a task, pending or running; null when there is none.
    static std::shared_ptr<TasksQueueLock> lockOf(const Task *task);
    /// Takes \a task out of the queue that holds it, if there is one.
    static void removeFromQueue(Task *task);

private:
    const TasksQueueLocks m_locks;
};

} // namespace zel
