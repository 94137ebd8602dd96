#include <zel/tasks/TasksQueue.h>

#include "TaskUse.h"
#include "Task_p.h"
#include "TasksLog.h"
#include "TasksQueue_p.h"

#include <QScopeGuard>
#include <QThread>

#include <optional>
#include <utility>

namespace zel {

namespace {

/// One call of Task::exec() by a queue, on the stack of the thread that makes it. Without an entry, a dispatch that
/// comes from an event loop on top of such a call.
class DispatchFrame {
public:
    explicit DispatchFrame(TasksQueueLock *queueLock, const TasksQueueEntry *startedEntry = nullptr)
        : lock(queueLock)
        , entry(startedEntry)
        , stay(startedEntry ? startedEntry->stay : 0)
        , loopLevel(QThread::currentThread()->loopLevel())
        , m_outer(std::exchange(innermost, this))
    {
        if (entry)
            m_use.emplace(entry->task);
    }
    ~DispatchFrame() { innermost = m_outer; }
    Q_DISABLE_COPY_MOVE(DispatchFrame)

    static const DispatchFrame *innermostOf(const TasksQueueLock *lock)
    {
        const DispatchFrame *frame = innermost;
        while (frame && frame->lock != lock)
            frame = frame->m_outer;
        return frame;
    }

