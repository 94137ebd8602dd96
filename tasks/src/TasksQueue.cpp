#include <zel/tasks/TasksQueue.h>

#include "GroupLocker.h"
#include "Interleaving.h"
#include "TaskStart.h"
#include "Task_p.h"
#include "TasksLog.h"
#include "TasksQueue_p.h"

#include <QScopeGuard>
#include <QThread>

#include <cxxabi.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace zel {

namespace {

using Lock = QMutexLocker<QMutex>;

// Dispatches nest where work that goes on ends its own task; beyond that, what is to start is left to those below.
constexpr int deepestNesting = 50;

/// A task of the queue is being destroyed on this thread.
struct Destruction {
    Destruction(const TasksQueueShare *queueShare, bool isOnForeignThread)
        : share(queueShare)
        , isForeign(isOnForeignThread)
        , outer(std::exchange(innermost, this))
    {
    }
    ~Destruction() { innermost = outer; }
    Q_DISABLE_COPY_MOVE(Destruction)

    static const Destruction *of(const TasksQueueShare *share)
    {
        const Destruction *destruction = innermost;
        while (destruction && destruction->share != share)
            destruction = destruction->outer;
        return destruction;
    }

    const TasksQueueShare *const share;
    const bool isForeign; ///< its dispatch is posted to the queue's thread
    Destruction *const outer;
    static thread_local Destruction *innermost;
};

thread_local Destruction *Destruction::innermost = nullptr;

/// The end of a task is being handled on this thread. The queue lets go of the task before it dispatches.
struct Handling {
    Handling() : outer(std::exchange(innermost, this)) { }
    ~Handling() { innermost = outer; }
    Q_DISABLE_COPY_MOVE(Handling)

    static Handling *of(const Task *task)
    {
        Handling *handling = innermost;
        while (handling && handling->task != task)
            handling = handling->outer;
        return handling;
    }
    /// With the queue's lock held: the task is handed to deleteLater() if it is to be.
    void drop()
    {
        if (std::exchange(deletes, false))
            TaskLife::deleteLater(task);
    }

    Task *task = nullptr;
    std::optional<TaskVisit> visit;
    bool deletes = false;
    Handling *const outer;
    static thread_local Handling *innermost;
};

thread_local Handling *Handling::innermost = nullptr;

thread_local TasksQueueHand *innermostHand = nullptr;

} // namespace

TasksQueueHand::TasksQueueHand(const TasksQueueShare *queueShare)
    : share(queueShare)
    , m_outer(std::exchange(innermostHand, this))
{
}

TasksQueueHand::~TasksQueueHand()
{
    innermostHand = m_outer;
}

TasksQueueHand *TasksQueueHand::emptyOf(const TasksQueueShare *share)
{
    return innermostHand && innermostHand->share == share && !innermostHand->entry ? innermostHand : nullptr;
}

// Called with the lock held, under which the task cannot be destroyed.
bool TasksQueueHand::take(TasksQueueEntry *taken)
{
    life = TaskLife::of(taken->task);
    visit.emplace(life);
    taken->claim = visit->isInside() ? life->claimStart(true) : 0;
    if (taken->claim == 0) {
        visit.reset();
        return false;
    }
    entry = taken;
    task = taken->task;
    stay = taken->stay;
    claim = taken->claim;
    return true;
}

TasksQueue::Private::Private(TasksQueue *queue)
    : q(queue)
    , share(std::make_shared<TasksQueueShare>(queue, this))
    , maxRunning(qMax(QThread::idealThreadCount(), 1))
{
}

TasksQueue::Private::~Private() = default;

std::shared_ptr<TasksQueueShare> TasksQueueShare::of(const TasksQueue *queue)
{
    return queue ? queue->d->share : nullptr;
}

// Announced in the order of the changes: when another thread is announcing one, it goes on with this one.
template <typename Condition>
void TasksQueue::Private::changeState(State newState, Condition isMeant)
{
    {
        const Lock locker(&share->mutex);
        if (state == newState || !isMeant())
            return;
        state = newState;
        // Earlier changes of other threads come first.
        if ((m_announcer && m_announcer != QThread::currentThreadId()) || !m_announcements.empty()) {
            m_announcements.push_back(newState);
            if (m_announcer != QThread::currentThreadId())
                return;
            newState = m_announcements.front();
            m_announcements.pop_front();
        }
    }
    announce(newState);
}

void TasksQueue::Private::announce(State announced)
{
    const Share shared = share;
    TasksQueue *const queue = q;
    Lock locker(&shared->mutex);
    const bool isOutermost = !std::exchange(m_announcer, QThread::currentThreadId());
    bool isReleased = false;
    const auto released = qScopeGuard([&] {
        if (!isOutermost || isReleased)
            return;
        // A handler threw.
        const Lock again(&shared->mutex);
        if (shared->queue())
            m_announcer = nullptr;
    });
    for (;;) {
        locker.unlock();
        interleavingPoint("queue state changed");
        Q_EMIT queue->stateChanged(announced);
        locker.relock();
        isReleased = !shared->queue() || m_announcements.empty();
        if (isReleased) {
            if (isOutermost && shared->queue())
                m_announcer = nullptr;
            return;
        }
        announced = m_announcements.front();
        m_announcements.pop_front();
    }
}

