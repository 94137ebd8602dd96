#include "TasksQueueHold.h"

#include "Task_p.h"
#include "TasksQueue_p.h"

#include <utility>

namespace zel {

TasksQueueHold::TasksQueueHold(const QSet<TasksQueue *> &queues)
{
    for (const TasksQueue *queue : queues) {
        const TasksQueueLocker locker(queue->d->lock);
        ++queue->d->lock->holds;
        m_locks.append(queue->d->lock);
    }
}

TasksQueueHold::~TasksQueueHold()
{
    for (const auto &lock : std::as_const(m_locks)) {
        const TasksQueueLocker locker(lock);
        if (--lock->holds == 0 && std::exchange(lock->isDispatchHeld, false))
            lock->postDispatch();
    }
}

void TasksQueueHold::removeFromQueue(Task *task)
{
    const auto lock = task->d->queueLock();
    if (!lock)
        return;
    const TasksQueueLocker locker(lock);
    if (lock->queue)
        lock->queue->removeTask(task);
}

bool TasksQueueHold::isInQueue(const Task *task)
{
    return task->d->queueLock() != nullptr;
}

} // namespace zel