    TasksQueueLock *const lock;
    const TasksQueueEntry *const entry;
    const quint64 stay;
    const int loopLevel;

private:
    static thread_local DispatchFrame *innermost;
    std::optional<TaskUse> m_use;
    DispatchFrame *const m_outer;
};

thread_local DispatchFrame *DispatchFrame::innermost = nullptr;

} // namespace

void TasksQueueLock::postDispatch()
{
    if (!queue || std::exchange(dispatchPosted, true))
        return;
    const auto dispatch = [lock = shared_from_this(), dispatched = queue] {
        TasksQueueLocker locker(lock);
        lock->dispatchPosted = false;
        static_cast<void>(locker.unlock());
        const DispatchFrame fromEventLoop(lock.get());
        dispatched->tryExec();
    };
    QMetaObject::invokeMethod(context, dispatch, Qt::QueuedConnection);
}

TasksQueueLocker::TasksQueueLocker(const std::shared_ptr<TasksQueueLock> &lock) : m_lock(lock.get())
{
    m_lock->mutex.lock();
    if (++m_lock->depth == 1)
        TaskUse::addHeldLocks(1);
}

TasksQueueLocker::~TasksQueueLocker()
{
    if (!m_isLocked)
        return;
    if (m_lock->depth == 1 && m_lock->passesOwed > 0)
        m_lock->postDispatch();
    static_cast<void>(unlock());
}

int TasksQueueLocker::unlock()
{
    m_isLocked = false;
    const bool isOutermost = --m_lock->depth == 0;
    const int passes = isOutermost ? std::exchange(m_lock->passesOwed, 0) : 0;
    if (isOutermost)
        TaskUse::addHeldLocks(-1);
    m_lock->mutex.unlock();
    return passes;
}

TasksQueue::Private::Private(TasksQueue *queue)
    : q(queue)
    , lock(std::make_shared<TasksQueueLock>(queue, this))
    , maxRunning(qMax(QThread::idealThreadCount(), 1))
{
}

TasksQueue::Private::~Private() = default;

bool TasksQueue::Private::changeState(State newState)
{
    const TasksQueueLocker locker(lock);
    return std::exchange(state, newState) != newState;
}

// Inside other operations than clear(), a dispatch waits until they let go of the lock.
bool TasksQueue::Private::owesDispatch()
{
    const TasksQueueLocker locker(lock);
    if (lock->holds > 0) {
        lock->isDispatchHeld = true;
        return true;
    }
    if (lock->depth == 1 || lock->clearing > 0)
        return false;
    ++lock->passesOwed;
    return true;
}

TasksQueue::Private::Decision TasksQueue::Private::decide()
{
    const TasksQueueLocker locker(lock);
    if (state == Paused)
        return {Decision::StayPaused, false};
    const bool hasNothingToDo = countedRunning == 0 && q->isEmpty();
    const State reached = hasNothingToDo ? Idle : Working;
    const bool stateChanged = std::exchange(state, reached) != reached;
    return {hasNothingToDo ? Decision::BecomeIdle : Decision::Start, stateChanged};
}

// Returns false when the rest of the pass is none of the caller's business: the queue is gone, or somebody else on
// the stack goes on with it.
bool TasksQueue::Private::startPending()
{
    const std::shared_ptr<TasksQueueLock> sharedLock = lock;
    Entry *entry = nullptr;
    for (quint64 stay = 0;;) {
        TasksQueueLocker locker(sharedLock);
        if (!sharedLock->queue)
            return false;
        if (entry && entry->stay == stay)
            entry->startingThread = nullptr;
        if (countedRunning >= maxRunning || state != Working)
            return true;
        if (!q->isEmpty() && leavesStartToOthers())
            return false;
        Task *task = q->dequeueTask();
        if (!task) {
            qCInfo(tasksLog) << "No more tasks in the queue " << name;
            return true;
        }
        if (!task->isIdle()) {
            forget(entryOf(task));
            continue;
        }
        entry = setRunning(task);
        if (!entry)
            continue;
        stay = entry->stay;
        entry->startingThread = QThread::currentThreadId();
        const DispatchFrame frame(sharedLock.get(), entry);
        static_cast<void>(locker.unlock());
        try {
            q->exec(task);
        } catch (...) {
            const TasksQueueLocker afterThrow(sharedLock);
            if (sharedLock->queue)
                abandonStart(entry, stay);
            throw;
        }
    }
}

bool TasksQueue::Private::becomeIdleAfterPass()
{
    const TasksQueueLocker locker(lock);
    if (countedRunning > 0 || state != Working)
        return false;
    state = Idle;
    return true;
}

bool TasksQueue::Private::takeFromOtherQueue(Task *task)
{
    const std::shared_ptr<TasksQueueLock> other = task->d->queueLock();
    if (!other)
        return true;
    const bool isRefused = task->priority() < 0 || task->priority() > q->maxPriority();
    // With no other queue's lock. Its dispatch is posted: none of its tasks is started in here.
    const TasksQueueLocker locker(other);
    const Entry *entry = task->d->queueEntry(other.get());
    if (entry && entry->isBeingStartedElsewhere())
        return false;
    if (other != lock && other->queue && !isRefused)
        other->queue->removeTask(task);
    return true;
}

void TasksQueue::Private::dispatch(int passes)
{
    // Those behind the first one find nothing to do, but whoever reads the log is told of them.
    if (!tasksLog().isInfoEnabled())
        passes = qMin(passes, 1);
    const QPointer<TasksQueue> queue(q);
    for (; queue && passes > 0; --passes)
        queue->tryExec();
}

void TasksQueue::Private::recount(const std::shared_ptr<TasksQueueLock> &lock, const Task *task)
{
    const TasksQueueLocker locker(lock);
    if (!lock->queue)
        return;
    auto *queue = lock->queue->d.get();
    Entry *entry = queue->entryOf(task);
    if (entry && entry->place == Entry::Running)
        queue->setCounted(entry, task->countAsRunning());
}

TasksQueue::Private::Entry *TasksQueue::Private::entryOf(const Task *task) const
{
    return task->d->queueEntry(lock.get());
}

// A new stay begins when the queue does not hold the task.
TasksQueue::Private::Entry *TasksQueue::Private::ensureEntry(Task *task)
{
    if (Entry *held = entryOf(task))
        return held;
    if (unused.empty()) {
        unused.emplace_back();
        unused.front().self = unused.begin();
    }
    Entry *entry = &unused.front();
    if (!task->d->claimForQueue(lock, entry))
        return nullptr;
    entry->task = task;
    entry->stay = ++lastStay;
    move(entry, Entry::Outside, outside, outside.end());
    return entry;
}

bool TasksQueue::Private::isPending(const Task *task) const
{
    const Entry *entry = entryOf(task);
    return entry && entry->isPending();
}

bool TasksQueue::Private::insert(Task *task, EnqueueMode mode)
{
    Entry *entry = ensureEntry(task);
    if (entry && entry->place == Entry::Running) {
        // It was set idle by hand and begins a new stay; its slot is free.
        forget(entry);
        entry = ensureEntry(task);
    }
    if (!entry)
        return false;
    const int priority = task->priority();
    Entries &level = ready[priority];
    move(entry, Entry::Ready, level, mode == Prepend ? level.begin() : level.end());
    entry->priority = priority;
    entry->order = mode == Prepend ? --firstOrder : ++lastOrder;
    return true;
}

TasksQueue::Private::Entry *TasksQueue::Private::nextReady()
{
    Entry *listed = ready.empty() ? nullptr : &ready.begin()->second.front();
    Entry *back = returnedByTurn.empty() ? nullptr : returnedByTurn.begin()->second;
    if (!listed || !back)
        return listed ? listed : back;
    return listed->turn() < back->turn() ? listed : back;
}

Task *TasksQueue::Private::takeNextIdle()
{
    while (Entry *entry = nextReady()) {
        if (entry->task->isIdle()) {
            takeOut(entry);
            return entry->task;
        }
        park(entry);
    }
    return nullptr;
}

void TasksQueue::Private::takeOut(Entry *entry)
{
    move(entry, Entry::Outside, outside, outside.end());
}

TasksQueue::Private::Entry *TasksQueue::Private::setRunning(Task *task)
{
    Entry *entry = ensureEntry(task);
    if (!entry)
        return nullptr;
    move(entry, Entry::Running, running, running.end());
    setCounted(entry, task->countAsRunning());
    return entry;
}

// Its end comes as a signal, in the order of those that were connected; the rest the task tells the queue that holds
// it, which takes less room than connections.
void TasksQueue::Private::follow(Entry *entry)
{
    unfollow(entry);
    entry->isFollowed = true;
    entry->connectionType = connectionType;
    entry->finished = connect(
        entry->task, &BaseTask::finished, this,
        [this, task = QPointer<Task>(entry->task), entry, stay = entry->stay] { onTaskFinished(task, entry, stay); },
        connectionType);
    if (connectionType == Qt::QueuedConnection)
        return;
    entry->priorityChanged = connect(
        entry->task, &Task::priorityChanged, this, [this, entry, stay = entry->stay] { readd(entry, stay); },
        connectionType);
}

void TasksQueue::Private::unfollow(Entry *entry)
{
    entry->isFollowed = false;
    disconnect(std::exchange(entry->finished, {}));
    disconnect(std::exchange(entry->priorityChanged, {}));
    disconnect(std::exchange(entry->idle, {}));
}

void TasksQueue::Private::forget(Entry *entry)
{
    if (!entry)
        return;
    unfollow(entry);
    entry->task->d->releaseQueueEntry(lock.get());
    move(entry, Entry::Unused, unused, unused.begin());
    entry->task = nullptr;
    entry->startingThread = nullptr;
    entry->stay = 0;
}

// In the order in which they would be taken.
TasksQueue::Private::Entries TasksQueue::Private::takeAllPending()
{
    Entries entries;
    for (auto &level : ready)
        entries.splice(entries.end(), level.second);
    ready.clear();
    if (!parked.empty() || !returned.empty()) {
        entries.splice(entries.end(), parked);
        entries.splice(entries.end(), returned);
        returnedByTurn.clear();
        entries.sort([](const Entry &left, const Entry &right) { return left.turn() < right.turn(); });
    }
    pendingCount = 0;
    return entries;
}

TasksQueue::Private::Entries TasksQueue::Private::takeAllRunning()
{
    countedRunning = 0;
    return std::exchange(running, {});
}

// One call of clear(), with the lock held.
void TasksQueue::Private::clearAll(ClearPolicy policy, const Error &error)
{
    const QPointer<TasksQueue> queue(q);
    const std::shared_ptr<TasksQueueLock> sharedLock = lock;
    ++sharedLock->clearing;
    const auto cleared = qScopeGuard([&] {
        // Something is left when a handler threw.
        if (queue) {
            Entries rest = takeAllLeaving();
            forgetAll(rest);
        }
        --sharedLock->clearing;
    });
    if (!clearTasks(takeAllPending(), policy, error))
        return;
    Entries started = takeAllRunning();
    Entries addedMeanwhile = takeAllPending();
    forgetAll(addedMeanwhile);
    clearTasks(std::move(started), policy, error);
}

// Handlers may destroy tasks that are still to come, which takes them out of the list, or take them in again, which is
// to no avail. Returns false when one of them has destroyed the queue.
bool TasksQueue::Private::clearTasks(Entries entries, ClearPolicy policy, const Error &error)
{
    const QPointer<TasksQueue> queue(q);
    for (Entry &entry : entries) {
        entry.place = Entry::Leaving;
        entry.clearing = lock->clearing;
        entry.isCounted = false;
    }
    leaving.splice(leaving.begin(), entries);
    while (!leaving.empty() && leaving.front().clearing == lock->clearing) {
        Task *task = leaving.front().task;
        const TaskUse use(task);
        forget(&leaving.front());
        q->clearTask(task, policy, error);
        if (!queue)
            return false;
    }
    return true;
}

// Of the innermost call of clear().
TasksQueue::Private::Entries TasksQueue::Private::takeAllLeaving()
{
    Entries entries;
    while (!leaving.empty() && leaving.front().clearing == lock->clearing)
        entries.splice(entries.end(), leaving, leaving.begin());
    return entries;
}

void TasksQueue::Private::forgetAll(Entries &entries)
{
    for (Entry &entry : entries) {
        const TaskUse use(entry.task);
        q->disconnectTask(entry.task);
        entry.task->d->releaseQueueEntry(lock.get());
        entry = {.self = entry.self};
    }
    unused.splice(unused.begin(), entries);
}

// The lock is held while the task is looked at: a task that is destroyed on another thread waits to be forgotten.
void TasksQueue::Private::onTaskFinished(const QPointer<Task> &task, const Entry *entry, quint64 stay)
{
    if (task.isNull()) {
        q->onTaskFinished(nullptr);
        return;
    }
    // Handlers may delete the queue: the task's error may clear it.
    const QPointer<TasksQueue> queue(q);
    const std::shared_ptr<TasksQueueLock> sharedLock = lock;
    TasksQueueLocker locker(sharedLock);
    if (entry->stay != stay || entry->place == Entry::Leaving)
        return;
    {
        const TaskUse use(entry->task);
        q->onTaskFinished(entry->task);
    }
    const int passes = locker.unlock();
    if (queue)
        dispatch(passes);
}

// On the thread that destroys the task, when even the queue may be gone.
void TasksQueue::Private::onTaskDestroyed(const std::shared_ptr<TasksQueueLock> &lock, Task *task)
{
    const TasksQueueLocker locker(lock);
    if (lock->queue)
        lock->queue->onTaskDestroyed(task);
}

// By a posted call; in the order of the handlers, which other types keep, it is a connection.
void TasksQueue::Private::onTaskPriorityChanged(const std::shared_ptr<TasksQueueLock> &lock, const Task *task)
{
    const TasksQueueLocker locker(lock);
    auto *queue = lock->queue ? lock->queue->d.get() : nullptr;
    const Entry *entry = queue ? queue->entryOf(task) : nullptr;
    if (!entry || !entry->isFollowed || entry->connectionType != Qt::QueuedConnection)
        return;
    const auto readd = [queue, entry, stay = entry->stay] { queue->readd(entry, stay); };
    QMetaObject::invokeMethod(queue, readd, Qt::QueuedConnection);
}

void TasksQueue::Private::readd(const Entry *entry, quint64 stay)
{
    const QPointer<TasksQueue> queue(q);
    const std::shared_ptr<TasksQueueLock> sharedLock = lock;
    TasksQueueLocker locker(sharedLock);
    if (entry->stay != stay)
        return;
    {
        const TaskUse use(entry->task);
        q->readdTask(entry->task);
    }
    const int passes = locker.unlock();
    if (queue)
        dispatch(passes);
}

TasksQueue::Private::Entries &TasksQueue::Private::listOf(const Entry &entry)
{
    switch (entry.place) {
    case Entry::Unused:
        return unused;
    case Entry::Outside:
        return outside;
    case Entry::Ready:
        return ready.at(entry.priority);
    case Entry::Parked:
        return parked;
    case Entry::Returned:
        return returned;
    case Entry::Running:
        return running;
    case Entry::Leaving:
        break;
    }
    return leaving;
}

// The only way from list to list: keeps the counts, and no empty list among the ready ones.
void TasksQueue::Private::move(Entry *entry, Entry::Place place, Entries &to, Entries::iterator before)
{
    const Entry::Place left = entry->place;
    Entries &from = listOf(*entry);
    pendingCount -= int(entry->isPending());
    to.splice(before, from, entry->self);
    entry->place = place;
    pendingCount += int(entry->isPending());
    if (left == Entry::Running)
        setCounted(entry, false);
    if (left == Entry::Returned)
        returnedByTurn.erase(entry->turn());
    if (left == Entry::Ready && from.empty())
        ready.erase(entry->priority);
}

void TasksQueue::Private::setCounted(Entry *entry, bool isCounted)
{
    countedRunning += int(isCounted) - int(entry->isCounted);
    entry->isCounted = isCounted;
}

// Out of the way of every later dispatch, until the task is idle again and gets its place back.
void TasksQueue::Private::park(Entry *entry)
{
    move(entry, Entry::Parked, parked, parked.end());
    const quint64 stay = entry->stay;
    entry->idle = connect(
        entry->task, &BaseTask::stateChanged, this,
        [this, entry, stay](BaseTask::State newState) {
            if (newState == BaseTask::Idle)
                unpark(entry, stay);
        },
        Qt::DirectConnection);
    if (entry->task->isIdle())
        unpark(entry, stay);
}

void TasksQueue::Private::unpark(Entry *entry, quint64 stay)
{
    const TasksQueueLocker locker(lock);
    if (entry->stay != stay || entry->place != Entry::Parked)
        return;
    disconnect(std::exchange(entry->idle, {}));
    move(entry, Entry::Returned, returned, returned.end());
    returnedByTurn.emplace(entry->turn(), entry);
}

// Called before a start. Work is never started while the lock is held. And when a task of ours that has ended is still
// on the stack of this thread, the loop below it goes on, so that the stack stays flat; unless an event loop runs on
// top of that task, in which somebody may wait for the very task that is to be started.
bool TasksQueue::Private::leavesStartToOthers() const
{
    if (lock->depth > 1) {
        ++lock->passesOwed;
        return true;
    }
    const DispatchFrame *frame = DispatchFrame::innermostOf(lock.get());
    if (!frame || !frame->entry)
        return false;
    if (frame->entry->stay == frame->stay && frame->entry->place == Entry::Running)
        return false;
    if (QThread::currentThread()->loopLevel() > frame->loopLevel)
        return false;
    if (QThread::currentThread() == thread())
        lock->postDispatch();
    return true;
}

// The work threw: its slot is free, and the other tasks are not left to a loop that has ended.
void TasksQueue::Private::abandonStart(Entry *entry, quint64 stay)
{
    ++lock->passesOwed;
    if (entry->stay != stay)
        return;
    Task *task = entry->task;
    forget(entry);
    task->setQueue(nullptr);
}

TasksQueue::TasksQueue(QObject *parent) : QObject(parent), d(std::make_unique<Private>(this))
{
    // As in BaseTask: tasks of several threads may be the first ones to guard their queue.
    const QPointer<TasksQueue> guard(this);
}

TasksQueue::~TasksQueue()
{
    const TasksQueueLocker locker(d->lock);
    Private::Entries pending = d->takeAllPending();
    for (Private::Entries *entries : {&pending, &d->running, &d->outside, &d->leaving})
        d->forgetAll(*entries);
    d->lock->queue = nullptr;
    d->lock->context = nullptr;
}

QString TasksQueue::name() const
{
    const TasksQueueLocker locker(d->lock);
    return d->name;
}

void TasksQueue::setName(const QString &name)
{
    const TasksQueueLocker locker(d->lock);
    d->name = name;
}

TasksQueue::State TasksQueue::state() const
{
    const TasksQueueLocker locker(d->lock);
    return d->state;
}

int TasksQueue::maxPriority() const
{
    const TasksQueueLocker locker(d->lock);
    return d->maxPriority;
}

void TasksQueue::setMaxPriority(int priority)
{
    const TasksQueueLocker locker(d->lock);
    d->maxPriority = priority;
}

int TasksQueue::maxRunningTasksCount() const
{
    const TasksQueueLocker locker(d->lock);
    return d->maxRunning;
}

void TasksQueue::setMaxRunningTasksCount(int count)
{
    const TasksQueueLocker locker(d->lock);
    d->maxRunning = count;
}

Qt::ConnectionType TasksQueue::connectionType() const
{
    const TasksQueueLocker locker(d->lock);
    return d->connectionType;
}

void TasksQueue::setConnectionType(Qt::ConnectionType type)
{
    const TasksQueueLocker locker(d->lock);
    d->connectionType = type;
}

TasksQueue::CleanupMode TasksQueue::cleanupMode() const
{
    const TasksQueueLocker locker(d->lock);
    return d->cleanupMode;
}

void TasksQueue::setCleanupMode(CleanupMode mode)
{
    const TasksQueueLocker locker(d->lock);
    d->cleanupMode = mode;
}

TasksQueue::TaskErrorPolicy TasksQueue::taskErrorPolicy() const
{
    const TasksQueueLocker locker(d->lock);
    return d->errorPolicy;
}

void TasksQueue::setTaskErrorPolicy(TaskErrorPolicy policy)
{
    const TasksQueueLocker locker(d->lock);
    d->errorPolicy = policy;
}

void TasksQueue::append(Task *task)
{
    if (task && task->isIdle())
        addTask(task, Append);
    tryExec();
}

void TasksQueue::append(const QList<Task *> &tasks)
{
    for (Task *task : tasks) {
        if (task && task->isIdle())
            addTask(task, Append);
    }
    tryExec();
}

void TasksQueue::prepend(Task *task)
{
    if (!task || !task->isIdle())
        return;
    addTask(task, Prepend);
    tryExec();
}

void TasksQueue::operator<<(Task *task)
{
    append(task);
}

void TasksQueue::readdTask(Task *task)
{
    if (!task)
        return;
    TasksQueueLocker locker(d->lock);
    if (!d->isPending(task))
        return;
    Private::Entry *entry = d->entryOf(task);
    d->takeOut(entry);
    append(task);
    // Not taken again: it is no longer idle, or its new priority is refused.
    if (entry->place == Private::Entry::Outside)
        d->forget(entry);
    d->dispatch(locker.unlock());
}

void TasksQueue::removeTask(Task *task)
{
    if (!task)
        return;
    {
        const TasksQueueLocker locker(d->lock);
        disconnectTask(task);
        if (!d->isPending(task))
            task->setQueue(nullptr);
        // Before the dispatch, which would start the very task that is taken out.
        d->forget(d->entryOf(task));
    }
    tryExec();
}

bool TasksQueue::isEmpty() const
{
    const TasksQueueLocker locker(d->lock);
    return d->pendingCount == 0;
}

int TasksQueue::pendingTasksCount() const
{
    const TasksQueueLocker locker(d->lock);
    return d->pendingCount;
}

int TasksQueue::runningTasksCount() const
{
    const TasksQueueLocker locker(d->lock);
    return d->countedRunning;
}

bool TasksQueue::hasRunningTasks() const
{
    return runningTasksCount() > 0;
}

int TasksQueue::count() const
{
    const TasksQueueLocker locker(d->lock);
    return runningTasksCount() + pendingTasksCount();
}

void TasksQueue::clear(ClearPolicy policy, const Error &error)
{
    const QPointer<TasksQueue> self(this);
    const std::shared_ptr<TasksQueueLock> lock = d->lock;
    const Error outcome = error;
    TasksQueueLocker locker(lock);
    d->clearAll(policy, outcome);
    const int passes = locker.unlock();
    if (self && passes > 0)
        tryExec();
}

void TasksQueue::pause()
{
    setState(Paused);
}

void TasksQueue::resume()
{
    const QPointer<TasksQueue> self(this);
    setState(Working);
    if (self)
        tryExec();
}

void TasksQueue::tryExec()
{
    if (d->owesDispatch())
        return;
    const QPointer<TasksQueue> self(this);
    const Private::Decision decision = d->decide();
    if (decision.step == Private::Decision::StayPaused) {
        qCInfo(tasksLog) << name() << "paused";
        return;
    }
    if (decision.step == Private::Decision::BecomeIdle) {
        qCInfo(tasksLog) << "Empty queue " << name() << "--> Idle.";
        if (decision.stateChanged)
            Q_EMIT stateChanged(Idle);
        return;
    }
    if (decision.stateChanged) {
        qCInfo(tasksLog) << "Idle queue" << name() << " --> Working.";
        Q_EMIT stateChanged(Working);
    }
    if (!self)
        return;
    qCInfo(tasksLog) << "Running tasks:" << runningTasksCount() << "Max running tasks:" << maxRunningTasksCount();
    if (!d->startPending() || !d->becomeIdleAfterPass())
        return;
    qCInfo(tasksLog) << "Queue  " << name() << "--> Idle.";
    qCInfo(tasksLog) << "Queue size:" << pendingTasksCount();
    Q_EMIT stateChanged(Idle);
}

void TasksQueue::exec(Task *task)
{
    if (!task->isFinished())
        task->exec();
}

void TasksQueue::enqueueTask(Task *task, EnqueueMode mode)
{
    const TasksQueueLocker locker(d->lock);
    if (d->isPending(task)) {
        qCWarning(tasksLog) << "Task" << task->name() << "already in queue";
        return;
    }
    const Private::Entry *entry = d->entryOf(task);
    if (entry && (entry->place == Private::Entry::Leaving || entry->isBeingStartedElsewhere()))
        return;
    const int priority = task->priority();
    if (priority < 0 || priority > d->maxPriority) {
        qCWarning(tasksLog) << "Invalid priority" << priority << "of task" << task->name();
        return;
    }
    // Appended to another queue at the same time, on another thread: that came last, and holds it.
    if (!d->insert(task, mode))
        return;
    connectTask(task);
    qCInfo(tasksLog) << "Task" << task->name() << "appended, queue.count=" << pendingTasksCount();
}

Task *TasksQueue::dequeueTask()
{
    const TasksQueueLocker locker(d->lock);
    return isEmpty() ? nullptr : d->takeNextIdle();
}

void TasksQueue::addTask(Task *task, EnqueueMode mode)
{
    if (!d->takeFromOtherQueue(task))
        return;
    task->setQueue(this);
    enqueueTask(task, mode);
}

void TasksQueue::onTaskFinished(Task *task)
{
    if (!task) {
        qCDebug(tasksLog) << "Null task finished!";
        tryExec();
        return;
    }
    const std::shared_ptr<TasksQueueLock> lock = d->lock;
    const TasksQueueLocker locker(lock);
    if (!d->entryOf(task) || !task->isFinished())
        return;
    if (task->hasError() && d->errorPolicy == ClearOnError) {
        clear(Remove, Error());
        return;
    }
    const bool triggersNext = task->triggersNext();
    // While the queue holds the task: its own thread may be destroying it, and waits for the lock then.
    if (d->cleanupMode == DeleteFinished)
        task->deleteLater();
    removeTask(task);
    disconnectTask(task);
    if (triggersNext)
        tryExec();
}

void TasksQueue::onTaskDestroyed(Task *task)
{
    // The dispatch is posted when the lock is released: nothing is started inside the task's destructor.
    const TasksQueueLocker locker(d->lock);
    removeTask(task);
    disconnectTask(task);
}

void TasksQueue::setState(State state)
{
    if (d->changeState(state))
        Q_EMIT stateChanged(state);
}

void TasksQueue::connectTask(Task *task)
{
    const TasksQueueLocker locker(d->lock);
    if (Private::Entry *entry = d->ensureEntry(task))
        d->follow(entry);
}

void TasksQueue::disconnectTask(Task *task)
{
    const TasksQueueLocker locker(d->lock);
    Private::Entry *entry = d->entryOf(task);
    if (entry && entry->isFollowed)
        Private::unfollow(entry);
}

void TasksQueue::removeRunningTask(Task *task)
{
    {
        const TasksQueueLocker locker(d->lock);
        disconnectTask(task);
        Private::Entry *entry = d->entryOf(task);
        if (entry && entry->place == Private::Entry::Running)
            d->forget(entry);
    }
    tryExec();
}

void TasksQueue::clearTask(Task *task, ClearPolicy policy, const Error &error)
{
    // Null where nothing is left to do to the task.
    const QPointer<Task> guarded(policy == Finish || policy == Cancel ? task : nullptr);
    removeRunningTask(task);
    if (!guarded || task->isFinalizing() || task->isFinished())
        return;
    if (policy == Finish)
        task->finish(error);
    else if (policy == Cancel)
        task->cancel();
}

} // namespace zel