// Returns false when the rest of the pass is none of the caller's business: the queue is gone, or somebody else goes on
// with it. What work throws leaves when everything that may start has been started.
bool TasksQueue::Private::startPending(quint64 &servedRequests)
{
    const Share shared = share;
    TasksQueue *const queue = q;
    std::exception_ptr thrown;
    const auto startAll = [&] {
        for (bool isFirst = true;; isFirst = false) {
            if (!isFirst && shared->queue() && isFull())
                return false;
            TasksQueueHand hand(shared.get());
            {
                const Lock locker(&shared->mutex);
                if (!shared->queue() || !shared->mayDispatch())
                    return false;
                // Whoever frees a slot goes on.
                if (countedRunning >= maxRunning || state != Working)
                    return maxRunning <= 0;
                shared->setServed();
                servedRequests = requests;
            }
            if (leavesStartToOthers())
                return false;
            Task *task = nullptr;
            {
                const auto kept = qScopeGuard([&] {
                    const Lock locker(&shared->mutex);
                    if (!task && shared->queue())
                        letGo(hand);
                });
                task = queue->dequeueTask();
            }
            interleavingPoint("dequeued");
            if (!shared->queue())
                return false;
            if (!task && hand.isFull)
                return false;
            if (!task) {
                qCInfo(tasksLog) << "No more tasks in the queue " << queue->name();
                return true;
            }
            if (!take(hand, task))
                continue;
            try {
                const TaskStart start(hand.life.get(), hand.claim, shared.get());
                queue->exec(task);
            } catch (const abi::__forced_unwind &) {
                throw;
            } catch (...) {
                if (NothingLeaves::isSaid()) {
                    const Error error = Task::Private::unhandledException(std::current_exception());
                    if (hand.visit->task())
                        task->finish(error);
                    continue;
                }
                if (shared->queue())
                    abandonStart(hand);
                if (thrown)
                    static_cast<void>(Task::Private::unhandledException(std::current_exception()));
                else
                    thrown = std::current_exception();
            }
        }
    };
    const bool goesOn = startAll();
    if (thrown)
        std::rethrow_exception(thrown);
    return goesOn;
}

// When work of ours has returned and its end is being handled, the loop below goes on, so that the stack stays flat;
// unless an event loop runs on top, in which somebody may wait for the very task that is to be started.
bool TasksQueue::Private::leavesStartToOthers() const
{
    const TaskStart *start = TaskStart::innermostOf(share.get());
    if (!start || !start->isOfTask() || QThread::currentThread()->loopLevel() > start->loopLevel())
        return false;
    if (!start->isReturning() && start->depth() < deepestNesting)
        return false;
    if (q->isEmpty())
        return false;
    // For whoever waits before the loop below goes on.
    const Lock locker(&share->mutex);
    share->postDispatch();
    return true;
}

// Returns false when the task is not to be started: it was taken out meanwhile, or a subclass's dequeueTask() gave one
// that is not idle.
bool TasksQueue::Private::take(TasksQueueHand &hand, Task *task)
{
    const Lock locker(&share->mutex);
    if (!share->queue())
        return false;
    if (hand.task != task)
        letGo(hand);
    if (!hand.entry) {
        Entry *entry = ensureEntry(task);
        if (!entry)
            return false;
        // Not one that a subclass gives although it runs here already.
        if (entry->place == Entry::Running || !task->isIdle() || !hand.take(entry)) {
            if (entry->place != Entry::Running)
                forget(entry);
            return false;
        }
    }
    if (hand.entry->stay != hand.stay || hand.entry->place == Entry::Leaving)
        return false;
    if (!hand.life->holdsStart(hand.claim)) {
        // Started or ended by hand meanwhile: passed over until it is idle again.
        hand.life->releaseStart(hand.claim);
        move(hand.entry, Entry::Parked, parked, parked.end());
        return false;
    }
    move(hand.entry, Entry::Running, running, running.end());
    setCounted(hand.entry, task->countAsRunning());
    // Its work may wait, in an event loop, for those behind it.
    if (pendingCount > 0 && countedRunning < maxRunning && thread() == QThread::currentThread())
        share->postDispatch();
    return true;
}

// Called with the lock held: a subclass's dequeueTask() has kept what it got from the base.
void TasksQueue::Private::letGo(TasksQueueHand &hand)
{
    Entry *entry = std::exchange(hand.entry, nullptr);
    if (!entry)
        return;
    hand.life->releaseStart(hand.claim);
    if (entry->stay == hand.stay && entry->place == Entry::Claimed)
        takeOut(entry);
}

