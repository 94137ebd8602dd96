#pragma once

#include <zel/tasks/BaseTask.h>
#include <zel/tasks/zel_tasks_export.h>

#include <QCoro/QCoroTask>

#include <QFlags>
#include <QList>

#include <memory>

namespace zel {

class Task;

/**
 * A task made of other tasks, its children: it watches them and ends when they have ended.
 *
 * The group starts no child; whoever made them does, directly, through a queue or through a ComplexTask. It gets
 * Running when the first child emits started(), sums the children's progress, and finishes by its wait mode or its
 * failure policy with an error that stands for all of theirs.
 *
 * Sharp edges: an empty group does not finish by itself, nor does one whose last pending child is destroyed before it
 * finished. A child that was running when it was appended does not make the group Running. One that is set idle while
 * it runs counts as done, without an error.
 *
 * Ownership: children are deleted, with deleteLater(), as the clean-up policy says and never otherwise; the group is
 *            not their QObject parent. A child may be destroyed by others wherever a task may be, see ~BaseTask().
 * Threads:   append(), cancel() and the getters from any thread; policies and what sets the state as in BaseTask.
 *            Children may live in other threads; with the default connection type the group follows them in its own.
 *            Stopping a child calls it in the thread that stops the group.
 * Lock:      recursive; held while the group follows or stops its children and emits signals: do not wait in their
 *            handlers for a thread that uses the group. The lock of a group is taken before those of the groups in it,
 *            and before any queue's.
 * Handlers:  of the group's and the children's signals may append, cancel, change policies, delete the group or a child
 *            that no other thread is at work with; otherwise deleteLater().
 */
class ZEL_TASKS_EXPORT GroupTask : public BaseTask {
    Q_OBJECT
public:
    /// What the group waits for.
    enum WaitMode : int {
        NoWait = 0,  ///< ends by cancel(), finish() or a failing child under FailFast only
        WaitAll = 1, ///< ends when no listed child is pending (default); also any other value
    };

    /// When the group deletes its children.
    enum CleanupPolicy : int {
        DeleteWithGroup = 0,    ///< all, when the wait mode ends the group, or the group is canceled or destroyed;
                                ///< they stay listed until then
        DeleteWhenFinished = 1, ///< each child is unlisted and deleted when its end was handled (default)
        SelfDelete = 2,         ///< the group deletes none; tasks that it makes of coroutines delete themselves
    };

    /// How a child is stopped; any other value leaves it alone.
    enum CancelSubtasksMode : int {
        CancelSubtasks = 0, ///< it is canceled
        FinishSubtasks = 1, ///< it is set finished quietly: no error, no finished() (default)
    };

    /// What a failing child does to the group; any other value ignores its error.
    enum ChildFailurePolicy : int {
        FailFast = 0,            ///< ends the group with its error and stops the others (default)
        ContinueOnFailure = 1,   ///< its error is collected
        CancelIdleOnFailure = 2, ///< its error is collected, and the children that have not started are stopped
    };

    /// What subtasks() returns; flags that may be combined.
    enum class GetSubtasksMode : int {
        Recursive = 1,  ///< the members of child groups too, right after their group
        Executable = 2, ///< only children that are a Task
    };
    using enum GetSubtasksMode;
    Q_DECLARE_FLAGS(GetSubtasksModes, GetSubtasksMode)
    Q_FLAG(GetSubtasksMode)

    /// An idle group without children.
    explicit GroupTask(QObject *parent = nullptr);
    ~GroupTask() override;

    /**
     * Lists \a task as the last child, and emits taskAppended().
     *
     * A group that was or is being canceled cancels the task instead, one that has finished or is finishing finishes
     * it with GeneralError. A task that has finished already is handled as finished later, by the connection type. A
     * listed task keeps its place; one that was set idle after its end is waited for again. Null: ignored. The group
     * itself, and groups and complex tasks that contain it: refused with a warning in "zel.tasks". May be called from
     * any thread.
     */
    void append(BaseTask *task);
    /// append() for each, in list order. May be called from any thread.
    void append(const QList<BaseTask *> &tasks);
    /// Makes a Task of a coroutine that is under way and appends it; the group owns it as the clean-up policy says. It
    /// deletes itself at its end when the group was destroyed before.
    void append(QCoro::Task<Error> coroutine);

    /// The children in order; null where a listed child was destroyed (not with Executable).
    QList<BaseTask *> subtasks(GetSubtasksModes mode = {}) const;
    /// subtasks() with Executable, and with Recursive if \a recursive.
    QList<Task *> executableSubtasks(bool recursive = false) const;
    /// Listed children that exist and are not Finished. Walks the list.
    int pendingChildrenCount() const;
    /// Whether no child is listed.
    bool isEmpty() const;

    /// What the group waits for. Default: WaitAll.
    WaitMode waitMode() const;
    /// Finishes a running group at once when the new mode is satisfied. Hides BaseTask::setWaitMode().
    void setWaitMode(WaitMode mode);
    /// When the group deletes its children. Default: DeleteWhenFinished.
    CleanupPolicy cleanupPolicy() const;
    /// But for SelfDelete, takes deletion over from children that were to delete themselves.
    void setCleanupPolicy(CleanupPolicy policy);
    /// How children are stopped, by cancel() and by the failure policy. Default: FinishSubtasks.
    ///@{
    CancelSubtasksMode cancelSubtasksMode() const;
    void setCancelSubtasksMode(CancelSubtasksMode mode);
    ///@}
    /// For ends of children that are handled afterwards. Default: FailFast.
    void setChildFailurePolicy(ChildFailurePolicy policy);
    /// Where the group reacts to children that are appended now, which tell it behind the handlers of started(),
    /// finished() and progress().
    Qt::ConnectionType connectionType() const;
    /// For children that are appended afterwards. Default: Qt::QueuedConnection.
    void setConnectionType(Qt::ConnectionType type);

public Q_SLOTS:
    /**
     * Stops the unfinished children, one after another, then ends the group with the error Canceled, or with the
     * collected ones. May be called from any thread. The queues of the children start nothing while these are stopped.
     */
    void cancel() override;

Q_SIGNALS:
    /// A task was listed. Emitted inside append(), before the task tells the group anything.
    void taskAppended(BaseTask *task);

protected:
    /// unifiedError(), unless the base fails.
    Error doFinish() override;
    /// What the group ends with: stands for the errors that were collected.
    virtual Error unifiedError() const;
    /// One error that stands for all of \a errors, see UnifiedError; no error for an empty list.
    Error unifiedError(const QList<Error> &errors) const;
    /// Hands \a task to the group's queue, or runs it here when there is none. Does not append it. Null: ignored.
    void execTask(Task *task);

private:
    friend class ComplexTask;
    friend class CustomComplexTask;
    friend struct GroupChild;
    class Private;
    std::unique_ptr<Private> d;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(GroupTask::GetSubtasksModes)

} // namespace zel
