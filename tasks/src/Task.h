#pragma once

#include <zel/tasks/BaseTask.h>
#include <zel/tasks/zel_tasks_export.h>

#include <QCoro/QCoroTask>

#include <chrono>
#include <functional>
#include <memory>

namespace zel {

/**
 * A task that does work when exec() is called: a function, a coroutine, or what a subclass overrides.
 *
 * The execution mode says where the work runs and what ends the task. A function and a coroutine factory are kept side
 * by side; the mode alone decides which one exec() uses. Without work the task succeeds at once.
 *
 * Ownership: owns the stored functions and its working thread.
 * Threads:   as BaseTask; exec(), setPriority(), setCountAsRunning() and setTriggersNext() from any thread, too. In
 *            WorkingThread mode the work runs on a thread of its own and everything else, finished() included, in the
 *            task's thread, which needs an event loop.
 * Errors:    the error that the work returns is the task's. Exceptions that leave a plain function pass through exec()
 *            and leave the task Running; those that leave a coroutine, and a std::exception on a working thread, end
 *            the task with GeneralError and their text, and with a critical line in "zel.tasks". Any other exception
 *            on a working thread ends the process.
 */
class ZEL_TASKS_EXPORT Task : public BaseTask {
    Q_OBJECT
public:
    /// Where the work runs and what ends the task.
    enum ExecutionMode : int {
        Synchronous = 0,   ///< doExec() in the thread that calls exec(); finished when exec() returns
        WorkingThread = 1, ///< doExec() on a new thread; finished when that thread ends
        Coroutine = 2,     ///< co_doExec(); finished when the coroutine completes
        Asynchronous = 3,  ///< doExec() in the calling thread; on success somebody calls finish() later
    };

    /// A Synchronous task without work.
    explicit Task(QObject *parent = nullptr);
    /// A task without work, usually for a subclass.
    explicit Task(ExecutionMode mode, QObject *parent = nullptr);
    /// A task around a plain function, which is called in each run, with the task if it wants it.
    ///@{
    explicit Task(std::function<Error()> function, ExecutionMode mode = Synchronous, QObject *parent = nullptr);
    explicit Task(std::function<Error(Task *)> function, ExecutionMode mode = Synchronous, QObject *parent = nullptr);
    ///@}
    /// A Coroutine task: each run calls the factory, with the task if it wants it, and awaits what it returns.
    ///@{
    explicit Task(std::function<QCoro::Task<Error>()> factory, QObject *parent = nullptr);
    explicit Task(std::function<QCoro::Task<Error>(Task *)> factory, QObject *parent = nullptr);
    ///@}
    /**
     * A task around a coroutine that is under way already: it is Running from the start and finishes when the
     * coroutine completes, inside this constructor if it has. There is no need for exec(). A null coroutine never
     * completes, which is a warning in "zel.tasks".
     */
    explicit Task(QCoro::Task<Error> coroutine, QObject *parent = nullptr);
    /**
     * Emits aboutToDestroy(), then stops the working thread like deleteWorkingThread().
     *
     * Work that was handed the task, and work of a subclass, is waited for until it has returned, with a warning when
     * that takes seconds. A plain std::function<Error()> of a Task that is not subclassed is not waited for. Where a
     * task may be destroyed, ~BaseTask() says.
     */
    ~Task() override;

    /// Replaces the plain function; an empty one is no work. The mode stays. A call of the old function that is under
    /// way goes on with it.
    ///@{
    void setFunction(std::function<Error()> function);
    void setFunction(std::function<Error(Task *)> function);
    ///@}
    /// Replaces the plain function and selects \a mode for the next exec().
    ///@{
    void setFunction(std::function<Error()> function, ExecutionMode mode);
    void setFunction(std::function<Error(Task *)> function, ExecutionMode mode);
    ///@}
    /// Replaces the coroutine factory and selects the mode Coroutine for the next exec().
    ///@{
    void setFunction(std::function<QCoro::Task<Error>()> factory);
    void setFunction(std::function<QCoro::Task<Error>(Task *)> factory);
    ///@}

    /// How the next exec() runs the work. Asynchronous for a task around a coroutine that was under way.
    ExecutionMode executionMode() const;
    /// For the next exec(). A value that is no enumerator acts as Asynchronous.
    void setExecutionMode(ExecutionMode mode);

