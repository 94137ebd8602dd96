#pragma once

#include "ResultFunctionThread.h"
#include "WorkGate.h"

#include <zel/tasks/Task.h>

#include <QMutex>
#include <QPointer>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <variant>

namespace zel {

class TasksQueueLock;
struct TasksQueueEntry;

class Q_DECL_HIDDEN Task::Private {
public:
    using PlainFunction = std::variant<std::monostate, std::function<Error()>, std::function<Error(Task *)>>;
    using CoroutineFactory =
        std::variant<std::monostate, std::function<QCoro::Task<Error>()>, std::function<QCoro::Task<Error>(Task *)>>;

    Private(Task *task, ExecutionMode mode) : q(task), executionMode(mode) { }

    // These take the mutex.
    template <typename Slot, typename Function>
    void store(Slot &slot, Function stored);
    template <typename Slot>
    Slot copyOf(const Slot &slot) const;
    std::shared_ptr<TasksQueueLock> queueLock() const;
    /// Returns false when another queue has taken the task.
    bool claimForQueue(std::shared_ptr<TasksQueueLock> lock, TasksQueueEntry *entry);
    /// Unless another queue has taken the task.
    void releaseQueueEntry(const TasksQueueLock *lock);

    /// Called with \a lock held; null when another queue has the task, or none.
    TasksQueueEntry *queueEntry(const TasksQueueLock *lock) const { return knownHolder == lock ? holderEntry : nullptr; }

    /// Finishes \a task, if it is still there and in that run, with the outcome of the coroutine that start() gives.
    template <typename Start>
    static QCoro::Task<> finishWith(QPointer<Task> task, quint64 run, Start start);

    quint64 run() const;
    void execOnWorkingThread();
    bool startThread(QThread *thread);
    bool isWorkingThread() const;
    void onThreadFinished(quint64 ticket, quint64 startedRun);
    bool stopThread(void (*request)(QThread *thread)) const;

    Task *const q;
    std::chrono::milliseconds threadWaitTime{10};
    bool threadTerminationEnabled = true;
    PlainFunction function;
    CoroutineFactory coroutineFunction;
    ExecutionMode executionMode;
    /// The thread of the present run; let go of by deleteWorkingThread().
    QPointer<ResultFunctionThread<Error>> workingThread;
    bool hasThreadReported = false; ///< its finished() has arrived
    // Read by queues in other threads.
    std::atomic<bool> triggersNext{true};
    std::atomic<int> priority{1};
    std::atomic<bool> countAsRunning{true};
    /// Where working threads enter the task; made by the first of them.
    std::shared_ptr<WorkGate> gate;
    /// Guards the two functions, which working threads copy, and what follows.
    mutable QMutex mutex;
    /// The queue that holds this task, pending or running, and what it knows of it.
    std::shared_ptr<TasksQueueLock> holder;
    TasksQueueEntry *holderEntry = nullptr;
    /// The same queue for who has its lock: only then the two above stay as they are.
    std::atomic<const TasksQueueLock *> knownHolder = nullptr;
};

} // namespace zel