// The work threw: its slot is free.
void TasksQueue::Private::abandonStart(const TasksQueueHand &hand)
{
    const Lock locker(&share->mutex);
    if (!share->queue() || hand.entry->stay != hand.stay)
        return;
    Task *task = hand.entry->task;
    forget(hand.entry);
    task->setQueue(nullptr);
}

void TasksQueue::Private::takeFromOtherQueue(Task *task)
{
    const Share other = task->d->queueShare();
    if (!other || other == share || task->priority() < 0 || task->priority() > q->maxPriority())
        return;
    const TasksQueueVisit visit(other);
    if (TasksQueue *queue = visit.queue())
        queue->removeTask(task);
}

void TasksQueue::Private::recount(const Share &share, const Task *task)
{
    const Lock locker(&share->mutex);
    if (!share->queue())
        return;
    auto *queue = share->queue()->d.get();
    Entry *entry = queue->entryOf(task);
    if (entry && (entry->place == Entry::Running || entry->place == Entry::Claimed))
        queue->setCounted(entry, task->countAsRunning());
}

TasksQueue::Private::Entry *TasksQueue::Private::entryOf(const Task *task) const
{
    return task->d->queueEntry(share.get());
}

// A new stay begins when the queue does not hold the task.
TasksQueue::Private::Entry *TasksQueue::Private::ensureEntry(Task *task)
{
    if (Entry *held = entryOf(task))
        return held;
    if (!share->queue())
        return nullptr;
    if (unused.empty()) {
        unused.emplace_back();
        unused.front().self = unused.begin();
    }
    Entry *entry = &unused.front();
    if (!task->d->claimForQueue(share, entry))
        return nullptr;
    entry->task = task;
    entry->stay = ++lastStay;
    move(entry, Entry::Outside, outside, outside.end());
    return entry;
}

// Or running. A subclass may put back what its dequeueTask() is given.
bool TasksQueue::Private::isBeingStarted(const Entry *entry) const
{
    if (entry->place == Entry::Claimed)
        return !innermostHand || innermostHand->entry != entry;
    return entry->place == Entry::Running && !TaskLife::of(entry->task)->isFree();
}

bool TasksQueue::Private::isPending(const Task *task) const
{
    const Entry *entry = entryOf(task);
    return entry && entry->isPending();
}