    /// The place in a queue; smaller numbers go first. Default: 1.
    int priority() const;
    /// Emits priorityChanged() when the value is another one. Not checked here; a queue refuses what it does not know.
    void setPriority(int priority);

    /// How long each stop request waits for the working thread. Default: 10 ms. Negative: without limit, as is what the
    /// clock cannot say.
    std::chrono::milliseconds threadWaitTime() const;
    /// In milliseconds, for later stop requests. Ending the task may block its caller up to three times as long.
    ///@{
    void setThreadWaitTime(long msec);
    void setThreadWaitTime(std::chrono::milliseconds msec);
    ///@}
    /// Whether stopping may end in QThread::terminate(). Default: true.
    bool isThreadTerminationEnabled() const;
    /**
     * Allows or forbids to terminate a working thread that ignores the request to interrupt.
     *
     * A terminated thread runs no further statement of the work; what it had locked stays locked. Work that can stand
     * in noexcept code or in a `catch (...)` that does not rethrow must not be terminated: the platform ends the whole
     * process. Let the work poll QThread::isInterruptionRequested() and switch termination off.
     */
    void setThreadTerminationEnabled(bool enabled);

    /// bind(), and later priority changes of this task are copied to \a task. Refused where bind() is refused.
    void bindMutually(const Task *task);

public Q_SLOTS:
    /**
     * Runs the work by the execution mode, again if the task had finished.
     *
     * Emits what setRunning() emits, first; nothing is started when a handler ends the task there, or another thread
     * does. May be called from any thread: of calls at the same time, those of queues included, one starts the task and
     * the others do nothing. A later call while a working thread runs stops that thread and starts another; while a
     * coroutine is under way it starts a second one, and the first of them to complete ends the task.
     */
    virtual void exec();
    /**
     * Whether a queue dispatches once more when the task has ended, beside the dispatch that takes the task out.
     * Default: true. May be called from any thread.
     */
    bool triggersNext() const;
    /// May be called from any thread.
    void setTriggersNext(bool triggers);
    /// Whether the task counts towards the limit of its queue. Default: true. May be called from any thread.
    bool countAsRunning() const;
    /// The queue that runs the task counts anew at once, but starts nothing. May be called from any thread.
    void setCountAsRunning(bool countAsRunning);

Q_SIGNALS:
    /// From setPriority(), with the new value.
    void priorityChanged(int priority);
    /// From the destructor, on the thread that destroys the task, while the task is still whole.
    void aboutToDestroy();

protected:
    /**
     * The plain work, in the calling thread or on the working thread. The default calls the stored function, or
     * returns GeneralError when the task is not Running.
     *
     * A subclass whose override uses members of its own on a working thread calls stopWorkingThread() in its own
     * destructor.
     */
    virtual Error doExec();
    /// The coroutine work. The default awaits what the stored factory returns.
    virtual QCoro::Task<Error> co_doExec();

    /// Releases the working thread, then BaseTask::finalize().
    void finalize() override;

    /// Makes a thread for \a function, not started, after deleteWorkingThread().
    void createWorkingThread(std::function<Error()> function);
    /// Starts the thread that createWorkingThread() made, with the priority of the calling one; nothing without one.
    void startWorkingThread();
    /// Asks the work to stop and waits for threadWaitTime(). True when no thread runs any more.
    bool interruptWorkingThread();
    /// Ends an event loop of the thread and waits. True when no thread runs any more.
    bool quitWorkingThread();
    /// Terminates the thread and waits. False at once when termination is disabled.
    bool terminateWorkingThread();
    /**
     * Interrupts, quits, terminates, until one of them has ended the thread, and lets go of it.
     *
     * A thread that cannot be stopped goes on by itself, with a warning in "zel.tasks", and is freed when it ends; its
     * result is dropped. On the working thread itself nothing is requested: the work runs out.
     */
    void deleteWorkingThread();
    /// deleteWorkingThread(), then waits without limit until no work, and no exec() or finish() on another thread, is
    /// inside this task any more.
    void stopWorkingThread();

private:
    friend class BaseTask;
    friend class ComplexTask;
    friend class TasksQueue;
    friend class TasksQueueHold;
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace zel
