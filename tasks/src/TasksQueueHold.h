#pragma once

#include <QtGlobal>

#include <memory>
#include <set>
#include <vector>

namespace zel {

class Task;
class TasksQueueShare;
struct GroupNode;

/// Keeps queues from starting anything while tasks of theirs are being stopped. What they owe when it ends is made in
/// the calling thread, as soon as this holds no lock of a group, and posted to their threads besides.
class TasksQueueHold {
public:
    TasksQueueHold() = default;
    ~TasksQueueHold();
    Q_DISABLE_COPY_MOVE(TasksQueueHold)

    /// The queue that holds \a task, pending or running, if there is one.
    void add(const Task *task);
    /// A group whose children's queues were added. Returns false when this thread holds them already.
    bool addGroup(const std::shared_ptr<GroupNode> &node);
    void release();

    /// Takes \a task out of the queue that holds it, if there is one.
    static void removeFromQueue(Task *task);

private:
    std::set<std::shared_ptr<TasksQueueShare>> m_queues;
    std::vector<std::shared_ptr<GroupNode>> m_groups;
};

} // namespace zel
