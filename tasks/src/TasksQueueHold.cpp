#include "TasksQueueHold.h"

#include "Task_p.h"
#include "TasksQueue_p.h"

#include <utility>

namespace zel {

TasksQueueHold::TasksQueueHold(TasksQueueLocks locks) : m_locks(std::move(locks))
{
    for (const auto &lock : m_locks)
        ++lock->holds;
}

// What the queues owe is posted to their threads.
TasksQueueHold::~TasksQueueHold()
{
    for (const auto &lock : m_locks) {
        const TasksQueueLocker locker(lock);
        if (--lock->holds == 0 && lock->isDispatchHeld.exchange(false))
            lock->postDispatch();
    }
}

std::shared_ptr<TasksQueueLock> TasksQueueHold::lockOf(const Task *task)
{
    return task->d->queueLock();
}

void TasksQueueHold::removeFromQueue(Task *task)
{
    const auto lock = lockOf(task);
    if (!lock)
        return;
    const TasksQueueLocker locker(lock);
    if (lock->queue)
        lock->queue->removeTask(task);
}

} // namespace zel
