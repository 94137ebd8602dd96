#include <zel/tasks/Task.h>

#include "BaseTask_p.h"
#include "ComplexTask_p.h"
#include "CoroutineHandover.h"
#include "Interleaving.h"
#include "TaskStart.h"
#include "Task_p.h"
#include "TasksLog.h"
#include "TasksQueue_p.h"

#include <QDeadlineTimer>

#include <cxxabi.h>

#include <exception>
#include <optional>
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

Error unhandled(const char *what)
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

void interrupt(QThread *thread)
{
    thread->requestInterruption();
}

void quit(QThread *thread)
{
    thread->quit();
}

void terminate(QThread *thread)
{
    thread->terminate();
}

QDeadlineTimer deadlineAfter(std::chrono::milliseconds time)
{
    // In nanoseconds the clock ends after 292 years.
    constexpr std::chrono::milliseconds longest{9'000'000'000'000};
    const bool isForever = time.count() < 0 || time > longest;
    return isForever ? QDeadlineTimer(QDeadlineTimer::Forever) : QDeadlineTimer(time);
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

std::shared_ptr<TasksQueueShare> Task::Private::queueShare() const
{
    if (!knownHolder)
        return {};
    const QMutexLocker locker(&mutex);
    return holder;
}

bool Task::Private::claimForQueue(std::shared_ptr<TasksQueueShare> share, TasksQueueEntry *entry)
{
    const QMutexLocker locker(&mutex);
    if (holder && holder != share)
        return false;
    holder = std::move(share);
    holderEntry = entry;
    wasHeld = true;
    knownHolder.store(holder.get(), std::memory_order_release);
    return true;
}

void Task::Private::releaseQueueEntry(const TasksQueueShare *share)
{
    const QMutexLocker locker(&mutex);
    if (holder.get() != share)
        return;
    knownHolder.store(nullptr, std::memory_order_release);
    holder.reset();
    holderEntry = nullptr;
}

void Task::Private::restoreQueue()
{
    std::shared_ptr<TasksQueueShare> share = queueShare();
    if (!share)
        return;
    const QMutexLocker locker(TaskLife::of(q)->mutex());
    BaseTask::Private::of(q)->queue.swap(share);
}

bool Task::Private::leaveQueue()
{
    if (!wasHeld)
        return false;
    std::shared_ptr<TasksQueueShare> share;
    {
        // Also behind a queue on another thread that is letting go of the task.
        const QMutexLocker locker(&mutex);
        share = holder;
    }
    if (share)
        TasksQueue::Private::onTaskDestroyed(share, q);
    return bool(share);
}

std::shared_ptr<TasksQueueShare> Task::Private::leaveRun(BaseTask *task, bool isReset)
{
    Task *const executable = BaseTask::Private::executableOf(task);
    const auto share = executable ? executable->d->queueShare() : nullptr;
    return share && TasksQueue::Private::onTaskIdle(share, executable, isReset) ? share : nullptr;
}

void Task::Private::reportEnd(BaseTask *task, quint64 run)
{
    Task *const executable = BaseTask::Private::executableOf(task);
    const auto share = executable ? executable->d->queueShare() : nullptr;
    if (share && TaskLife::of(task)->endedRun() == run)
        TasksQueue::Private::onTaskAnnounced(share, executable);
}

Error Task::Private::unhandledException(const std::exception_ptr &exception)
{
    try {
        std::rethrow_exception(exception);
    } catch (const std::exception &known) {
        return unhandled(known.what());
    } catch (...) {
        return unhandled("unknown exception");
    }
}

// In place of QCoro's then(), which sees neither every exception nor a task that is gone or runs again.
template <typename Start>
QCoro::Task<> Task::Private::finishWith(std::shared_ptr<TaskLife> life, quint64 run, Start start)
{
    Error result;
    try {
        ErrorCoroutine coroutine = start();
        if (NullProbe::isNull(coroutine))
            throw NullCoroutine();
        result = co_await coroutine;
    } catch (const NullCoroutine &) {
        const TaskVisit visit(life);
        qCWarning(tasksLog) << "Task" << (visit.task() ? visit.task()->name() : QString())
                            << "was given a null coroutine: it will never complete";
        co_return;
    } catch (...) {
        result = unhandledException(std::current_exception());
    }
    interleavingPoint("coroutine completed");
    TaskVisit visit(life);
    if (!visit.isInside() || !life->isIn(run))
        co_return;
    TaskStart::setReturning(TaskStart::innermost(), life.get(), true);
    // What handlers throw, and work that starts in the place of this task, would be lost in the coroutine.
    const NothingLeaves here;
    try {
        BaseTask::Private::finishRun(visit, run, result);
    } catch (const abi::__forced_unwind &) {
        throw;
    } catch (...) {
        static_cast<void>(unhandledException(std::current_exception()));
    }
}

void Task::Private::execOnWorkingThread(quint64 run)
{
    const std::shared_ptr<TaskLife> life = TaskLife::of(q);
    bool isStarted = false;
    {
        // Before the look at the run: who ends it looks for threads afterwards.
        Threading *const threads = ensureThreading();
        QMutexLocker starting(&threads->startMutex);
        while (thread()) {
            starting.unlock();
            q->deleteWorkingThread();
            starting.relock();
        }
        if (!life->isToWork(run))
            return;
        WorkerThread *started = makeThread([task = q, life, run] {
            interleavingPoint("work on a thread");
            return life->isToWork(run) ? task->doExec() : Error();
        });
        connect(
            started, &QThread::finished, started,
            [life, ticket = threads->lastTicket, run] { postThreadFinished(life, ticket, run); }, Qt::DirectConnection);
        started->start(QThread::InheritPriority);
        isStarted = started->isRunning() || started->isFinished();
    }
    interleavingPoint("thread started");
    if (isStarted || !life->isIn(run))
        return;
    TaskStart::setReturning(TaskStart::innermost(), life.get(), true);
    BaseTask::Private::of(q)->finishRun(run,
                                        Error(GeneralError, Task::tr("The working thread could not be started.")));
}

// A thread enters the task by a ticket, and not when that was revoked meanwhile.
Task::Private::WorkerThread *Task::Private::makeThread(std::function<Error()> work)
{
    Threading *const threads = threading;
    const QMutexLocker locker(&mutex);
    threads->admittedTicket = ++threads->lastTicket;
    threads->hasReported = false;
    const auto enter = [life = TaskLife::of(q), ticket = threads->lastTicket, work = std::move(work)] {
        const TaskVisit visit(life, TaskVisit::Work);
        const auto task = static_cast<Task *>(visit.task());
        if (!task || !task->d->isAdmitted(ticket))
            return Error();
        try {
            return work ? work() : Error();
        } catch (const std::exception &exception) {
            // Others pass: what unwinds a terminated thread must.
            return unhandled(exception.what());
        }
    };
    threads->thread = new WorkerThread(enter);
    // exec() may have been called on another thread, perhaps one that has no event loop.
    threads->thread->moveToThread(q->thread());
    return threads->thread;
}

Task::Private::Threading *Task::Private::ensureThreading()
{
    const QMutexLocker locker(&mutex);
    if (!threading)
        threading = new Threading;
    return threading;
}

bool Task::Private::isAdmitted(quint64 ticket) const
{
    const QMutexLocker locker(&mutex);
    return threading.load()->admittedTicket == ticket;
}

void Task::Private::revokeTicket()
{
    const QMutexLocker locker(&mutex);
    threading.load()->admittedTicket = 0;
}

Task::Private::WorkerThread *Task::Private::takeThread(std::optional<quint64> ticket)
{
    Threading *const threads = threading;
    if (!threads)
        return nullptr;
    const QMutexLocker starting(&threads->startMutex);
    const QMutexLocker locker(&mutex);
    if (ticket && threads->lastTicket != ticket)
        return nullptr;
    threads->admittedTicket = 0;
    return std::exchange(threads->thread, nullptr);
}

// To the thread of the task, by a messenger: whoever has waited may destroy the task while its own event is handled.
void Task::Private::postThreadFinished(const std::shared_ptr<TaskLife> &life, quint64 ticket, quint64 run)
{
    const TaskVisit visit(life);
    if (!visit.isInside())
        return;
    auto *messenger = new QObject;
    messenger->moveToThread(visit.task()->thread());
    const auto deliver = [messenger, life, ticket, run] {
        messenger->deleteLater();
        onThreadFinished(life, ticket, run);
    };
    QMetaObject::invokeMethod(messenger, deliver, Qt::QueuedConnection);
}

void Task::Private::onThreadFinished(const std::shared_ptr<TaskLife> &life, quint64 ticket, quint64 run)
{
    interleavingPoint("thread finished");
    const TaskVisit visit(life);
    const auto task = static_cast<Task *>(visit.task());
    if (!task)
        return;
    // It was moved meanwhile.
    if (task->thread() != QThread::currentThread())
        return postThreadFinished(life, ticket, run);
    std::optional<Error> result;
    {
        const QMutexLocker locker(&task->d->mutex);
        Threading *const threads = task->d->threading;
        if (threads->lastTicket != ticket)
            return;
        threads->hasReported = true;
        if (threads->admittedTicket == ticket && threads->thread)
            result = threads->thread->result().value_or(Error());
    }
    if (result && life->isIn(run))
        BaseTask::Private::of(task)->finishRun(run, *result);
    else
        task->d->letGoOf(task->d->takeThread(ticket));
}

Task::Private::WorkerThread *Task::Private::thread() const
{
    const Threading *const threads = threading;
    if (!threads)
        return nullptr;
    const QMutexLocker locker(&mutex);
    return threads->thread;
}

bool Task::Private::isWorkingThread() const
{
    const WorkerThread *present = thread();
    return present && present == QThread::currentThread();
}

bool Task::Private::request(QThread *thread, void (*ask)(QThread *thread)) const
{
    if (!thread || !thread->isRunning())
        return true;
    ask(thread);
    return thread->wait(deadlineAfter(threadWaitTime));
}

bool Task::Private::stop(QThread *thread) const
{
    return request(thread, interrupt) || request(thread, quit)
        || (threadTerminationEnabled && request(thread, terminate));
}

// Null for none.
void Task::Private::letGoOf(QThread *thread) const
{
    if (!thread)
        return;
    const bool isOwnThread = thread == QThread::currentThread();
    if (thread->isRunning()) {
        QObject::disconnect(thread, &QThread::finished, thread, nullptr);
        if (!isOwnThread && !stop(thread))
            qCWarning(tasksLog) << "Could not kill working thread for task" << q->name();
    }
    if (thread->isRunning()) {
        freeWhenEnded(thread);
        return;
    }
    // Until the task has heard of it, it may still be telling that it has finished.
    if (!isOwnThread && !threading.load()->hasReported)
        thread->wait(deadlineAfter(threadWaitTime));
    thread->deleteLater();
}

Task::Task(QObject *parent) : Task(Synchronous, parent) { }

Task::Task(ExecutionMode mode, QObject *parent) : BaseTask(parent), d(std::make_unique<Private>(this, mode))
{
    BaseTask::Private::of(this)->kind = BaseTask::Private::Executable;
}

Task::Task(std::function<Error()> function, ExecutionMode mode, QObject *parent) : Task(mode, parent)
{
    if (function)
        d->function = std::move(function);
}

Task::Task(std::function<Error(Task *)> function, ExecutionMode mode, QObject *parent) : Task(mode, parent)
{
    if (function)
        d->function = std::move(function);
}

Task::Task(std::function<QCoro::Task<Error>()> factory, QObject *parent) : Task(Coroutine, parent)
{
    if (factory)
        d->coroutineFunction = std::move(factory);
}

Task::Task(std::function<QCoro::Task<Error>(Task *)> factory, QObject *parent) : Task(Coroutine, parent)
{
    if (factory)
        d->coroutineFunction = std::move(factory);
}

Task::Task(QCoro::Task<Error> coroutine, QObject *parent) : Task(Asynchronous, parent)
{
    const std::shared_ptr<TaskLife> life = TaskLife::of(this);
    setRunning();
    const CoroutineHandover handover;
    static_cast<void>(Private::finishWith(
        life, life->run(), [coroutine = std::move(coroutine)]() mutable { return std::move(coroutine); }));
}

Task::~Task()
{
    TaskLife *const life = TaskLife::of(this).get();
    life->retire();
    d->leaveQueue();
    life->waitForVisitors(this);
    life->setWhole(true);
    Q_EMIT aboutToDestroy();
    life->setWhole(false);
    // A handler, or another thread, may have appended it again.
    if (d->leaveQueue())
        life->waitForVisitors(this);
    stopWorkingThread();
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
    const auto share = d->queueShare();
    const std::shared_ptr<TaskLife> life = share ? TaskLife::of(this) : nullptr;
    Q_EMIT priorityChanged(priority);
    if (life && life->task())
        TasksQueue::Private::onTaskPriorityChanged(share, this);
}

std::chrono::milliseconds Task::threadWaitTime() const
{
    return d->threadWaitTime;
}

void Task::setThreadWaitTime(long msec)
{
    setThreadWaitTime(std::chrono::milliseconds(msec));
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

// A run is started once, whichever threads try, and nothing is started of one that has ended meanwhile.
void Task::exec()
{
    const quint64 seenRun = TaskLife::of(this)->run();
    TaskVisit visit(TaskLife::of(this));
    const std::shared_ptr<TaskLife> &life = visit.life();
    TaskStart *const below = TaskStart::innermost();
    TaskStart *const start = TaskStart::unusedOf(below, life.get());
    const auto change = visit.isInside() ? life->begin(start ? start->use() : 0, seenRun) : std::nullopt;
    if (!change)
        return;
    const TasksQueueAbsence absence(start ? start->share() : nullptr);
    const quint64 run = change->run;
    TaskStart::setReturning(below, life.get(), false);
    if (ComplexTask *complexTask = BaseTask::Private::complexOf(this)) {
        ComplexTask::Private::of(complexTask)->beginRun(change->left);
        if (!life->isIn(run))
            return;
    }
    BaseTask::Private::of(this)->announceRunning(life, *change);
    interleavingPoint("before the work");
    if (!life->isToWork(run))
        return;

    switch (d->executionMode) {
    case WorkingThread:
        d->execOnWorkingThread(run);
        break;
    case Coroutine: {
        const CoroutineHandover handover;
        static_cast<void>(Private::finishWith(life, run, [this] { return co_doExec(); }));
        break;
    }
    case Synchronous:
    case Asynchronous:
    default: {
        const bool isSynchronous = d->executionMode == Synchronous;
        const Error result = doExec();
        interleavingPoint("work returned");
        if (!life->isIn(run) || (!isSynchronous && !result.hasError()))
            break;
        TaskStart::setReturning(below, life.get(), true);
        BaseTask::Private::finishRun(visit, run, result);
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
    if (const auto share = d->queueShare())
        TasksQueue::Private::recount(share, this);
}

Error Task::doExec()
{
    if (!isRunning())
        return Error(GeneralError, tr("Task is not running"));
    const auto function = d->copyOf(d->function);
    if (const auto plain = std::get_if<std::function<Error()>>(&function)) {
        // Such work does not know its task, which need not wait for it. A subclass may, around this call.
        if (typeid(*this) == typeid(Task))
            TaskVisit::leaveWork(TaskLife::of(this).get());
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
    if (d->isWorkingThread())
        d->revokeTicket();
    else
        deleteWorkingThread();
    BaseTask::finalize();
}

void Task::createWorkingThread(std::function<Error()> function)
{
    deleteWorkingThread();
    const QMutexLocker starting(&d->ensureThreading()->startMutex);
    d->makeThread(std::move(function));
}

void Task::startWorkingThread()
{
    const QMutexLocker starting(&d->ensureThreading()->startMutex);
    if (QThread *thread = d->thread())
        thread->start(QThread::InheritPriority);
}

bool Task::interruptWorkingThread()
{
    return d->request(d->thread(), interrupt);
}

bool Task::quitWorkingThread()
{
    return d->request(d->thread(), quit);
}

bool Task::terminateWorkingThread()
{
    return d->threadTerminationEnabled && d->request(d->thread(), terminate);
}

void Task::deleteWorkingThread()
{
    interleavingPoint("delete thread");
    d->letGoOf(d->takeThread());
}

void Task::stopWorkingThread()
{
    deleteWorkingThread();
    TaskLife::of(this)->waitForVisitors(this);
    TaskLife::of(this)->waitForWorkers(this);
}

} // namespace zel
