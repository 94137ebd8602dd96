#include "TasksQueueHold.h"

#include "GroupChild.h"
#include "Task_p.h"
#include "TasksQueueShare.h"

#include <zel/tasks/TasksQueue.h>

#include <QThread>

#include <utility>

namespace zel {

TasksQueueHold::~TasksQueueHold()
{
    // Ended by an exception: what is owed is posted.
    for (const auto &queue : m_queues)
        static_cast<void>(queue->release());
    for (const auto &group : m_groups)
        group->holder = nullptr;
}

void TasksQueueHold::add(const Task *task)
{
    const auto share = task->d->queueShare();
    if (share && m_queues.insert(share).second)
        share->hold();
}

bool TasksQueueHold::addGroup(const std::shared_ptr<GroupNode> &node)
{
    Qt::HANDLE holder = nullptr;
    if (node->holder.compare_exchange_strong(holder, QThread::currentThreadId()))
        m_groups.push_back(node);
    return holder != QThread::currentThreadId();
}

void TasksQueueHold::release()
{
    for (const auto &group : std::exchange(m_groups, {}))
        group->holder = nullptr;
    for (const auto &queue : std::exchange(m_queues, {})) {
        if (queue->release())
            TasksQueueShare::dispatch(queue);
    }
}

void TasksQueueHold::removeFromQueue(Task *task)
{
    const auto share = task->d->queueShare();
    if (!share)
        return;
    const TasksQueueVisit visit(share);
    if (TasksQueue *queue = visit.queue())
        queue->removeTask(task);
}

} // namespace zel
