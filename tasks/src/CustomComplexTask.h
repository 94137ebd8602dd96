#pragma once

#include <zel/tasks/ComplexTask.h>
#include <zel/tasks/zel_tasks_export.h>

namespace zel {

/**
 * A complex task whose whole work is to start subtasks and to wait for all of them.
 *
 * Implement doExecSubtasks() with the operations of ComplexTask. The task ends, with the error of its group, when every
 * subtask has ended, or one has failed under FailFast; at once when doExecSubtasks() returns an error, while subtasks
 * that it started go on, or when it lists no subtask and none is pending from before.
 */
class ZEL_TASKS_EXPORT CustomComplexTask : public ComplexTask {
    Q_OBJECT
public:
    /// An idle Asynchronous task with a group of its own.
    ///@{
    explicit CustomComplexTask(const QString &name, QObject *parent = nullptr);
    explicit CustomComplexTask(QObject *parent = nullptr);
    ///@}
    ~CustomComplexTask() override;

protected:
    /// doExecSubtasks(); then ends the task if no subtask was listed, none is pending and the group has not ended.
    Error doExec() override;
    /// WaitAll.
    GroupTask::WaitMode waitMode() const override;
    /// Starts the subtasks. An error returned here ends the task.
    virtual Error doExecSubtasks() = 0;
    /// Gives \a subtask this task's priority, now and whenever it changes.
    void setSubtaskPriority(Task *subtask);
};

} // namespace zel