bool TasksQueue::Private::insert(Task *task, EnqueueMode mode)
{
    Entry *entry = ensureEntry(task);
    if (!entry)
        return false;
    const int priority = task->priority();
    Entries &level = ready[priority];
    if (entry->claim != 0)
        TaskLife::of(task)->releaseStart(std::exchange(entry->claim, 0));
    move(entry, Entry::Ready, level, mode == Prepend ? level.begin() : level.end());
    entry->priority = priority;
    entry->order = mode == Prepend ? --firstOrder : ++lastOrder;
    // A pass that has looked already must not make the queue Idle.
    ++requests;
    TasksQueueClearing *clearing = clearingOfThisThread();
    if (clearing && clearing->isTreatingPending) {
        entry->clearing = clearing;
        ++clearing->added;
    }
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

Task *TasksQueue::Private::takeNextIdle(TasksQueueHand *hand)
{
    // The slot is taken with the task: other threads dispatch at the same time.
    if (hand && countedRunning >= maxRunning) {
        hand->isFull = true;
        return nullptr;
    }
    while (Entry *entry = nextReady()) {
        if (hand && hand->take(entry)) {
            move(entry, Entry::Claimed, claimed, claimed.end());
            setCounted(entry, entry->task->countAsRunning());
            return entry->task;
        }
        if (!hand && entry->task->isIdle()) {
            takeOut(entry);
            return entry->task;
        }
        // Out of the way of every later dispatch, until the task is idle again and gets its place back.
        move(entry, Entry::Parked, parked, parked.end());
        const TaskLife *life = TaskLife::of(entry->task).get();
        if (life->isFree() && life->task()) {
            // It was set idle meanwhile: the call that told of it waits for the lock, or has gone by.
            move(entry, Entry::Returned, returned, returned.end());
            returnedByTurn.emplace(entry->turn(), entry);
        }
    }
    return nullptr;
}

void TasksQueue::Private::takeOut(Entry *entry)
{
    move(entry, Entry::Outside, outside, outside.end());
}

void TasksQueue::Private::follow(Entry *entry)
{
    entry->isFollowed = true;
    entry->connectionType = connectionType;
}

void TasksQueue::Private::unfollow(Entry *entry)
{
    entry->isFollowed = false;
}

void TasksQueue::Private::forget(Entry *entry)
{
    if (!entry)
        return;
    unfollow(entry);
    if (entry->claim != 0)
        TaskLife::of(entry->task)->releaseStart(entry->claim);
    entry->task->d->releaseQueueEntry(share.get());
    move(entry, Entry::Unused, unused, unused.begin());
    *entry = {.self = entry->self};
}

void TasksQueue::Private::forgetAll(Entries &entries)
{
    while (!entries.empty())
        forget(&entries.front());
}

void TasksQueue::Private::forgetEverything()
{
    while (!ready.empty())
        forget(&ready.begin()->second.front());
    for (Entries *entries : {&parked, &returned, &claimed, &running, &outside})
        forgetAll(*entries);
    for (TasksQueueClearing *clearing : clearings) {
        forgetAll(clearing->pending);
        forgetAll(clearing->running);
    }
}

// All tasks in one step: pending ones in the order in which they would be taken, running ones in that of their start.
void TasksQueue::Private::takeAll(TasksQueueClearing &clearing)
{
    std::vector<Entry *> taken;
    for (auto &level : ready) {
        for (Entry &entry : level.second)
            taken.push_back(&entry);
    }
    const auto takenReady = taken.size();
    for (Entries *entries : {&parked, &returned}) {
        for (Entry &entry : *entries)
            taken.push_back(&entry);
    }
    if (taken.size() > takenReady)
        std::sort(taken.begin(), taken.end(), [](auto *left, auto *right) { return left->turn() < right->turn(); });
    for (Entry &entry : claimed)
        taken.push_back(&entry);
    const auto moveTo = [&](Entries &to, Entry *entry) {
        if (entry->claim != 0)
            TaskLife::of(entry->task)->releaseStart(entry->claim);
        entry->leaving = &to;
        entry->clearing = &clearing;
        move(entry, Entry::Leaving, to, to.end());
    };
    for (Entry *entry : taken)
        moveTo(clearing.pending, entry);
    while (!running.empty())
        moveTo(clearing.running, &running.front());
    clearings.push_back(&clearing);
}

// What handlers have added while pending tasks were treated: dropped, or treated as running when it has started.
void TasksQueue::Private::treatRunning(TasksQueueClearing &clearing)
{
    const Lock locker(&share->mutex);
    clearing.isTreatingPending = false;
    const auto isAdded = [&clearing](const Entry &entry) { return entry.clearing == &clearing; };
    std::vector<Entry *> added;
    if (clearing.added > 0) {
        const auto collect = [&](Entries &entries) {
            for (Entry &entry : entries) {
                if (isAdded(entry))
                    added.push_back(&entry);
            }
        };
        for (auto &level : ready)
            collect(level.second);
        for (Entries *entries : {&parked, &returned, &claimed, &running})
            collect(*entries);
    }
    for (Entry *entry : added) {
        if (entry->place != Entry::Running) {
            forget(entry);
            continue;
        }
        entry->leaving = &clearing.running;
        move(entry, Entry::Leaving, clearing.running, clearing.running.end());
    }
    for (Entry &entry : clearing.running)
        setCounted(&entry, false);
}

// Handlers may destroy tasks that are still to come, which takes them out of the list. Returns false when one of them
// has destroyed the queue.
bool TasksQueue::Private::endCleared(Entries &entries, ClearPolicy policy, const Error &error)
{
    const Share shared = share;
    TasksQueue *const queue = q;
    for (;;) {
        std::optional<TaskVisit> visit;
        Task *task = nullptr;
        {
            const Lock locker(&shared->mutex);
            if (!shared->queue())
                return false;
            if (entries.empty())
                return true;
            task = entries.front().task;
            visit.emplace(TaskLife::of(task));
            clearingOfThisThread()->treated = task;
            forget(&entries.front());
        }
        interleavingPoint("end cleared");
        if (visit->isInside())
            queue->clearTask(task, policy, error);
    }
}

TasksQueueClearing *TasksQueue::Private::clearingOfThisThread() const
{
    const auto found = std::find_if(clearings.rbegin(), clearings.rend(), [](const TasksQueueClearing *clearing) {
        return clearing->thread == QThread::currentThreadId();
    });
    return found == clearings.rend() ? nullptr : *found;
}

// By whatever type the queue listens. The lock is held while the task is looked up: a task that is destroyed on another
// thread waits to be forgotten, and then for the visit.
void TasksQueue::Private::onTaskEnded(const Share &share, const std::shared_ptr<TaskLife> &life, const Entry *entry,
                                      quint64 stay)
{
    interleavingPoint("task ended");
    const TasksQueueVisit visit(share);
    TasksQueue *const queue = visit.queue();
    if (!queue)
        return;
    if (!life->task())
        return queue->onTaskFinished(nullptr);
    Handling handling;
    {
        const Lock locker(&share->mutex);
        if (!share->queue() || entry->stay != stay || entry->place == Entry::Leaving)
            return;
        handling.visit.emplace(life);
        handling.task = entry->task;
    }
    if (handling.visit->isInside())
        queue->onTaskFinished(handling.task);
}

void TasksQueue::Private::onTaskDestroyed(const Share &share, Task *task)
{
    interleavingPoint("task destroyed");
    const TasksQueueVisit visit(share);
    TasksQueue *const queue = visit.queue();
    if (!queue) {
        // On another thread, it is letting go of its tasks.
        const Lock locker(&share->mutex);
        return;
    }
    const Destruction destruction(share.get(), queue->d->thread() != QThread::currentThread());
    const NothingLeaves here;
    queue->onTaskDestroyed(task);
    // What a subclass has left.
    const Lock locker(&share->mutex);
    if (share->queue())
        queue->d->forget(queue->d->entryOf(task));
}

// The task says what happens to it, behind the handlers. The queue reacts where the connection type says, as if it were
// connected, and not when it does not follow the task.
template <typename Call>
void TasksQueue::Private::hear(const Share &share, Task *task, Call call)
{
    const Entry *entry = nullptr;
    quint64 stay = 0;
    Qt::ConnectionType type = Qt::AutoConnection;
    {
        const Lock locker(&share->mutex);
        entry = share->queue() ? share->queue()->d->entryOf(task) : nullptr;
        if (!entry || !entry->isFollowed)
            return;
        stay = entry->stay;
        type = entry->connectionType;
        if (type == Qt::QueuedConnection)
            return share->post([share, entry, stay, call = std::move(call)] { call(share, entry, stay); });
    }
    if (type == Qt::DirectConnection)
        return call(share, entry, stay);
    const TasksQueueVisit visit(share);
    if (TasksQueue *queue = visit.queue())
        QMetaObject::invokeMethod(
            queue->d.get(), [share, entry, stay, call = std::move(call)] { call(share, entry, stay); }, type);
}

void TasksQueue::Private::onTaskAnnounced(const Share &share, Task *task)
{
    hear(share, task,
         [life = TaskLife::of(task)](const Share &shared, const Entry *entry, quint64 stay) {
             onTaskEnded(shared, life, entry, stay);
         });
}

void TasksQueue::Private::onTaskPriorityChanged(const Share &share, Task *task)
{
    hear(share, task, readd);
}

// The run that the queue started is over, and the slot free, without the task's being touched; or a task that was
// passed over gets its place back.
bool TasksQueue::Private::onTaskIdle(const Share &share, const Task *task, bool isReset)
{
    const Lock locker(&share->mutex);
    if (!share->queue())
        return false;
    auto *queue = share->queue()->d.get();
    Entry *entry = queue->entryOf(task);
    if (entry && entry->place == Entry::Parked) {
        queue->move(entry, Entry::Returned, queue->returned, queue->returned.end());
        queue->returnedByTurn.emplace(entry->turn(), entry);
        share->postDispatch();
        return false;
    }
    if (!entry || !isReset || (entry->place != Entry::Running && entry->place != Entry::Claimed))
        return false;
    const bool isDirect = entry->connectionType == Qt::DirectConnection;
    queue->forget(entry);
    if (!isDirect)
        share->postDispatch();
    return isDirect;
}

void TasksQueue::Private::readd(const Share &share, const Entry *entry, quint64 stay)
{
    interleavingPoint("readd");
    const TasksQueueVisit visit(share);
    std::optional<TaskVisit> taskVisit;
    Task *task = nullptr;
    {
        const Lock locker(&share->mutex);
        if (!visit.isInside() || entry->stay != stay)
            return;
        task = entry->task;
        taskVisit.emplace(TaskLife::of(task));
    }
    if (taskVisit->isInside() && visit.queue())
        visit.queue()->readdTask(task);
}

TasksQueue::Private::Entries &TasksQueue::Private::listOf(const Entry &entry)
{
    switch (entry.place) {
    case Entry::Unused:
        return unused;
    case Entry::Outside:
        return outside;
    case Entry::Claimed:
        return claimed;
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
    return *entry.leaving;
}

// The only way from list to list: keeps the counts, and no empty list among the ready ones. What clear() takes stays
// counted until it comes to the running ones.
void TasksQueue::Private::move(Entry *entry, Entry::Place place, Entries &to, Entries::iterator before)
{
    const Entry::Place left = entry->place;
    Entries &from = listOf(*entry);
    const bool wasPending = entry->isPending();
    to.splice(before, from, entry->self);
    entry->place = place;
    pendingCount.add(int(entry->isPending()) - int(wasPending));
    if (entry->isCounted && place != Entry::Claimed && place != Entry::Running && place != Entry::Leaving)
        setCounted(entry, false);
    if (left == Entry::Returned)
        returnedByTurn.erase(entry->turn());
    if (left == Entry::Ready && from.empty())
        ready.erase(entry->priority);
}

void TasksQueue::Private::setCounted(Entry *entry, bool isCounted)
{
    countedRunning.add(int(isCounted) - int(entry->isCounted));
    entry->isCounted = isCounted;
}

TasksQueue::TasksQueue(QObject *parent) : QObject(parent), d(std::make_unique<Private>(this))
{
    // As in BaseTask: tasks of several threads may be the first ones to guard their queue.
    const QPointer<TasksQueue> guard(this);
}

TasksQueue::~TasksQueue()
{
    d->share->close([this] { d->forgetEverything(); });
    // A queue that was moved leaves its private part, which reacts to the tasks, where it was made.
    const QThread *reacting = d->thread();
    if (reacting && reacting != QThread::currentThread() && !reacting->isFinished())
        d.release()->deleteLater();
}

QString TasksQueue::name() const
{
    const Lock locker(&d->share->mutex);
    return d->name;
}

void TasksQueue::setName(const QString &name)
{
    const Lock locker(&d->share->mutex);
    d->name = name;
}

TasksQueue::State TasksQueue::state() const
{
    return d->state;
}

int TasksQueue::maxPriority() const
{
    return d->maxPriority;
}

void TasksQueue::setMaxPriority(int priority)
{
    const Lock locker(&d->share->mutex);
    d->maxPriority = priority;
}

int TasksQueue::maxRunningTasksCount() const
{
    return d->maxRunning;
}

void TasksQueue::setMaxRunningTasksCount(int count)
{
    const Lock locker(&d->share->mutex);
    d->maxRunning = count;
}

Qt::ConnectionType TasksQueue::connectionType() const
{
    const Lock locker(&d->share->mutex);
    return d->connectionType;
}

void TasksQueue::setConnectionType(Qt::ConnectionType type)
{
    const Lock locker(&d->share->mutex);
    d->connectionType = type;
}

TasksQueue::CleanupMode TasksQueue::cleanupMode() const
{
    const Lock locker(&d->share->mutex);
    return d->cleanupMode;
}

void TasksQueue::setCleanupMode(CleanupMode mode)
{
    const Lock locker(&d->share->mutex);
    d->cleanupMode = mode;
}

TasksQueue::TaskErrorPolicy TasksQueue::taskErrorPolicy() const
{
    const Lock locker(&d->share->mutex);
    return d->errorPolicy;
}

void TasksQueue::setTaskErrorPolicy(TaskErrorPolicy policy)
{
    const Lock locker(&d->share->mutex);
    d->errorPolicy = policy;
}

void TasksQueue::append(Task *task)
{
    const TasksQueueVisit visit(d->share);
    if (task && TaskLife::of(task)->isFree())
        addTask(task, Append);
    if (visit.isInside())
        tryExec();
}

void TasksQueue::append(const QList<Task *> &tasks)
{
    const TasksQueueVisit visit(d->share);
    // Taking a task from another queue may have that one start work, which may destroy the others.
    std::vector<std::pair<Task *, std::shared_ptr<TaskLife>>> held;
    held.reserve(size_t(tasks.size()));
    for (Task *task : tasks) {
        if (task)
            held.emplace_back(task, TaskLife::of(task));
    }
    for (const auto &[task, life] : held) {
        if (visit.isInside() && life->task() && life->isFree())
            addTask(task, Append);
    }
    if (visit.isInside())
        tryExec();
}

void TasksQueue::prepend(Task *task)
{
    if (!task || !TaskLife::of(task)->isFree())
        return;
    const TasksQueueVisit visit(d->share);
    addTask(task, Prepend);
    if (visit.isInside())
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
    const Private::Share share = d->share;
    const TasksQueueVisit visit(share);
    Private::Entry *entry = nullptr;
    quint64 stay = 0;
    {
        const Lock locker(&share->mutex);
        if (!d->isPending(task))
            return;
        entry = d->entryOf(task);
        stay = entry->stay;
        d->takeOut(entry);
    }
    append(task);
    const Lock locker(&share->mutex);
    // Not taken again: it is no longer idle, or its new priority is refused.
    if (visit.isInside() && entry->stay == stay && entry->place == Private::Entry::Outside)
        d->forget(entry);
}

void TasksQueue::removeTask(Task *task)
{
    if (!task)
        return;
    const TasksQueueVisit visit(d->share);
    TasksQueueShare *const share = visit.share();
    Handling *handling = Handling::of(task);
    {
        // Unlinked before the dispatch, which would start the very task that is taken out.
        const Lock locker(&share->mutex);
        if (!d->isPending(task))
            task->setQueue(nullptr);
        d->forget(d->entryOf(task));
        if (handling)
            handling->drop();
    }
    // Nothing of the task is read from here on.
    if (handling && handling->visit)
        handling->visit->leave();
    tryExec();
}

bool TasksQueue::isEmpty() const
{
    return d->pendingCount == 0;
}

int TasksQueue::pendingTasksCount() const
{
    return d->pendingCount;
}

int TasksQueue::runningTasksCount() const
{
    return d->countedRunning;
}

bool TasksQueue::hasRunningTasks() const
{
    return runningTasksCount() > 0;
}

int TasksQueue::count() const
{
    return runningTasksCount() + pendingTasksCount();
}

// One step for other threads. What their ends are, and what handlers add meanwhile, is nobody's business but this
// call's.
void TasksQueue::clear(ClearPolicy policy, const Error &error)
{
    const Private::Share share = d->share;
    const TasksQueueVisit visit(share);
    const Error outcome = error;
    TasksQueueClearing clearing{.thread = QThread::currentThreadId(),
                                .endsTasks = policy == Finish || policy == Cancel};
    const auto cleared = qScopeGuard([&] {
        const Lock locker(&share->mutex);
        if (!share->queue())
            return;
        // Something is left when a handler threw.
        d->forgetAll(clearing.pending);
        d->forgetAll(clearing.running);
        std::erase(d->clearings, &clearing);
    });
    {
        const Lock locker(&share->mutex);
        if (!share->queue())
            return;
        d->takeAll(clearing);
    }
    if (!d->endCleared(clearing.pending, policy, outcome))
        return;
    d->treatRunning(clearing);
    d->endCleared(clearing.running, policy, outcome);
}

void TasksQueue::pause()
{
    setState(Paused);
}

void TasksQueue::resume()
{
    const TasksQueueVisit visit(d->share);
    setState(Working);
    if (visit.isInside())
        tryExec();
}

void TasksQueue::tryExec()
{
    const TasksQueueVisit visit(d->share);
    TasksQueueShare *const share = visit.share();
    if (!visit.isInside())
        return;
    quint64 request = 0;
    bool isPaused = false;
    bool isPutOff = false;
    {
        const Destruction *destruction = Destruction::of(share);
        const Lock locker(&share->mutex);
        if (destruction && destruction->isForeign)
            return share->postDispatch();
        isPutOff = destruction && GroupLocker::isAnyHeld();
        if (!share->mayDispatch())
            return;
        if (!isPutOff)
            share->setServed();
        request = ++d->requests;
        isPaused = d->state == Paused;
    }
    interleavingPoint("dispatch");
    if (isPutOff)
        return TasksQueueShare::dispatch(share->shared_from_this());
    if (isPaused) {
        qCInfo(tasksLog) << name() << "paused";
        return;
    }
    // Whoever asked since the pass has looked goes on, and makes the queue Idle if that is right.
    const auto isServed = [this, &request] {
        return d->requests == request && d->countedRunning == 0 && d->state == Working;
    };
    if (isEmpty() && !hasRunningTasks()) {
        qCInfo(tasksLog) << "Empty queue " << name() << "--> Idle.";
        return d->changeState(Idle, isServed);
    }
    if (state() == Idle) {
        qCInfo(tasksLog) << "Idle queue" << name() << " --> Working.";
        d->changeState(Working, [this] { return d->state == Idle; });
    }
    if (!visit.isInside())
        return;
    qCInfo(tasksLog) << "Running tasks:" << runningTasksCount() << "Max running tasks:" << maxRunningTasksCount();
    if (!d->startPending(request) || hasRunningTasks() || state() != Working)
        return;
    qCInfo(tasksLog) << "Queue  " << name() << "--> Idle.";
    qCInfo(tasksLog) << "Queue size:" << pendingTasksCount();
    d->changeState(Idle, isServed);
}

void TasksQueue::exec(Task *task)
{
    if (task && !task->isFinished())
        task->exec();
}

void TasksQueue::enqueueTask(Task *task, EnqueueMode mode)
{
    if (!task)
        return;
    enum {
        Inserted,
        IsPending,
        IsRefused,
        IsLeaving,
        IsElsewhere
    } outcome = Inserted;
    int priority = 0;
    {
        const Lock locker(&d->share->mutex);
        priority = task->priority();
        Private::Entry *entry = d->entryOf(task);
        if (d->isPending(task))
            outcome = IsPending;
        // Started on another thread since the caller has looked whether it may be added.
        else if (entry && d->isBeingStarted(entry))
            outcome = IsElsewhere;
        // Its clear() is about to end it, or has taken it out for the handler that adds it.
        else if (entry && entry->place == Private::Entry::Leaving
                 && (entry->clearing->endsTasks || entry->clearing->thread == QThread::currentThreadId()))
            outcome = IsLeaving;
        else if (priority < 0 || priority > d->maxPriority)
            outcome = IsRefused;
        else {
            if (entry && entry->place == Private::Entry::Leaving)
                d->forget(entry);
            // Appended to another queue at the same time, on another thread: that came last, and holds it.
            if (d->insert(task, mode))
                d->follow(d->entryOf(task));
            else
                outcome = IsElsewhere;
            // Ended on another thread before the queue could hear of that. An end that is still to come is heard of.
            if (outcome == Inserted && task->isFinished()) {
                d->forget(d->entryOf(task));
                outcome = IsElsewhere;
            }
        }
    }
    if (outcome == IsPending)
        qCWarning(tasksLog) << "Task" << task->name() << "already in queue";
    else if (outcome == IsRefused)
        qCWarning(tasksLog) << "Invalid priority" << priority << "of task" << task->name();
    else if (outcome == IsElsewhere)
        task->d->restoreQueue();
    else if (outcome == Inserted)
        qCInfo(tasksLog) << "Task" << task->name() << "appended, queue.count=" << pendingTasksCount();
}

Task *TasksQueue::dequeueTask()
{
    if (isEmpty())
        return nullptr;
    const Lock locker(&d->share->mutex);
    return d->takeNextIdle(TasksQueueHand::emptyOf(d->share.get()));
}

void TasksQueue::addTask(Task *task, EnqueueMode mode)
{
    if (!task)
        return;
    const TasksQueueVisit visit(d->share);
    const std::shared_ptr<TaskLife> life = TaskLife::of(task);
    d->takeFromOtherQueue(task);
    if (!visit.isInside() || !life->task())
        return;
    task->setQueue(this);
    enqueueTask(task, mode);
}

void TasksQueue::onTaskFinished(Task *task)
{
    const TasksQueueVisit visit(d->share);
    TasksQueueShare *const share = visit.share();
    if (!task) {
        qCDebug(tasksLog) << "Null task finished!";
        tryExec();
        return;
    }
    std::optional<Handling> own;
    Handling *handling = Handling::of(task);
    if (!handling) {
        handling = &own.emplace();
        handling->task = task;
    }
    Private::Entry *entry = nullptr;
    quint64 stay = 0;
    bool clears = false;
    {
        const Lock locker(&share->mutex);
        entry = d->entryOf(task);
        // Also when it was paused since; not when another run has begun.
        if (!entry || TaskLife::of(task)->endedRun() == 0)
            return;
        stay = entry->stay;
        clears = d->errorPolicy == ClearOnError && task->hasError();
        handling->deletes = !clears && d->cleanupMode == DeleteFinished;
    }
    if (clears) {
        if (handling->visit)
            handling->visit->leave();
        return clear(Remove, Error());
    }
    const bool triggersNext = task->triggersNext();
    removeTask(task);
    {
        // What a subclass's removeTask() has left.
        const Lock locker(&share->mutex);
        if (!visit.isInside())
            return;
        if (entry->stay == stay) {
            Private::unfollow(entry);
            handling->drop();
        }
    }
    // The pass before has left nothing to do for this one when all slots are taken, but a line in the log.
    if (triggersNext && (d->state != Working || !d->isFull() || tasksLog().isInfoEnabled()))
        tryExec();
}

void TasksQueue::onTaskDestroyed(Task *task)
{
    if (!task)
        return;
    const TasksQueueVisit visit(d->share);
    removeTask(task);
    if (visit.isInside())
        disconnectTask(task);
}

void TasksQueue::setState(State state)
{
    const TasksQueueVisit visit(d->share);
    d->changeState(state, [] { return true; });
}

void TasksQueue::connectTask(Task *task)
{
    if (!task)
        return;
    const Lock locker(&d->share->mutex);
    if (Private::Entry *entry = d->ensureEntry(task))
        d->follow(entry);
}

void TasksQueue::disconnectTask(Task *task)
{
    if (!task)
        return;
    const Lock locker(&d->share->mutex);
    Private::Entry *entry = d->entryOf(task);
    if (entry && entry->isFollowed)
        Private::unfollow(entry);
}

void TasksQueue::removeRunningTask(Task *task)
{
    if (!task)
        return;
    {
        const Lock locker(&d->share->mutex);
        Private::Entry *entry = d->entryOf(task);
        // What clear() has let go of may be here again, appended on another thread.
        TasksQueueClearing *clearing = d->clearingOfThisThread();
        if (clearing && std::exchange(clearing->treated, nullptr) == task)
            entry = nullptr;
        if (entry && entry->place == Private::Entry::Running)
            d->forget(entry);
        else if (entry && entry->isFollowed)
            Private::unfollow(entry);
    }
    tryExec();
}

void TasksQueue::clearTask(Task *task, ClearPolicy policy, const Error &error)
{
    if (!task)
        return;
    const std::shared_ptr<TaskLife> life = TaskLife::of(task);
    removeRunningTask(task);
    if (!life->task() || task->isFinalizing() || task->isFinished())
        return;
    if (policy == Finish)
        task->finish(error);
    else if (policy == Cancel)
        task->cancel();
}

} // namespace zel
