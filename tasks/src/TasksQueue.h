#pragma once

#include <zel/common/Error.h>
#include <zel/tasks/Task.h>
#include <zel/tasks/zel_tasks_export.h>

#include <QList>
#include <QObject>
#include <QString>

#include <memory>

namespace zel {

/**
 * Keeps pending tasks by priority and starts them while fewer than a limit are running.
 *
 * Smaller priority numbers go first; within one priority, first in, first out. A pending task that is not idle when
 * its turn comes, because it was paused or started elsewhere, is passed over and keeps its place until it is idle
 * again. A task is in at most one queue: a queue that takes it takes it away from another that holds it. Limits are
 * about runs: one that ends, or is set idle, gives its slot back, also when its work goes on.
 *
 * Ownership: owns no task; hands finished ones to deleteLater() only in the mode DeleteFinished.
 * Threads:   operations may be called from any thread. With the default connection type the queue reacts to its tasks
 *            in the thread that constructed it, also when it was moved to another one. Task::exec() is called in the
 *            thread that dispatches.
 * Lock:      guards data only: it is held for no signal, no work and no virtual function.
 * Handlers:  may do anything to tasks and queue, deleting them included.
 * Errors:    none returned; a refused task is a warning in "zel.tasks". Null tasks are ignored.
 */
class ZEL_TASKS_EXPORT TasksQueue : public QObject {
    Q_OBJECT
public:
    /// What the queue is doing.
    enum State : int {
        Idle = 0,    ///< nothing is being dispatched
        Working = 1, ///< pending tasks are started
        Paused = 2,  ///< nothing is started, running tasks go on
    };

    /// Where a task is put among the pending ones.
    enum EnqueueMode : int {
        Append = 0,  ///< behind the tasks of the same priority; also any other value
        Prepend = 1, ///< before the tasks of the same priority
    };

    /// What becomes of tasks that clear() takes out.
    enum ClearPolicy : int {
        Remove = 0, ///< nothing; also any other value
        Finish = 1, ///< they are finished with the given error
        Cancel = 2, ///< they are canceled
    };

    /// What becomes of tasks that have finished.
    enum CleanupMode : int {
        DeleteFinished = 0, ///< a finished task is handed to deleteLater()
        KeepFinished = 1,   ///< finished tasks are left alone (default)
    };

    /// What a failed task does to the queue.
    enum TaskErrorPolicy : int {
        ContinueOnError = 0, ///< a failed task is treated like any finished one (default)
        ClearOnError = 1,    ///< a failed task empties the queue, as clear(Remove) does
    };

    /// An idle queue without tasks.
    explicit TasksQueue(QObject *parent = nullptr);
    /**
     * Lets go of all tasks; they are neither finished nor deleted, running ones go on.
     *
     * On any thread, when nobody else calls the queue directly any more; its tasks may start, end and be destroyed
     * meanwhile. Waits for other threads that choose, react or announce for the queue, not for work that it has
     * started: a subclass whose exec() uses its own members after the work stops that work first.
     */
    ~TasksQueue() override;

    /// The name that log lines show.
    ///@{
    QString name() const;
    void setName(const QString &name);
    ///@}

    /// The present state. Tasks that do not count as running let the queue be Idle.
    State state() const;

    /// Largest priority number that is accepted; the smallest is 0. Default: 10. Pending tasks are not touched.
    ///@{
    int maxPriority() const;
    void setMaxPriority(int priority);
    ///@}

    /// Largest number of counted tasks run at once; 0 or less starts nothing. Default: ideal thread count, at least 1.
    int maxRunningTasksCount() const;
    /// Dispatches nothing by itself: call tryExec() after raising the limit.
    void setMaxRunningTasksCount(int count);

    /// Where the queue reacts to ends and changed priorities of its tasks, which tell it behind the handlers of
    /// finished() and priorityChanged(). Default: Qt::QueuedConnection.
    Qt::ConnectionType connectionType() const;
    /// For tasks that enter afterwards. With Qt::DirectConnection the queue reacts in the thread that ends a task.
    void setConnectionType(Qt::ConnectionType type);

    /// What becomes of tasks that have finished. Default: KeepFinished.
    CleanupMode cleanupMode() const;
    /// For ends of tasks that the queue handles afterwards.
    void setCleanupMode(CleanupMode mode);

