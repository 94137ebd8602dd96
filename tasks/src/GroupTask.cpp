#include <zel/tasks/GroupTask.h>

#include "GroupTask_p.h"
#include "TaskUse.h"
#include "TasksLog.h"
#include "TasksQueueHold.h"

#include <zel/common/UnifiedError.h>
#include <zel/tasks/ComplexTask.h>
#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QSet>
#include <QThread>

#include <algorithm>
#include <utility>

namespace zel {

namespace {

/// Keeps the mutex itself alive: a handler may delete the group while it is held.
class GroupLocker {
public:
    explicit GroupLocker(std::shared_ptr<QRecursiveMutex> mutex) : m_mutex(std::move(mutex)) { m_mutex->lock(); }
    ~GroupLocker() { m_mutex->unlock(); }
    Q_DISABLE_COPY_MOVE(GroupLocker)

private:
    const std::shared_ptr<QRecursiveMutex> m_mutex;
};

/// Guards the containers of all groups: they are walked from the inside outwards, the groups' locks taken inwards.
constinit QBasicMutex containersMutex;

} // namespace

void GroupLink::deliver(const std::function<void()> &call, Qt::ConnectionType type)
{
    QMutexLocker locker(&mutex);
    if (!group)
        return;
    if (type == Qt::DirectConnection || (type == Qt::AutoConnection && group->thread() == QThread::currentThread())) {
        locker.unlock();
        call();
        return;
    }
    QMetaObject::invokeMethod(group, call, type);
}

void GroupTask::Private::onChildStarted(const Child &child, quint64 use)
{
    const GroupLocker locker(mutex);
    child->hasShare = true;
    setStarted(child);
    if (child->isListed)
        setPending(child, true);
    if (use == link->use && q->isIdle())
        q->setRunning();
}

void GroupTask::Private::onChildFinished(const Child &child, quint64 starts, quint64 use, const Error &error)
{
    const QPointer<GroupTask> self(q);
    const GroupLocker locker(mutex);
    if (child->starts != starts)
        return;
    BaseTask *task = child->task;
    if (child->isListed) {
        setPending(child, false);
        child->handledStarts = starts;
        if (cleanupPolicy == DeleteWhenFinished)
            unlist(child);
    }
    if (task && !lists(task))
        task->deleteLater();
    if (q->isFinished() || use != link->use)
        return;

    if (error.hasError()) {
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
    if (self)
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
        qCDebug(tasksLog) << "Task" << (child->task ? child->task->name() : QString())
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
    errors.clear();
    zeroProgressReported = false;
    q->setCanceled(false);
    q->clearError();
    if (self)
        q->setIdle();
}

bool GroupTask::Private::lists(const BaseTask *task) const
{
    const GroupLocker locker(mutex);
    const Child child = stays.value(task);
    return child && child->isListed && child->task == task;
}

bool GroupTask::Private::hasAdmitted(quint64 earlier) const
{
    const GroupLocker locker(mutex);
    return admissions != earlier || isAnyStartedAgain();
}

void GroupTask::Private::appendTask(BaseTask *task)
{
    if (!task || refuses(task))
        return;
    if (lists(task)) {
        // One that ended here and was set idle, to be started again.
        const Child child = stays.value(task);
        if (task->isIdle())
            setPending(child, true);
        admissions += !child->isFinished;
        return;
    }
    if (q->isCanceled() || isCanceling) {
        task->cancel();
        return;
    }
    if (q->isFinished()) {
        task->finish(Error(GeneralError, GroupTask::tr("The group for the task was already finished.")));
        return;
    }

    ++admissions;
    const auto child = std::make_shared<GroupChild>();
    child->task = task;
    child->address = task;
    child->listed = children.insert(children.end(), child);
    child->pending = pending.insert(pending.end(), child);
    const Child earlier = std::exchange(stays[task], child);
    // Its share is counted already, and replaced; that of another task which had the address stays in the sums.
    if (earlier && earlier->task == task) {
        child->value = earlier->value;
        child->total = earlier->total;
    }
    if (GroupTask *group = groupOf(task)) {
        const QMutexLocker locker(&containersMutex);
        of(group)->containers.append(q);
    }

    const QPointer<GroupTask> self(q);
    Q_EMIT q->taskAppended(task);
    if (!self || !child->isListed || !child->task)
        return;
    if (!task->isFinished())
        addShare(child);
    if (self && child->isListed && child->task)
        connectChild(child);
}

GroupTask *GroupTask::Private::groupOf(BaseTask *task)
{
    if (const auto complexTask = qobject_cast<ComplexTask *>(task))
        return complexTask->groupTask();
    return qobject_cast<GroupTask *>(task);
}

// Of a complex task, which gets another group.
void GroupTask::Private::handOverContainers(GroupTask *successor)
{
    const QMutexLocker locker(&containersMutex);
    of(successor)->containers.append(std::exchange(containers, {}));
}

// Up through the groups that contain this one.
bool GroupTask::Private::refuses(BaseTask *task) const
{
    const GroupTask *refused = groupOf(task);
    if (!refused)
        return false;
    QSet<const GroupTask *> seen;
    QList<const GroupTask *> open{q};
    QMutexLocker locker(&containersMutex);
    while (!open.isEmpty() && !seen.contains(refused)) {
        const GroupTask *group = open.takeLast();
        if (seen.contains(group))
            continue;
        seen.insert(group);
        for (const GroupTask *container : std::as_const(of(group)->containers))
            open.append(container);
    }
    locker.unlock();
    if (!seen.contains(refused))
        return false;
    qCWarning(tasksLog) << "Task" << task->name() << "cannot be a child of group" << q->name()
                        << "which it is or contains";
    return true;
}

void GroupTask::Private::addShare(const Child &child)
{
    const int value = child->task->currentProgress();
    const int total = child->task->totalProgress();
    child->hasShare = true;
    progressValue += quint32(value) - std::exchange(child->value, quint32(value));
    progressTotal += quint32(total) - std::exchange(child->total, quint32(total));
    q->setProgress(int(progressValue), int(progressTotal));
}

void GroupTask::Private::connectChild(const Child &child)
{
    BaseTask *task = child->task;
    // One that was paused before its start gets idle again.
    if (task->isIdle() || task->isPaused()) {
        child->isUnstarted = true;
        child->unstarted = unstarted.insert(unstarted.end(), child);
    }
    // Start and end are taken note of where they happen, and handled where the connection type says: the error and
    // the run are those of the moment, and the child may be gone by the time of the handling.
    const auto onStarted = [this, toGroup = link, child, type = connectionType] {
        ++child->starts;
        child->isEndReported = false;
        toGroup->deliver([this, child, use = toGroup->use.load()] { onChildStarted(child, use); }, type);
    };
    const auto onFinished = [this, toGroup = link, child, task, type = connectionType] {
        reportEnd(toGroup, child, task->error(), type);
    };
    child->connections = {
        connect(task, &BaseTask::started, q, onStarted, Qt::DirectConnection),
        connect(task, &BaseTask::finished, q, onFinished, Qt::DirectConnection),
        connect(
            task, &BaseTask::progress, q, [this, child](int value, int total) { onChildProgress(child, value, total); },
            connectionType),
    };
    // It came finished, or has finished on another thread before the connections were there.
    if (task->isFinished())
        reportEnd(link, child, task->error(), connectionType);
}

// Once per run of the child, on the thread that ends it.
void GroupTask::Private::reportEnd(const std::shared_ptr<GroupLink> &toGroup, const Child &child, const Error &error,
                                   Qt::ConnectionType type)
{
    if (child->isEndReported.exchange(true))
        return;
    const auto handle = [this, child, starts = child->starts.load(), use = toGroup->use.load(), error] {
        onChildFinished(child, starts, use, error);
    };
    toGroup->deliver(handle, type);
}

void GroupTask::Private::checkFinished()
{
    if (waitMode == NoWait)
        return;
    while (!pending.empty() && pending.front()->isGone())
        setPending(pending.front(), false);
    if (!pending.empty() || isAnyStartedAgain())
        return;
    cleanup();
    q->finish(Error(NoError));
}

// What tells the group of it is on its way.
bool GroupTask::Private::isAnyStartedAgain() const
{
    return std::any_of(children.cbegin(), children.cend(),
                       [](const Child &child) { return child->starts != child->handledStarts && !child->isGone(); });
}

void GroupTask::Private::cleanup()
{
    if (cleanupPolicy != DeleteWithGroup)
        return;
    while (!children.empty()) {
        const Child child = children.front();
        unlist(child);
        if (child->task)
            child->task->deleteLater();
    }
}

void GroupTask::Private::setPending(const Child &child, bool isPending)
{
    if (child->isFinished == !isPending)
        return;
    child->isFinished = !isPending;
    if (isPending)
        child->pending = pending.insert(pending.end(), child);
    else
        pending.erase(child->pending);
}

void GroupTask::Private::setStarted(const Child &child)
{
    if (std::exchange(child->isUnstarted, false))
        unstarted.erase(child->unstarted);
}

void GroupTask::Private::unlist(const Child &child)
{
    if (!std::exchange(child->isListed, false))
        return;
    const Child held = child;
    setPending(held, false);
    setStarted(held);
    children.erase(held->listed);
    for (const QMetaObject::Connection &connection : std::exchange(held->connections, {}))
        QObject::disconnect(connection);
    if (GroupTask *group = groupOf(held->task)) {
        const QMutexLocker locker(&containersMutex);
        of(group)->containers.removeAll(q);
    }
}

void GroupTask::Private::cancelUnfinishedChildren()
{
    stop({children.cbegin(), children.cend()}, cancelSubtasksMode);
}

// Looks only at children that have not been looked at since they were appended.
void GroupTask::Private::cancelIdleChildren()
{
    QList<Child> idle;
    for (auto next = unstarted.cbegin(); next != unstarted.cend();) {
        const Child child = *next++;
        if (child->task && child->task->isPaused())
            continue;
        setStarted(child);
        if (child->task && child->task->isIdle())
            idle.append(child);
    }
    stop(idle, cancelSubtasksMode);
}

void GroupTask::Private::stop(QList<Child> stopped, CancelSubtasksMode mode)
{
    stopped.removeIf([](const Child &child) { return !child->task || child->task->isFinished(); });
    if (mode == FinishSubtasks)
        std::stable_partition(stopped.begin(), stopped.end(), [](const Child &child) { return child->task->isIdle(); });
    // No queue starts one of them in the place of another.
    QSet<TasksQueue *> queues;
    addQueues(stopped, queues);
    const TasksQueueHold hold(queues);

    const QPointer<GroupTask> self(q);
    for (const Child &child : std::as_const(stopped)) {
        if (!child->task || child->task->isFinished())
            continue;
        qCDebug(tasksLog) << "Cancelling child task" << child->task->name();
        if (mode == CancelSubtasks)
            child->task->cancel();
        else if (mode == FinishSubtasks)
            stopQuietly(child->task);
        if (!self)
            return;
    }
    if (mode == FinishSubtasks)
        dropStopped(stopped);
}

void GroupTask::Private::addQueues(const auto &stopped, QSet<TasksQueue *> &queues)
{
    for (const Child &child : stopped) {
        BaseTask *task = child->task;
        if (!task)
            continue;
        if (TasksQueue *queue = task->queue())
            queues.insert(queue);
        if (const GroupTask *group = groupOf(task)) {
            const GroupLocker locker(of(group)->mutex);
            addQueues(of(group)->children, queues);
        }
    }
}

void GroupTask::Private::stopQuietly(BaseTask *task)
{
    const QPointer<BaseTask> guarded(task);
    if (const GroupTask *group = groupOf(task)) {
        const GroupLocker locker(of(group)->mutex);
        of(group)->stop({of(group)->children.cbegin(), of(group)->children.cend()}, FinishSubtasks);
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
        // A handler may have run it again.
        if (!child->isListed || (child->task && !child->task->isFinished()))
            continue;
        setPending(child, false);
        child->handledStarts = child->starts;
        if (cleanupPolicy == DeleteWhenFinished)
            unlist(child);
        if (const auto task = qobject_cast<Task *>(child->task.data()))
            TasksQueueHold::removeFromQueue(task);
        if (child->task && !child->isListed)
            child->task->deleteLater();
    }
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
    TaskUse::waitForOthers(this);
    {
        const QMutexLocker locker(&d->link->mutex);
        d->link->group = nullptr;
    }
    const GroupLocker locker(d->mutex);
    d->cleanup();
    // Connections that are at work on other threads find nothing to do.
    while (!d->children.empty())
        d->unlist(d->children.front());
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
        BaseTask *task = child->task;
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
    return int(std::count_if(d->children.cbegin(), d->children.cend(),
                             [](const Private::Child &child) { return child->task && !child->task->isFinished(); }));
}

bool GroupTask::isEmpty() const
{
    return d->children.empty();
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
        if (child->task)
            child->task->setDeleteOnFinished(false);
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
    // A child whose handlers cancel the group when it ends would begin all this again.
    if (std::exchange(d->isCanceling, true))
        return;
    const quint64 use = d->link->use;
    d->cancelUnfinishedChildren();
    if (self)
        BaseTask::cancel();
    if (!self)
        return;
    d->isCanceling = false;
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
