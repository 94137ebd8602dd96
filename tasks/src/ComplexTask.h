#pragma once

#include <zel/tasks/GroupTask.h>
#include <zel/tasks/Task.h>
#include <zel/tasks/zel_tasks_export.h>

#include <QList>
#include <QString>

#include <functional>
#include <memory>

namespace zel {

/**
 * A task whose work starts other tasks, its subtasks, and whose group watches them.
 *
 * Its own work is that of a Task; it ends when that ends, or earlier when the group does, because a subtask failed
 * under FailFast or the task was canceled. The error is that of whichever came first: a subtask that fails after the
 * work has ended only shows in the group. CustomComplexTask is the one that waits for its subtasks.
 *
 * Subtasks are started here, or through the queue that took this task; complex subtasks always start at once. A
 * complex task does not count towards the limit of its queue.
 *
 * Ownership: owns its group. Subtasks belong to the group as its clean-up policy says.
 * Threads:   as Task; cancel() and exec() from any thread. What lists or starts subtasks, and the group, in the task's
 *            thread or where its work runs at the moment.
 */
class ZEL_TASKS_EXPORT ComplexTask : public Task {
    Q_OBJECT
public:
    /// An idle Synchronous task with a group of its own.
    ///@{
    explicit ComplexTask(const QString &name, QObject *parent = nullptr);
    explicit ComplexTask(QObject *parent = nullptr);
    ///@}
    ~ComplexTask() override;

    /// Sets the task's name, and the group's to the same with ":GroupTask" behind.
    void setName(const QString &name) override;
    /// As Task::exec(). After a run, also when it was set idle since, and when the group has ended, the task begins
    /// with its group made fresh: idle, without errors, not canceled. One that was set since and has not ended is taken
    /// as it is.
    void exec() override;
    /// Cancels the group, and with it the unfinished subtasks, then the task itself. May be called from any thread.
    void cancel() override;

protected:
    /// The group that lists the subtasks, owned by this task. Null after others deleted it, until it is needed again.
    GroupTask *groupTask() const;
    /**
     * Replaces the group: deletes the old one and takes ownership of \a group. Null and the present group: ignored.
     *
     * The new one is told to cancel its children when it stops them. One that has ended ends the run that is under
     * way. A group that contains this task is refused with a warning in "zel.tasks".
     */
    void setGroupTask(GroupTask *group);

    /// Lists \a task in the group without starting it; one of the callbacks runs, in this task's thread, when it ends.
    /// They go with this task. Null: ignored.
    void appendSubtask(Task *task, std::function<void()> onSuccess = {}, std::function<void()> onFailure = {});
    /// execSubtasks() with one task.
    void execSubtask(Task *task);
    /// execSubtasks() with one task, with the callbacks of appendSubtask().
    void execSubtask(Task *task, std::function<void()> onSuccess, std::function<void()> onFailure = {});
    /**
     * Lists \a tasks in the group and starts those that it admitted, through the queue if there is one.
     *
     * Nothing is listed or started when this task has finished, and no subtask that was stopped meanwhile is started.
     * One whose priority the queue refuses ends with GeneralError.
     */
    virtual void execSubtasks(const QList<Task *> &tasks);
    /// What the group waits for in a run. NoWait.
    virtual GroupTask::WaitMode waitMode() const;

private:
    friend class CustomComplexTask;
    friend class GroupTask;
    friend class Task;
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace zel
