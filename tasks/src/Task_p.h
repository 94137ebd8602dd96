#pragma once

#include "ResultFunctionThread.h"
#include "TaskLife.h"

#include <zel/tasks/Task.h>

#include <QMutex>

#include <atomic>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <variant>

namespace zel {

class TasksQueueShare;
struct TasksQueueEntry;

class Q_DECL_HIDDEN Task::Private {
public:
    using PlainFunction = std::variant<std::monostate, std::function<Error()>, std::function<Error(Task *)>>;
    using CoroutineFactory =
        std::variant<std::monostate, std::function<QCoro::Task<Error>()>, std::function<QCoro::Task<Error>(Task *)>>;
    using WorkerThread = ResultFunctionThread<Error>;

    /// Made with the first thread: few tasks have one.
    struct Threading {
        /// Held while a thread is made and started: who takes it away waits for that.
        QMutex startMutex;
        // Written with the mutex of the private part locked.
        WorkerThread *thread = nullptr; ///< of the present run; whoever takes it out lets go of it
        quint64 lastTicket = 0;
        quint64 admittedTicket = 0;           ///< of the thread that may enter the task
        std::atomic<bool> hasReported = false; ///< its finished() has arrived
    };

    Private(Task *task, ExecutionMode mode) : q(task), executionMode(mode) { }
    ~Private() { delete threading; }
    Q_DISABLE_COPY_MOVE(Private)

    // These take the mutex.
    template <typename Slot, typename Function>
    void store(Slot &slot, Function stored);
    template <typename Slot>
    Slot copyOf(const Slot &slot) const;
    /// Of the queue that holds this task; null when none does.
    std::shared_ptr<TasksQueueShare> queueShare() const;
    /// Returns false when another queue has taken the task.
    bool claimForQueue(std::shared_ptr<TasksQueueShare> share, TasksQueueEntry *entry);
    /// Unless another queue has taken the task.
    void releaseQueueEntry(const TasksQueueShare *share);

    /// Called with the lock of that queue held; null when another queue has the task, or none.
    TasksQueueEntry *queueEntry(const TasksQueueShare *share) const
    {
        return knownHolder == share ? holderEntry : nullptr;
    }

    /// Makes the queue that holds the task its queue(), which another one was about to take it from.
    void restoreQueue();
    /// Has the queue that holds the task forget it, which is being destroyed. Returns whether there was one.
    bool leaveQueue();
    /// Tells the queue that holds \a task, if there is one, that a run has ended.
    static void reportEnd(BaseTask *task, quint64 run);
    /// Tells the queue that holds \a task, if there is one, that it is idle again. Returns whom a dispatch is owed.
    static std::shared_ptr<TasksQueueShare> leaveRun(BaseTask *task, bool isReset);

    /// Logs an exception of whatever type, and makes it an outcome.
    static Error unhandledException(const std::exception_ptr &exception);
    /// Finishes the task, if it is still there and in that run, with the outcome of the coroutine that start() gives.
    template <typename Start>
    static QCoro::Task<> finishWith(std::shared_ptr<TaskLife> life, quint64 run, Start start);

    void execOnWorkingThread(quint64 run);
    /// Takes the place of the one that there was, which was let go of.
    WorkerThread *makeThread(std::function<Error()> work);
    bool isAdmitted(quint64 ticket) const;
    void revokeTicket();
    /// That of the ticket only, if one is given.
    WorkerThread *takeThread(std::optional<quint64> ticket = {});
    void letGoOf(QThread *thread) const;
    WorkerThread *thread() const;
    Threading *ensureThreading();
    bool isWorkingThread() const;
    static void postThreadFinished(const std::shared_ptr<TaskLife> &life, quint64 ticket, quint64 run);
    static void onThreadFinished(const std::shared_ptr<TaskLife> &life, quint64 ticket, quint64 run);
    bool request(QThread *thread, void (*ask)(QThread *thread)) const;
    bool stop(QThread *thread) const;

    Task *const q;
    std::atomic<std::chrono::milliseconds> threadWaitTime{std::chrono::milliseconds(10)};
    std::atomic<bool> threadTerminationEnabled = true;
    std::atomic<ExecutionMode> executionMode;
    // Read by queues in other threads.
    std::atomic<bool> triggersNext{true};
    std::atomic<int> priority{1};
    std::atomic<bool> countAsRunning{true};
    std::atomic<Threading *> threading = nullptr;
    /// Guards what follows, and what is said of the thread.
    mutable QMutex mutex;
    PlainFunction function;
    CoroutineFactory coroutineFunction;
    /// The queue that holds this task, pending or running, and what it knows of it.
    std::shared_ptr<TasksQueueShare> holder;
    TasksQueueEntry *holderEntry = nullptr;
    std::atomic<bool> wasHeld = false;
    /// The same queue for who has its lock: only then the two above stay as they are.
    std::atomic<const TasksQueueShare *> knownHolder = nullptr;
};

} // namespace zel