    /// What a failed task does to the queue. Default: ContinueOnError.
    TaskErrorPolicy taskErrorPolicy() const;
    /// For ends of tasks that the queue handles afterwards.
    void setTaskErrorPolicy(TaskErrorPolicy policy);

    /// Takes an idle task in, behind those of its priority, and dispatches. Null and tasks that are not idle: ignored.
    void append(Task *task);
    /// Takes the idle ones of \a tasks in, in list order, and dispatches once.
    void append(const QList<Task *> &tasks);
    /// Takes an idle task in, before those of its priority, and dispatches.
    void prepend(Task *task);
    /// append().
    void operator<<(Task *task);
    /// Moves a pending task to the end of its present priority. Called when a priority changes. A task that is not idle
    /// any more, or whose priority is refused, leaves the queue.
    void readdTask(Task *task);

    /**
     * Takes one task out and dispatches. The task itself is not touched; its queue() becomes null unless it was
     * pending.
     */
    virtual void removeTask(Task *task);

    /// Whether nothing is pending.
    virtual bool isEmpty() const;
    /// Tasks that wait to be started.
    virtual int pendingTasksCount() const;
    /// Tasks that this queue has started and that count, see Task::countAsRunning().
    int runningTasksCount() const;
    /// Whether runningTasksCount() is more than 0.
    bool hasRunningTasks() const;
    /// Running tasks that count, and pending ones.
    int count() const;

    /**
     * Takes all tasks out, then does to each, pending ones first, in the order in which they would have been started,
     * what \a policy says, \a error being that of Finish. Tasks that are Finalizing or Finished are left as they are.
     * Tasks that handlers add while pending ones are treated are dropped as well.
     *
     * One step for other threads: all tasks are taken out at once, and what other threads append meanwhile stays. The
     * tasks are ended one after another, without a lock, in the calling thread; one that a handler removes before its
     * turn is spared. The queue never deletes cleared tasks.
     */
    virtual void clear(ClearPolicy policy = Remove, const Error &error = Error());

public Q_SLOTS:
    /// Starts nothing more; running tasks go on.
    void pause();
    /// Enters Working and dispatches, whatever the state was; with nothing to do, the queue becomes Idle again.
    void resume();
    /// Starts what may be started, before it returns. Called by the queue when tasks come and go, not when a limit or a
    /// count changes.
    void tryExec();

Q_SIGNALS:
    /// After every change of state(), in the order of the changes: on the thread that made it, or on one that is
    /// announcing an earlier one at the time.
    void stateChanged(State state);

protected:
    /// Starts \a task, which already counts as running. The default calls Task::exec() unless it has finished.
    virtual void exec(Task *task);
    /// Puts a task among the pending ones, or refuses it. Takes the lock.
    virtual void enqueueTask(Task *task, EnqueueMode mode);
    /// Takes the next idle task out of the pending ones; null when there is none, and when a dispatch calls it and the
    /// slots were taken meanwhile. Takes the lock.
    virtual Task *dequeueTask();
    /// Takes \a task from another queue that holds it, makes this one its queue() and calls enqueueTask(). Does not
    /// dispatch.
    virtual void addTask(Task *task, EnqueueMode mode);
    /// Reacts to the end of a task; null when the task is gone already. Called without the lock. Lets go of the task,
    /// and hands it to deleteLater() if it is to, before it dispatches: read nothing of the task afterwards.
    virtual void onTaskFinished(Task *task);
    /// Forgets a task that is being destroyed, of whatever kind, on the thread that destroys it.
    virtual void onTaskDestroyed(Task *task);

    /// Emits stateChanged() when the state is another one. Does not dispatch.
    void setState(State state);
    /**
     * Has the queue react to the end of \a task and to changes of its priority, by the connection type, and to its
     * destruction, at once. Replaces what was said before; nothing happens to a task that another queue holds. Takes the
     * lock.
     */
    void connectTask(Task *task);
    /// Ends what connectTask() began. The queue still lists the task.
    void disconnectTask(Task *task);
    /// Disconnects \a task, takes it out if it is running, and dispatches. Its queue() stays.
    void removeRunningTask(Task *task);
    /// Disconnects \a task, which clear() has taken out, and does to it what \a policy says. Called without the lock.
    void clearTask(Task *task, ClearPolicy policy, const Error &error);

private:
    friend class Task;
    friend class TasksQueueHold;
    friend class TasksQueueShare;
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace zel
