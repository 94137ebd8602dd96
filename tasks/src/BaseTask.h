#pragma once

#include <zel/common/ErrorCancelable.h>
#include <zel/tasks/ZelTaskWaitForFinishedOperation.h>
#include <zel/tasks/zel_tasks_export.h>

#include <QCoro/QCoroTask>

#include <QString>
#include <QVariant>

#include <chrono>
#include <memory>

namespace zel {

class ProgressBarOutputInterface;
class TasksQueue;

/**
 * A unit of work that others can watch: name, state, outcome, progress, and the ways to wait for its end.
 *
 * BaseTask runs nothing by itself. A subclass takes it through its states, Idle, Running, perhaps Paused, Finalizing
 * and Finished. finish() ends a run and sets the outcome once; only setFinished() and what bind() takes over go past
 * it. A finished task can be run again.
 *
 * Signals of a run that succeeds, in order: stateChanged(Running), started(), [restarted() when it had finished
 * before], errorChanged(), stateChanged(Finalizing), finalizing(), stateChanged(Finished), finished(). A run that is
 * canceled has canceled() before errorChanged().
 *
 * Ownership: nobody but the QObject parent owns a task, unless a queue, a group or setDeleteOnFinished() is told to
 * delete it.
 * Threads:   from any thread: all getters, the waits, cancel(), finish(), setProgress(), setProgressText() and
 *            setVariantResult(). The rest is called in the task's thread, or where its work runs at the moment. Signals
 *            come on the thread that calls the operation.
 * Handlers:  may do anything to the task, deleting it included, from any signal of any operation; the operation then
 *            stops there.
 */
class ZEL_TASKS_EXPORT BaseTask : public ErrorCancelable {
    Q_OBJECT
public:
    /// Where the task is in its run.
    enum State : int {
        Idle = 0,       ///< has not been started
        Running = 1,    ///< works
        Paused = 2,     ///< was paused, from whatever state
        Finalizing = 3, ///< has its outcome and cleans up
        Finished = 4,   ///< is done, error() tells the outcome
    };
    Q_ENUM(State)

    /// What a blocking wait lets through while it waits.
    enum WaitMode : int {
        ProcessAllEvents = 0, ///< all events (default)
        ExcludeUserInput = 1, ///< all but the user's input
    };

    /**
     * Waits for other threads that are at work with the task.
     *
     * In the task's thread at any time, but for handlers that run under the lock of a group: while another thread is
     * at work with the task a debug build aborts there, and a release build may wait for ever. On another thread when a
     * wait for the task has returned there, or nothing of it is under way in its own. Otherwise use deleteLater().
     */
    ~BaseTask() override;

    /// The name of the task; empty at first.
    QString name() const;
    /// Sets the name that log lines show. Emits nothing.
    virtual void setName(const QString &name);

    /// The present state.
    State state() const;
    /// The state before the last change.
    State previousState() const;
    /// The key of the present state, such as "Running"; empty for a value that is no key.
    QString stateString() const;
    /// Whether state() is the one of that name: a paused task is not running.
    ///@{
    bool isIdle() const;
    bool isRunning() const;
    bool isPaused() const;
    bool isFinalizing() const;
    bool isFinished() const;
    ///@}
    /// Finished without an error.
    bool isSuccessful() const;

    /// A result beside the error, for whoever knows the task. Invalid at first; a new run leaves it as it is. A copy.
    QVariant variantResult() const;
    /// Tasks that are bound to this one take the result over. No signal of the task tells of it.
    void setVariantResult(const QVariant &result);

    /// Whether the task deletes itself when it has finished. Default: false.
    bool deleteOnFinished() const;
    /**
     * Makes the task delete itself, with deleteLater() from its event loop, after finish().
     *
     * finish() looks at the setting before it enters Finalizing. The deletion looks again: it is dropped when the
     * setting was taken back, or the task set idle or running again, meanwhile.
     */
    void setDeleteOnFinished(bool deleteOnFinished);

    /**
     * The queue to which the task was handed last. Null when there is none, when it was destroyed, and when it has let
     * go of the task after its start, other than by TasksQueue::clear() or because the task was set idle.
     */
    TasksQueue *queue() const;
    /// Called by TasksQueue, and by ComplexTask for complex subtasks. Does not put the task into the queue. May be
    /// called from any thread.
    void setQueue(TasksQueue *queue);

    /**
     * Makes this task follow \a source: its state, error and variant result are taken over, its other signals
     * relayed. Progress figures, progress text and name are not stored here.
     *
     * Connections are automatic: a source in another thread is followed through the event loop. They end with either
     * task. Binding to null, to itself or in a circle is refused with a warning in "zel.tasks".
     */
    void bind(const BaseTask *source);

    /**
     * Shows the task's progress and progress text on \a output, and lets its cancel request cancel the task.
     *
     * The output is told nothing before the next change. Three new connections of the given type are made in each
     * call; they end with either object.
     */
    void connectTo(ProgressBarOutputInterface *output, Qt::ConnectionType type = Qt::AutoConnection);

