#include <zel/tasks/Task.h>

#include "BaseTask_p.h"
#include "TaskUse.h"
#include "Task_p.h"
#include "TasksLog.h"
#include "TasksQueue_p.h"

#include <QDeadlineTimer>

#include <exception>
#include <system_error>
#include <thread>
#include <typeinfo>
#include <utility>

namespace zel {

namespace {

/// Thrown by co_doExec() for a coroutine that is none and therefore never completes.
struct NullCoroutine { };

using ErrorCoroutine = QCoro::Task<Error>;
using CoroutineAwaiter = decltype(std::declval<const ErrorCoroutine &>().operator co_await());

// QCoro tells nobody whether a task has a coroutine: isReady() is true for a null one as well.
struct NullProbe : CoroutineAwaiter {
    static bool isNull(const ErrorCoroutine &coroutine)
    {
        return !(coroutine.operator co_await().*&NullProbe::mAwaitedCoroutine);
    }
};

Error unhandledException(const char *what)
{
    qCCritical(tasksLog) << "Unhandled exception:" << what;
    return Error(GeneralError, QString::fromLocal8Bit(what));
}

// For a thread object that is nobody's any more while it runs, and may belong to a thread without event loop.
void freeWhenEnded(QThread *thread)
{
    try {
        std::thread([thread] {
            thread->wait();
            delete thread;
        }).detach();
    } catch (const std::system_error &) {
        qCWarning(tasksLog) << "No thread left to free a working thread with";
    }
}

QDeadlineTimer deadlineAfter(std::chrono::milliseconds time)
{
    return time.count() < 0 ? QDeadlineTimer(QDeadlineTimer::Forever) : QDeadlineTimer(time);
}

} // namespace

template <typename Slot, typename Function>
void Task::Private::store(Slot &slot, Function stored)
{
    Slot replaced;
    if (stored)
        replaced = std::move(stored);
    const QMutexLocker locker(&mutex);
    slot.swap(replaced);
    // Declared before the locker: what was stored is destroyed outside the lock.
}

template <typename Slot>
Slot Task::Private::copyOf(const Slot &slot) const
{
    const QMutexLocker locker(&mutex);
    return slot;
}

std::shared_ptr<TasksQueueLock> Task::Private::queueLock() const
{
    if (!knownHolder)
        return {};
    const QMutexLocker locker(&mutex);
    return holder;
}

bool Task::Private::claimForQueue(std::shared_ptr<TasksQueueLock> lock, TasksQueueEntry *entry)
{
    const QMutexLocker locker(&mutex);
    if (holder && holder != lock)
        return false;
    holder = std::move(lock);
    holderEntry = entry;
    knownHolder.store(holder.get(), std::memory_order_release);
    return true;
}

void Task::Private::releaseQueueEntry(const TasksQueueLock *lock)
{
    const QMutexLocker locker(&mutex);
    if (holder.get() != lock)
        return;
    knownHolder.store(nullptr, std::memory_order_release);
    holder.reset();
    holderEntry = nullptr;
}

quint64 Task::Private::run() const
{
    return BaseTask::Private::of(q)->run;
}

// In place of QCoro's then(), which sees neither every exception nor a task that is gone or runs again.
template <typename Start>
QCoro::Task<> Task::Private::finishWith(QPointer<Task> task, quint64 run, Start start)
{
    Error result;
    try {
        ErrorCoroutine coroutine = start();
        if (NullProbe::isNull(coroutine))
            throw NullCoroutine();
        result = co_await coroutine;
    } catch (const NullCoroutine &) {
        qCWarning(tasksLog) << "Task" << (task ? task->name() : QString())
                            << "was given a null coroutine: it will never complete";
        co_return;
    } catch (const std::exception &exception) {
        result = unhandledException(exception.what());
    } catch (...) {
        result = unhandledException("unknown exception");
    }
    if (task && task->d->run() == run)
        task->finish(result);
}

void Task::Private::execOnWorkingThread()
{
    q->deleteWorkingThread();
    BaseTask::Private::of(q)->hadWorkingThread = true;
    if (!gate)
        gate = std::make_shared<WorkGate>();
    const quint64 ticket = gate->admit();
    const quint64 startedRun = run();
    q->createWorkingThread([task = q, entrance = gate, ticket] {
        const WorkVisit visit(entrance, ticket);
        return visit.isInside() ? task->doExec() : Error();
    });
    QThread *thread = workingThread;
    connect(
        thread, &QThread::finished, q, [this, ticket, startedRun] { onThreadFinished(ticket, startedRun); },
        Qt::QueuedConnection);
    if (!startThread(thread))
        q->finish(Error(GeneralError, Task::tr("The working thread could not be started.")));
}

bool Task::Private::startThread(QThread *thread)
{
    // The run may be over, and the task gone, before start() has returned: who frees the thread waits for this lock.
    const std::shared_ptr<WorkGate> entrance = gate;
    const QMutexLocker locker(&entrance->startMutex);
    q->startWorkingThread();
    return thread->isRunning() || thread->isFinished();
}

void Task::Private::onThreadFinished(quint64 ticket, quint64 startedRun)
{
    if (gate->lastTicket() != ticket)
        return;
    hasThreadReported = true;
    if (gate->isAdmitted(ticket) && run() == startedRun)
        q->finish(workingThread->result().value_or(Error()));
    else
        q->deleteWorkingThread();
}

bool Task::Private::isWorkingThread() const
{
    return workingThread && workingThread == QThread::currentThread();
}

bool Task::Private::stopThread(void (*request)(QThread *thread)) const
{
    QThread *thread = workingThread;
    if (!thread || !thread->isRunning())
        return true;
    request(thread);
    return thread->wait(deadlineAfter(threadWaitTime));
}

Task::Task(QObject *parent) : Task(Synchronous, parent) { }

Task::Task(ExecutionMode mode, QObject *parent) : BaseTask(parent), d(std::make_unique<Private>(this, mode)) { }

Task::Task(std::function<Error()> function, ExecutionMode mode, QObject *parent) : Task(mode, parent)
{
    setFunction(std::move(function));
}

Task::Task(std::function<Error(Task *)> function, ExecutionMode mode, QObject *parent) : Task(mode, parent)
{
    setFunction(std::move(function));
}

Task::Task(std::function<QCoro::Task<Error>()> factory, QObject *parent) : Task(Coroutine, parent)
{
    setFunction(std::move(factory));
}

Task::Task(std::function<QCoro::Task<Error>(Task *)> factory, QObject *parent) : Task(Coroutine, parent)
{
    setFunction(std::move(factory));
}

Task::Task(QCoro::Task<Error> coroutine, QObject *parent) : Task(Asynchronous, parent)
{
    setRunning();
    static_cast<void>(Private::finishWith(
        this, d->run(), [coroutine = std::move(coroutine)]() mutable { return std::move(coroutine); }));
}

Task::~Task()
{
    const auto leaveQueue = [this] {
        const auto lock = d->queueLock();
        if (lock)
            TasksQueue::Private::onTaskDestroyed(lock, this);
        return bool(lock);
    };
    BaseTask::Private::of(this)->clearRef();
    leaveQueue();
    TaskUse::waitForOthers(this);
    Q_EMIT aboutToDestroy();
    // A handler, or another thread, may have appended it again.
    if (leaveQueue())
        TaskUse::waitForOthers(this);
    stopWorkingThread();
    // What the work captured is destroyed next, and may complete its coroutine.
    ++BaseTask::Private::of(this)->run;
}

void Task::setFunction(std::function<Error()> function)
{
    d->store(d->function, std::move(function));
}

void Task::setFunction(std::function<Error(Task *)> function)
{
    d->store(d->function, std::move(function));
}

void Task::setFunction(std::function<Error()> function, ExecutionMode mode)
{
    setFunction(std::move(function));
    setExecutionMode(mode);
}

void Task::setFunction(std::function<Error(Task *)> function, ExecutionMode mode)
{
    setFunction(std::move(function));
    setExecutionMode(mode);
}

void Task::setFunction(std::function<QCoro::Task<Error>()> factory)
{
    d->store(d->coroutineFunction, std::move(factory));
    setExecutionMode(Coroutine);
}

void Task::setFunction(std::function<QCoro::Task<Error>(Task *)> factory)
{
    d->store(d->coroutineFunction, std::move(factory));
    setExecutionMode(Coroutine);
}

Task::ExecutionMode Task::executionMode() const
{
    return d->executionMode;
}

void Task::setExecutionMode(ExecutionMode mode)
{
    d->executionMode = mode;
}

int Task::priority() const
{
    return d->priority;
}

void Task::setPriority(int priority)
{
    if (d->priority.exchange(priority) == priority)
        return;
    const auto lock = d->queueLock();
    const QPointer<Task> self(lock ? this : nullptr);
    Q_EMIT priorityChanged(priority);
    if (self)
        TasksQueue::Private::onTaskPriorityChanged(lock, this);
}

std::chrono::milliseconds Task::threadWaitTime() const
{
    return d->threadWaitTime;
}

void Task::setThreadWaitTime(long msec)
{
    d->threadWaitTime = std::chrono::milliseconds(msec);
}

void Task::setThreadWaitTime(std::chrono::milliseconds msec)
{
    d->threadWaitTime = msec;
}

bool Task::isThreadTerminationEnabled() const
{
    return d->threadTerminationEnabled;
}

void Task::setThreadTerminationEnabled(bool enabled)
{
    d->threadTerminationEnabled = enabled;
}

void Task::bindMutually(const Task *task)
{
    if (BaseTask::Private::of(this)->refusesSource(task))
        return;
    bind(task);
    connect(this, &Task::priorityChanged, task,
            [target = const_cast<Task *>(task)](int priority) { target->setPriority(priority); });
}

void Task::exec()
{
    const QPointer<Task> self(this);
    const quint64 run = BaseTask::Private::of(this)->nextRun();
    const auto goesOn = [&self, run] { return self && self->d->run() == run; };
    setRunning();
    if (!goesOn())
        return;

    switch (d->executionMode) {
    case WorkingThread:
        d->execOnWorkingThread();
        break;
    case Coroutine:
        static_cast<void>(Private::finishWith(this, run, [this] { return co_doExec(); }));
        break;
    case Synchronous: {
        const Error result = doExec();
        if (goesOn())
            finish(result);
        break;
    }
    case Asynchronous:
    default: {
        const Error result = doExec();
        if (goesOn() && result.hasError())
            finish(result);
        break;
    }
    }
}

bool Task::triggersNext() const
{
    return d->triggersNext;
}

void Task::setTriggersNext(bool triggers)
{
    d->triggersNext = triggers;
}

bool Task::countAsRunning() const
{
    return d->countAsRunning;
}

void Task::setCountAsRunning(bool countAsRunning)
{
    d->countAsRunning = countAsRunning;
    // The queue keeps a count instead of asking all running tasks.
    if (const auto lock = d->queueLock())
        TasksQueue::Private::recount(lock, this);
}

Error Task::doExec()
{
    if (!isRunning())
        return Error(GeneralError, tr("Task is not running"));
    const auto function = d->copyOf(d->function);
    if (const auto plain = std::get_if<std::function<Error()>>(&function)) {
        // Such work does not know its task, which need not wait for it. A subclass may, around this call.
        if (typeid(*this) == typeid(Task))
            WorkVisit::leave(d->gate.get());
        return (*plain)();
    }
    if (const auto withTask = std::get_if<std::function<Error(Task *)>>(&function))
        return (*withTask)(this);
    return Error();
}

QCoro::Task<Error> Task::co_doExec()
{
    if (!isRunning())
        co_return Error(GeneralError, tr("Task is not running"));
    const auto factory = d->copyOf(d->coroutineFunction);
    QCoro::Task<Error> coroutine;
    if (const auto plain = std::get_if<std::function<QCoro::Task<Error>()>>(&factory))
        coroutine = (*plain)();
    else if (const auto withTask = std::get_if<std::function<QCoro::Task<Error>(Task *)>>(&factory))
        coroutine = (*withTask)(this);
    else
        co_return Error();
    if (NullProbe::isNull(coroutine))
        throw NullCoroutine();
    co_return co_await coroutine;
}

void Task::finalize()
{
    // Work that ends its own task runs out, and its thread is let go of when it has ended.
    if (d->isWorkingThread() && d->gate)
        d->gate->revoke();
    else
        deleteWorkingThread();
    BaseTask::finalize();
}

void Task::createWorkingThread(std::function<Error()> function)
{
    deleteWorkingThread();
    d->hasThreadReported = false;
    d->workingThread = new ResultFunctionThread<Error>(std::move(function));
    // exec() may have been called on another thread, perhaps one that has no event loop.
    d->workingThread->moveToThread(thread());
}

void Task::startWorkingThread()
{
    if (d->workingThread)
        d->workingThread->start(QThread::InheritPriority);
}

bool Task::interruptWorkingThread()
{
    return d->stopThread([](QThread *thread) { thread->requestInterruption(); });
}

bool Task::quitWorkingThread()
{
    return d->stopThread([](QThread *thread) { thread->quit(); });
}

bool Task::terminateWorkingThread()
{
    return d->threadTerminationEnabled && d->stopThread([](QThread *thread) { thread->terminate(); });
}

void Task::deleteWorkingThread()
{
    QThread *thread = d->workingThread;
    if (!thread)
        return;
    if (d->gate)
        d->gate->revoke();
    const bool isOwnThread = d->isWorkingThread();
    if (thread->isRunning()) {
        QObject::disconnect(thread, nullptr, nullptr, nullptr);
        if (!isOwnThread && !(interruptWorkingThread() || quitWorkingThread() || terminateWorkingThread()))
            qCWarning(tasksLog) << "Could not kill working thread for task" << name();
    }
    d->workingThread.clear();
    if (d->gate)
        const QMutexLocker started(&d->gate->startMutex);
    if (thread->isRunning()) {
        freeWhenEnded(thread);
        return;
    }
    // Until the task has heard of it, it may still be telling that it has finished.
    if (!isOwnThread && !d->hasThreadReported)
        thread->wait(deadlineAfter(d->threadWaitTime));
    thread->deleteLater();
}

void Task::stopWorkingThread()
{
    deleteWorkingThread();
    if (d->gate)
        d->gate->waitUntilLeft(name());
}

} // namespace zel
