#pragma once

#include <QList>
#include <QSet>

#include <memory>

namespace zel {

class Task;
class TasksQueue;
class TasksQueueLock;

/// Keeps queues from starting anything while it lives. What they owe then is posted to their threads.
class TasksQueueHold {
public:
    explicit TasksQueueHold(const QSet<TasksQueue *> &queues);
    ~TasksQueueHold();
    Q_DISABLE_COPY_MOVE(TasksQueueHold)

    /// Takes \a task out of the queue that holds it, if there is one.
    static void removeFromQueue(Task *task);
    /// Whether a queue holds \a task, pending or running.
    static bool isInQueue(const Task *task);

private:
    QList<std::shared_ptr<TasksQueueLock>> m_locks;
};

} // namespace zel