    /// What the blocking waits let through. Default: ProcessAllEvents.
    void setWaitMode(WaitMode mode);
    /**
     * Completes with the task's error when the task has finished. Like every coroutine it must be awaited, or
     * followed with then(); see ZelTaskWaitForFinishedOperation for the thread in which the awaiting one goes on.
     */
    QCoro::Task<Error> co_waitForFinished() const;

public Q_SLOTS:
    /// Finishes the task with the error Canceled, unless it has finished. May be called from any thread, as finish().
    void cancel() override;
    /// Pauses, from any state but Paused. Does not stop work that is under way.
    virtual void pause();
    /// Takes a paused task back to the state that pause() left.
    virtual void resume();
    /// Enters Finalizing. Called by finish(); subclasses release here what the work needed and call this one.
    virtual void finalize();
    /**
     * Ends the run with \a err, or with the error that doFinish() returns. Ignored while the run is being finished
     * and after that: a call that comes second returns at once, on another thread perhaps before the first one is
     * through. May be called from any thread, by the work as well.
     *
     * Emits, in order: canceled() for a Canceled error, errorChanged(), stateChanged(Finalizing), finalizing(),
     * errorChanged() again when doFinish() failed, stateChanged(Finished), finished(). When a handler sets the
     * task idle or running again, the rest is left to its next run.
     */
    void finish(Err err = Err(NoError));
    /**
     * Enters Idle, so that a queue takes the task again; emits stateChanged() alone. Error, result and progress stay,
     * but a task that had finished does not count as canceled any more. Does not stop work that is under way; what it
     * returns is dropped, and work that has not begun is not called. The run is over: the queue that started it has
     * its slot back, and a group takes the task for done, without an error.
     */
    void setIdle();
    /// Enters Running; emits started() when the task was idle, started() and restarted() when it had finished.
    void setRunning();
    /// Enters Finished without finished() and without touching the error. Whoever waits for the task is woken.
    void setFinished();

    /// The figures of the last setProgress(); 0 at first. A new run leaves them as they are.
    ///@{
    int currentProgress() const;
    int totalProgress() const;
    ///@}
    /// Stores both figures as they are, in one step, and emits progress(), also when nothing changed.
    void setProgress(int value, int total);
    /// The text of the last setProgressText(); empty at first.
    QString progressText() const;
    /// Stores the text and emits progressTextChanged(), also when nothing changed.
    void setProgressText(const QString &text);

    /// setError() with no error.
    void clearError();

    /**
     * Waits in a local event loop until the task has finished, and returns its error.
     *
     * \a msec is the longest time to wait in milliseconds, negative for no limit; when it has passed the result is
     * Timeout and the task goes on. The wait ends as soon as finish() is through with its work, on whichever thread
     * it runs, before handlers of finished() on other threads are done. A task that is destroyed meanwhile gives
     * GeneralError, one that is set finished by setFinished() its error. When the application quits, the wait ends
     * without an error: look at isFinished(). Whoever has waited may destroy the task.
     *
     * May be called from any thread that can run an event loop. Do not call it from a handler of the ending task:
     * it cannot return there.
     */
    ///@{
    Err waitForFinished(int msec = -1) const;
    Err waitForFinished(std::chrono::milliseconds msec) const;
    ///@}
    /// Like waitForFinished(), but events that were posted to the waiting thread before the end are handled first.
    ///@{
    Err waitForAllFinished(int msec = -1) const;
    Err waitForAllFinished(std::chrono::milliseconds msec) const;
    ///@}

Q_SIGNALS:
    /// The task has its outcome and cleans up.
    void finalizing();
    /// The run is over; state() and error() are final. Once per run, from finish().
    void finished();
    /// For subclasses that know the total beforehand; the library only relays it.
    void progressInitiated(int total);
    /// From setProgress().
    void progress(int value, int total);
    /// From setProgressText().
    void progressTextChanged(const QString &text);
    /// After every change of the state, also to the state that it had.
    void stateChanged(State state);
    /// About to enter Paused.
    void paused();
    /// About to leave Paused.
    void resumed();
    /// A run has begun. Not emitted when the task was paused before it was started.
    void started();
    /// After started(), when the task had finished before.
    void restarted();
    /// Emitted last by finish(), when the task is to delete itself; it is still whole. See setDeleteOnFinished().
    void selfDelete(QPrivateSignal);

protected:
    /// An idle task without a name.
    explicit BaseTask(QObject *parent = nullptr);

    /// The only writer of the state. Emits stateChanged().
    void setState(State state);
    /// Called once per run by finish(), after finalize(); an error returned here becomes the task's error.
    virtual Error doFinish();

private:
    friend class QCoro::detail::ZelTaskWaitForFinishedOperation;
    friend class ComplexTask;
    friend class GroupTask;
    friend class Task;
    friend class TaskLife;
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace zel
