#include <zel/tasks/GroupTask.h>

#include "BaseTask_p.h"
#include "GroupTask_p.h"
#include "TasksLog.h"

#include <zel/common/UnifiedError.h>
#include <zel/tasks/ComplexTask.h>
#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QPointer>
#include <QSet>
#include <QThread>

#include <algorithm>
#include <utility>

namespace zel {

namespace {

/// Keeps the mutex itself alive: a handler may delete the group while it is held.
class GroupLocker {
public:
    explicit GroupLocker(std::shared_ptr<QRecursiveMutex> mutex) : m_mutex(std::move(mutex))
    {
        m_mutex->lock();
        TaskUse::addHeldLocks(1);
        ++held;
    }
    ~GroupLocker()
    {
        m_mutex->unlock();
        TaskUse::addHeldLocks(-1);
        if (--held > 0)
            return;
        for (const auto &call : std::exchange(calls, {}))
            call();
    }
    Q_DISABLE_COPY_MOVE(GroupLocker)

    /// Calls when this thread holds no group's lock any more, for what takes the lock of a queue: a queue that ends
    /// tasks holds it while the group of such a task takes its own.
    static void callUnlocked(std::function<void()> call) { calls.push_back(std::move(call)); }

private:
    static thread_local int held;
    static thread_local std::vector<std::function<void()>> calls;
    const std::shared_ptr<QRecursiveMutex> m_mutex;
};

thread_local int GroupLocker::held = 0;
thread_local std::vector<std::function<void()>> GroupLocker::calls;

/// Guards the nodes of all groups: they are walked from the inside outwards, the groups' locks taken inwards.
constinit QBasicMutex nodesMutex;

/// Called with the lock of the nodes held: \a node and what contains it.
QSet<const GroupNode *> withContainers(const std::shared_ptr<GroupNode> &node)
{
    QSet<const GroupNode *> seen;
    std::vector<std::shared_ptr<GroupNode>> open{node};
    while (!open.empty()) {
        const std::shared_ptr<GroupNode> current = std::move(open.back());
        open.pop_back();
        if (seen.contains(current.get()))
            continue;
        seen.insert(current.get());
        for (const auto &container : current->containers) {
            if (auto alive = container.lock())
                open.push_back(std::move(alive));
        }
    }
    return seen;
}

} // namespace

void TaskLink::close()
{
    const QMutexLocker locker(&m_mutex);
    m_receiver = nullptr;
}

void GroupTask::Private::onChildStarted(const Child &child, quint64 run, quint64 use)
{
    const GroupLocker locker(mutex);
    if (!child->isListed)
        return;
    child->hasShare = true;
    setUnstarted(child, false);
    // Unless it was stopped meanwhile.
    if (run > child->handledRun) {
        child->isLeftOver = false;
        setPending(child, true);
    }
    if (use == link->use && q->isIdle())
        q->setRunning();
}

void GroupTask::Private::onChildFinished(const Child &child, quint64 run, quint64 use, const Error &error)
{
    const QPointer<GroupTask> self(q);
    const GroupLocker locker(mutex);
    if (!child->isListed)
        return;
    child->handledRun = qMax(child->handledRun, run);
    // It runs again; this is an earlier end.
    if (run <= child->begunRun)
        return;
    setPending(child, false);
    setUnstarted(child, false);
    if (cleanupPolicy == DeleteWhenFinished)
        unlistAndDelete(child);
    if (q->isFinished())
        return;

    if (error.hasError() && use == link->use && !child->isLeftOver) {
        switch (childFailurePolicy) {
        case FailFast:
            q->finish(error);
            if (self && use == link->use)
                cancelUnfinishedChildren();
            return;
        case ContinueOnFailure:
            errors.append(error);
            break;
        case CancelIdleOnFailure:
            errors.append(error);
            cancelIdleChildren();
            break;
        default:
            break;
        }
    }
    if (self && (use == link->use || q->isRunning()))
        checkFinished();
}

void GroupTask::Private::onChildProgress(const Child &child, int value, int total)
{
    const GroupLocker locker(mutex);
    if (!child->isListed || !child->hasShare)
        return;
    progressValue += quint32(value) - std::exchange(child->value, quint32(value));
    progressTotal += quint32(total) - std::exchange(child->total, quint32(total));
    if (total == 0 && !std::exchange(zeroProgressReported, true)) {
        const TaskHold hold(*child->ref);
        qCDebug(tasksLog) << "Task" << (hold.task() ? hold.task()->name() : QString())
                          << "has zero maximum progress. This may lead to inconsistent progress reporting, and it "
                             "usually indicates that the progress reporting for the current GroupTask"
                          << q->name() << "should be reworked";
    }
    q->setProgress(int(progressValue), int(progressTotal));
}

void GroupTask::Private::startAfresh()
{
    const QPointer<GroupTask> self(q);
    const GroupLocker locker(mutex);
    ++link->use;
    for (const Child &child : children) {
        child->isLeftOver = true;
        child->handledRun = child->begunRun;
        setPending(child, false);
    }
    errors.clear();
    zeroProgressReported = false;
    q->setCanceled(false);
    q->clearError();
    if (self)
        q->setIdle();
}

quint64 GroupTask::Private::runOf(const BaseTask *task)
{
    return BaseTask::Private::of(task)->run;
}

bool GroupTask::Private::lists(const BaseTask *task) const
{
    const GroupLocker locker(mutex);
    const auto stay = stays.constFind(task);
    return stay != stays.cend() && (*stay)->isListed && (*stay)->task() == task;
}

bool GroupTask::Private::hasAdmitted(quint64 earlier) const
{
    const GroupLocker locker(mutex);
    return admissions != earlier || isAnyStartedAgain();
}

void GroupTask::Private::appendTask(BaseTask *task)
{
    if (!task)
        return;
    const GroupTask *group = groupOf(task);
    if (refuses(task, group))
        return;
    if (lists(task)) {
        const Child child = stays.value(task);
        if (!task->isFinished() && (task->isIdle() || child->isLeftOver))
            awaitAgain(child);
        admissions += !child->isFinished;
        return;
    }
    if (q->isCanceled() || cancelingUse == link->use) {
        task->cancel();
        return;
    }
    if (q->isFinished()) {
        task->finish(Error(GeneralError, GroupTask::tr("The group for the task was already finished.")));
        return;
    }

    ++admissions;
    const auto child = std::make_shared<GroupChild>();
    child->ref = BaseTask::Private::of(task)->ref();
    children.append(child);
    pending.append(child);
    const Child earlier = std::exchange(stays[task], child);
    // Its share is counted already, and replaced; that of another task which had the address stays in the sums.
    if (earlier && earlier->ref == child->ref) {
        child->value = earlier->value;
        child->total = earlier->total;
    }
    if (group) {
        child->node = of(group)->node;
        const QMutexLocker locker(&nodesMutex);
        child->node->containers.push_back(node);
    }

    const QPointer<GroupTask> self(q);
    const auto goesOn = [&self, &child] { return self && child->isListed && child->task(); };
    Q_EMIT q->taskAppended(task);
    if (goesOn() && !task->isFinished())
        addShare(child, task);
    if (goesOn())
        connectChild(child, task);
}

// One that ended here and was set idle, to be started again, or one that is still at work from before a fresh start.
void GroupTask::Private::awaitAgain(const Child &child)
{
    child->isLeftOver = false;
    // Ends that are on their way are those of earlier runs.
    if (child->task()->isIdle()) {
        child->begunRun = runOf(child->task());
        setUnstarted(child, true);
    }
    setPending(child, true);
}

GroupTask *GroupTask::Private::groupOf(BaseTask *task)
{
    if (const auto complexTask = qobject_cast<ComplexTask *>(task))
        return complexTask->groupTask();
    return qobject_cast<GroupTask *>(task);
}

bool GroupTask::Private::isWithin(const GroupTask *other) const
{
    const QMutexLocker locker(&nodesMutex);
    return withContainers(node).contains(of(other)->node.get());
}

void GroupTask::Private::handOverContainers(GroupTask *successor)
{
    const QMutexLocker locker(&nodesMutex);
    auto &to = of(successor)->node->containers;
    to.insert(to.end(), node->containers.begin(), node->containers.end());
    node->containers.clear();
    node->successor = of(successor)->node;
}

bool GroupTask::Private::refuses(const BaseTask *task, const GroupTask *group) const
{
    if (!group || !isWithin(group))
        return false;
    qCWarning(tasksLog) << "Task" << task->name() << "cannot be a child of group" << q->name()
                        << "which it is or contains";
    return true;
}

void GroupTask::Private::addShare(const Child &child, const BaseTask *task)
{
    const int value = task->currentProgress();
    const int total = task->totalProgress();
    child->hasShare = true;
    progressValue += quint32(value) - std::exchange(child->value, quint32(value));
    progressTotal += quint32(total) - std::exchange(child->total, quint32(total));
    q->setProgress(int(progressValue), int(progressTotal));
}

void GroupTask::Private::connectChild(const Child &child, BaseTask *task)
{
    // One that was paused before its start gets idle again.
    setUnstarted(child, task->isIdle() || task->isPaused());
    // Start and end are taken note of where they happen, and handled where the connection type says: the error and
    // the run are those of the moment, and the child may be gone by the time of the handling.
    child->link = link;
    child->connectionType = connectionType;
    child->started = connect(
        task, &BaseTask::started, q, [this, child, task] { reportStart(this, child, task); }, Qt::DirectConnection);
    child->finished = connect(
        task, &BaseTask::finished, q, [this, child, task] { reportEnd(this, child, task); }, Qt::DirectConnection);
    child->progress = connect(
        task, &BaseTask::progress, q, [this, child](int value, int total) { onChildProgress(child, value, total); },
        connectionType);
    // It came finished, or has finished on another thread before the connections were there.
    if (task->isFinished())
        reportEnd(this, child, task);
}

void GroupTask::Private::reportStart(Private *group, const Child &child, const BaseTask *task)
{
    const quint64 run = runOf(task);
    // Unless an earlier handler of started() has ended it, which is reported already.
    if (child->reportedRun < run)
        child->begunRun = run;
    auto handle = [group, child, run, use = child->link->use.load()] { group->onChildStarted(child, run, use); };
    child->link->deliver(std::move(handle), child->connectionType);
}

// Once per run of the child, on the thread that ends it. Not where an earlier handler of finished() began another run.
void GroupTask::Private::reportEnd(Private *group, const Child &child, const BaseTask *task)
{
    const quint64 run = runOf(task);
    if (!task->isFinished() || child->reportedRun.exchange(run) == run)
        return;
    auto handle = [group, child, run, use = child->link->use.load(), error = task->error()] {
        group->onChildFinished(child, run, use, error);
    };
    child->link->deliver(std::move(handle), child->connectionType);
}

void GroupTask::Private::checkFinished()
{
    if (waitMode == NoWait)
        return;
    while (!pending.isEmpty() && pending.first()->isGone())
        setPending(pending.first(), false);
    if (!pending.isEmpty() || isAnyStartedAgain())
        return;
    cleanup();
    q->finish(Error(NoError));
}

// What tells the group of it is on its way.
bool GroupTask::Private::isAnyStartedAgain() const
{
    return std::any_of(children.begin(), children.end(),
                       [](const Child &child) { return child->begunRun > child->handledRun && !child->isGone(); });
}

void GroupTask::Private::cleanup()
{
    if (cleanupPolicy != DeleteWithGroup)
        return;
    while (!children.isEmpty())
        unlistAndDelete(children.first());
}

void GroupTask::Private::setPending(const Child &child, bool isPending)
{
    if (child->isFinished == !isPending)
        return;
    child->isFinished = !isPending;
    if (isPending)
        pending.append(child);
    else
        pending.remove(child);
}

void GroupTask::Private::setUnstarted(const Child &child, bool isUnstarted)
{
    if (child->isUnstarted == isUnstarted)
        return;
    child->isUnstarted = isUnstarted;
    if (isUnstarted)
        unstarted.append(child);
    else
        unstarted.remove(child);
}

void GroupTask::Private::unlist(const Child &child)
{
    if (!std::exchange(child->isListed, false))
        return;
    const Child held = child;
    setPending(held, false);
    setUnstarted(held, false);
    children.remove(held);
    if (!held->node)
        return;
    const QMutexLocker locker(&nodesMutex);
    for (auto contained = held->node; contained; contained = contained->successor.lock())
        std::erase_if(contained->containers, [this](const auto &container) { return container.lock() == node; });
}

void GroupTask::Private::disconnectChild(const Child &child)
{
    QObject::disconnect(std::exchange(child->progress, {}));
    QObject::disconnect(std::exchange(child->started, {}));
    QObject::disconnect(std::exchange(child->finished, {}));
}

void GroupTask::Private::unlistAndDelete(const Child &child)
{
    const Child held = child;
    unlist(held);
    const TaskHold hold(*held->ref);
    BaseTask *task = hold.task();
    // One that starts and ends on this thread alone takes those connections with it; what arrives until then finds that
    // it is not listed. Others must not emit while the group is destroyed, which is the receiver.
    if (task && task->thread() == QThread::currentThread() && !BaseTask::Private::of(task)->hadWorkingThread)
        QObject::disconnect(std::exchange(held->progress, {}));
    else
        disconnectChild(held);
    if (task)
        task->deleteLater();
}

void GroupTask::Private::cancelUnfinishedChildren()
{
    stop({children.begin(), children.end()}, cancelSubtasksMode);
}

// Looks only at children that have not been seen to start; at all of them when it may be that one was set idle by hand.
void GroupTask::Private::cancelIdleChildren()
{
    if (const quint64 resets = BaseTask::Private::resets; std::exchange(knownResets, resets) != resets) {
        for (const Child &child : children)
            setUnstarted(child, true);
    }
    QList<Child> idle;
    for (auto next = unstarted.begin(); next != unstarted.end();) {
        const Child child = *next++;
        const TaskHold hold(*child->ref);
        if (hold.task() && hold.task()->isIdle())
            idle.append(child);
        else if (!hold.task() || !hold.task()->isPaused())
            setUnstarted(child, false);
    }
    stop(idle, cancelSubtasksMode);
}

void GroupTask::Private::stop(const QList<Child> &unfinished, CancelSubtasksMode mode)
{
    const QList<Child> stopped = inOrderOfStop(unfinished, mode);
    // No queue starts one of them in the place of another.
    TasksQueueLocks locks;
    addQueues(stopped, locks);
    const auto queuesHold = std::make_shared<TasksQueueHold>(std::move(locks));

    const QPointer<GroupTask> self(q);
    for (const Child &child : stopped) {
        const TaskHold hold(*child->ref);
        BaseTask *task = hold.task();
        if (!task || task->isFinished())
            continue;
        qCDebug(tasksLog) << "Cancelling child task" << task->name();
        if (mode == CancelSubtasks)
            task->cancel();
        else if (mode == FinishSubtasks)
            stopQuietly(task);
        // Its queue hears of no end; nor may this group be left to tell it.
        task = child->task();
        if (mode == FinishSubtasks && task && task->isFinished())
            GroupLocker::callUnlocked([ref = child->ref, run = runOf(task)] { leaveQueue(*ref, run); });
        if (!self)
            break;
    }
    if (self && mode == FinishSubtasks)
        dropStopped(stopped);
    GroupLocker::callUnlocked([queuesHold] {});
}

// Quietly, idle ones go first.
QList<GroupTask::Private::Child> GroupTask::Private::inOrderOfStop(const QList<Child> &unfinished,
                                                                   CancelSubtasksMode mode)
{
    QList<Child> first;
    QList<Child> others;
    for (const Child &child : unfinished) {
        const TaskHold hold(*child->ref);
        if (!hold.task() || hold.task()->isFinished())
            continue;
        const bool isFirst = mode == FinishSubtasks && hold.task()->isIdle();
        (isFirst ? first : others).append(child);
    }
    return first + others;
}

void GroupTask::Private::addQueues(const auto &stopped, TasksQueueLocks &locks)
{
    for (const Child &child : stopped) {
        const TaskHold hold(*child->ref);
        if (const auto task = qobject_cast<Task *>(hold.task())) {
            if (auto lock = TasksQueueHold::lockOf(task))
                locks.insert(std::move(lock));
        }
        if (const GroupTask *group = groupOf(hold.task())) {
            const GroupLocker locker(of(group)->mutex);
            addQueues(of(group)->children, locks);
        }
    }
}

void GroupTask::Private::stopQuietly(BaseTask *task)
{
    const QPointer<BaseTask> guarded(task);
    if (const GroupTask *group = groupOf(task)) {
        const GroupLocker locker(of(group)->mutex);
        of(group)->stop({of(group)->children.begin(), of(group)->children.end()}, FinishSubtasks);
    }
    if (guarded)
        guarded->finalize();
    if (guarded)
        guarded->setFinished();
}

// No finished() comes from children that were stopped quietly: what it would have done is done here.
void GroupTask::Private::dropStopped(const QList<Child> &stopped)
{
    for (const Child &child : stopped) {
        const TaskHold hold(*child->ref);
        // A handler may have run it again.
        if (!child->isListed || (hold.task() && !hold.task()->isFinished()))
            continue;
        setPending(child, false);
        setUnstarted(child, false);
        child->handledRun = hold.task() ? runOf(hold.task()) : child->begunRun.load();
        if (cleanupPolicy == DeleteWhenFinished)
            unlistAndDelete(child);
    }
}

// Unless it has run again.
void GroupTask::Private::leaveQueue(const TaskRef &ref, quint64 run)
{
    const TaskHold hold(ref);
    const auto task = qobject_cast<Task *>(hold.task());
    if (task && task->isFinished() && runOf(task) == run)
        TasksQueueHold::removeFromQueue(task);
}

GroupTask::GroupTask(QObject *parent) : BaseTask(parent), d(std::make_unique<Private>(this))
{
    connect(this, &BaseTask::stateChanged, this, [this](State state) {
        if (previousState() == Finished && state != Finished)
            ++d->link->use;
    });
}

GroupTask::~GroupTask()
{
    BaseTask::Private::of(this)->clearRef();
    TaskUse::waitForOthers(this);
    d->link->close();
    const GroupLocker locker(d->mutex);
    d->cleanup();
    // Connections that are at work on other threads find nothing to do.
    while (!d->children.isEmpty()) {
        const Private::Child child = d->children.first();
        d->unlist(child);
        Private::disconnectChild(child);
    }
}

void GroupTask::append(BaseTask *task)
{
    const GroupLocker locker(d->mutex);
    d->appendTask(task);
}

void GroupTask::append(const QList<BaseTask *> &tasks)
{
    const GroupLocker locker(d->mutex);
    const QPointer<GroupTask> self(this);
    QList<QPointer<BaseTask>> guarded(tasks.cbegin(), tasks.cend());
    for (const QPointer<BaseTask> &task : std::as_const(guarded)) {
        if (self)
            d->appendTask(task);
    }
}

void GroupTask::append(QCoro::Task<Error> coroutine)
{
    const QPointer<Task> task(new Task(std::move(coroutine), nullptr));
    // A coroutine that completed at once has finished its task before the task could be told to delete itself.
    const bool deletesItself = cleanupPolicy() == SelfDelete && !task->isFinished();
    const bool leftAlone = cleanupPolicy() == SelfDelete && task->isFinished();
    task->setDeleteOnFinished(cleanupPolicy() == SelfDelete);
    const QPointer<GroupTask> self(this);
    append(task.data());
    const bool refused = !self || !d->lists(task);
    if (task && (leftAlone || (refused && !deletesItself)))
        task->deleteLater();
}

QList<BaseTask *> GroupTask::subtasks(GetSubtasksModes mode) const
{
    const GroupLocker locker(d->mutex);
    QList<BaseTask *> tasks;
    for (const Private::Child &child : std::as_const(d->children)) {
        const TaskHold hold(*child->ref);
        BaseTask *task = hold.task();
        if (!mode.testFlag(Executable) || qobject_cast<Task *>(task))
            tasks.append(task);
        if (const auto group = qobject_cast<GroupTask *>(task); group && mode.testFlag(Recursive))
            tasks.append(group->subtasks(mode));
    }
    return tasks;
}

QList<Task *> GroupTask::executableSubtasks(bool recursive) const
{
    QList<Task *> tasks;
    const auto found = subtasks(recursive ? Executable | Recursive : GetSubtasksModes(Executable));
    tasks.reserve(found.size());
    for (BaseTask *task : found)
        tasks.append(static_cast<Task *>(task));
    return tasks;
}

int GroupTask::pendingChildrenCount() const
{
    const GroupLocker locker(d->mutex);
    return int(std::count_if(d->children.begin(), d->children.end(), [](const Private::Child &child) {
        const TaskHold hold(*child->ref);
        return hold.task() && !hold.task()->isFinished();
    }));
}

bool GroupTask::isEmpty() const
{
    return d->children.isEmpty();
}

GroupTask::WaitMode GroupTask::waitMode() const
{
    return d->waitMode;
}

void GroupTask::setWaitMode(WaitMode mode)
{
    const GroupLocker locker(d->mutex);
    d->waitMode = mode;
    if (isRunning())
        d->checkFinished();
}

GroupTask::CleanupPolicy GroupTask::cleanupPolicy() const
{
    return d->cleanupPolicy;
}

void GroupTask::setCleanupPolicy(CleanupPolicy policy)
{
    const GroupLocker locker(d->mutex);
    d->cleanupPolicy = policy;
    if (policy == SelfDelete)
        return;
    for (const Private::Child &child : std::as_const(d->children)) {
        const TaskHold hold(*child->ref);
        if (hold.task())
            hold.task()->setDeleteOnFinished(false);
    }
}

GroupTask::CancelSubtasksMode GroupTask::cancelSubtasksMode() const
{
    return d->cancelSubtasksMode;
}

void GroupTask::setCancelSubtasksMode(CancelSubtasksMode mode)
{
    d->cancelSubtasksMode = mode;
}

void GroupTask::setChildFailurePolicy(ChildFailurePolicy policy)
{
    d->childFailurePolicy = policy;
}

Qt::ConnectionType GroupTask::connectionType() const
{
    return d->connectionType;
}

void GroupTask::setConnectionType(Qt::ConnectionType type)
{
    d->connectionType = type;
}

void GroupTask::cancel()
{
    if (isFinished())
        return;
    const QPointer<GroupTask> self(this);
    const GroupLocker locker(d->mutex);
    const quint64 use = d->link->use;
    // A child whose handlers cancel the group when it ends would begin all this again.
    if (d->cancelingUse == use)
        return;
    d->cancelingUse = use;
    d->cancelUnfinishedChildren();
    if (self)
        BaseTask::cancel();
    if (!self)
        return;
    if (d->cancelingUse == use)
        d->cancelingUse.reset();
    if (use == d->link->use)
        d->cleanup();
}

Error GroupTask::doFinish()
{
    Error error = BaseTask::doFinish();
    if (error.hasError())
        return error.ecatch(Q_FUNC_INFO, __FILE__, __LINE__);
    return unifiedError();
}

Error GroupTask::unifiedError() const
{
    return unifiedError(d->errors);
}

Error GroupTask::unifiedError(const QList<Error> &errors) const
{
    if (errors.isEmpty())
        return Error();
    return UnifiedError::computeUnifiedError(QSet<Error>(errors.cbegin(), errors.cend()));
}

void GroupTask::execTask(Task *task)
{
    if (TasksQueue *holder = queue())
        holder->append(task);
    else
        task->exec();
}

} // namespace zel
