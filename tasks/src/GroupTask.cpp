#include <zel/tasks/GroupTask.h>

#include "BaseTask_p.h"
#include "ComplexTask_p.h"
#include "GroupTask_p.h"
#include "Interleaving.h"
#include "TasksLog.h"
#include "TasksQueueShare.h"

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

GroupTask::Private *GroupTask::Private::of(const TaskVisit &visit)
{
    return of(static_cast<const GroupTask *>(visit.task()));
}

void GroupTask::Private::onChildStarted(const Child &child, quint64 run, quint64 use)
{
    const std::shared_ptr<TaskLife> life = link->life;
    if (!child->isListed)
        return lookAgain();
    child->hasShare = true;
    setUnstarted(child, false);
    // Unless it was stopped meanwhile.
    if (run > child->handledRun) {
        child->isLeftOver = false;
        setPending(child, true);
    }
    if (use == link->use && q->isIdle())
        q->setRunning();
    if (life->task())
        lookAgain();
}

// The check that was put off because of a start that was not handled.
void GroupTask::Private::lookAgain()
{
    if (isCheckOwed && !q->isFinished())
        checkFinished();
}

void GroupTask::Private::onChildFinished(const Child &child, quint64 run, quint64 use, const Error &error)
{
    const std::shared_ptr<TaskLife> life = link->life;
    const Child held = child;
    if (!held->isListed)
        return;
    held->handledRun = qMax(held->handledRun, run);
    // It runs again; this is an earlier end.
    if (run <= held->begunRun)
        return;
    const bool isLeftOver = held->isLeftOver;
    setPending(held, false);
    setUnstarted(held, false);
    if (cleanupPolicy == DeleteWhenFinished)
        unlistAndDelete(held);
    if (q->isFinished())
        return;

    // Nothing of an earlier use of the group, whose children it does not wait for, ends this one.
    if (isLeftOver)
        return;
    const quint64 presentUse = link->use;
    if (error.hasError() && use == presentUse) {
        switch (childFailurePolicy) {
        case FailFast:
            q->finish(error);
            if (life->task() && use == link->use)
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
    if (life->task() && (use == link->use || q->isRunning()))
        checkFinished();
}

void GroupTask::Private::onChildProgress(const Child &child, int value, int total)
{
    // What was reported before the child was unlisted counts, unless it was appended again since.
    const auto stay = stays.constFind(child->task());
    const bool isPresent = child->isListed || !child->task() || (stay != stays.cend() && *stay == child);
    if (!child->hasShare || !isPresent)
        return;
    progressValue += quint32(value) - std::exchange(child->value, quint32(value));
    progressTotal += quint32(total) - std::exchange(child->total, quint32(total));
    if (total == 0 && !std::exchange(zeroProgressReported, true)) {
        const TaskVisit visit(child->life);
        qCDebug(tasksLog) << "Task" << (visit.task() ? visit.task()->name() : QString())
                          << "has zero maximum progress. This may lead to inconsistent progress reporting, and it "
                             "usually indicates that the progress reporting for the current GroupTask"
                          << q->name() << "should be reworked";
    }
    q->setProgress(int(progressValue), int(progressTotal));
}

void GroupTask::Private::startAfresh()
{
    const std::shared_ptr<TaskLife> life = link->life;
    GroupLocker::lockAndCall(mutex(), [&] {
        ++link->use;
        for (const Child &child : children) {
            child->isLeftOver = true;
            child->handledRun = child->begunRun;
            setPending(child, false);
        }
        errors.clear();
        isCheckOwed = false;
        q->setCanceled(false);
        q->clearError();
        if (life->task())
            q->setIdle();
    });
}

bool GroupTask::Private::lists(const BaseTask *task) const
{
    const GroupLocker locker(mutex());
    return isListed(task);
}

bool GroupTask::Private::isListed(const BaseTask *task) const
{
    const auto stay = stays.constFind(task);
    return stay != stays.cend() && (*stay)->isListed && (*stay)->task() == task;
}

// Something came, or is waited for, or the group has ended, whose end counts. What a start that is not handled brings is
// looked at then, be it nothing.
bool GroupTask::Private::hasAdmitted(quint64 earlier)
{
    const GroupLocker locker(mutex());
    if (admissions != earlier || !pending.isEmpty() || q->isFinished() || link->life->isEnding())
        return true;
    isCheckOwed = link->startsUnderWay > 0;
    return isCheckOwed;
}

void GroupTask::Private::appendTask(BaseTask *task, bool isWrapper)
{
    if (!task)
        return;
    const std::shared_ptr<GroupNode> taskNode = nodeOf(task);
    if (refuses(task, taskNode))
        return;
    if (isListed(task)) {
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
    if (q->isFinished() || q->isFinalizing() || link->life->isEnding()) {
        task->finish(Error(GeneralError, GroupTask::tr("The group for the task was already finished.")));
        return;
    }

    ++admissions;
    const auto child = std::make_shared<GroupChild>();
    child->life = TaskLife::of(task);
    child->link = link;
    child->connectionType = connectionType;
    child->number = ++lastNumber;
    child->isWrapper = isWrapper;
    children.append(child);
    pending.append(child);
    const Child earlier = std::exchange(stays[task], child);
    // Its share is counted already, and replaced; that of another task which had the address stays in the sums.
    if (earlier && earlier->life == child->life) {
        child->value = earlier->value;
        child->total = earlier->total;
    }
    if (taskNode) {
        child->node = taskNode;
        const QMutexLocker locker(&nodesMutex);
        child->node->containers.push_back(node);
    }

    const std::shared_ptr<TaskLife> life = link->life;
    const auto goesOn = [&life, &child] { return life->task() && child->isListed && child->task(); };
    Q_EMIT q->taskAppended(task);
    if (!goesOn())
        return;
    const bool isFinished = task->isFinished();
    // One that was paused before its start gets idle again.
    setUnstarted(child, task->isIdle() || task->isPaused());
    // From here on start, progress and end are taken note of where they happen, and handled where the connection type
    // says.
    child->life->addFollower(child);
    if (!isFinished)
        addShare(child, task);
    // It came finished, or has finished on another thread before it knew of the group.
    if (goesOn() && task->isFinished())
        GroupChild::reportEnd(child, child->life->run(), task->error());
}

// One that ended here and was set idle, to be started again, or one that is still at work from before a fresh start.
void GroupTask::Private::awaitAgain(const Child &child)
{
    child->isLeftOver = false;
    // Ends that are on their way are those of earlier runs.
    if (child->task()->isIdle()) {
        child->begunRun = child->life->run();
        setUnstarted(child, true);
    }
    setPending(child, true);
}

std::shared_ptr<TaskLife> GroupTask::Private::groupOf(BaseTask *task)
{
    if (const ComplexTask *complexTask = BaseTask::Private::complexOf(task))
        return ComplexTask::Private::of(complexTask)->groupLife();
    return BaseTask::Private::groupOf(task) ? TaskLife::of(task) : nullptr;
}

std::shared_ptr<GroupNode> GroupTask::Private::nodeOf(BaseTask *task)
{
    if (const ComplexTask *complexTask = BaseTask::Private::complexOf(task))
        return ComplexTask::Private::of(complexTask)->node;
    const GroupTask *group = BaseTask::Private::groupOf(task);
    return group ? of(group)->node : nullptr;
}

bool GroupTask::Private::isWithin(const std::shared_ptr<GroupNode> &node, const std::shared_ptr<GroupNode> &other)
{
    const QMutexLocker locker(&nodesMutex);
    return withContainers(node).contains(other.get());
}

void GroupTask::Private::handOverContainers(GroupNode *from, const std::shared_ptr<GroupNode> &successor)
{
    const QMutexLocker locker(&nodesMutex);
    successor->containers.insert(successor->containers.end(), from->containers.begin(), from->containers.end());
    from->containers.clear();
    from->successor = successor;
}

bool GroupTask::Private::refuses(const BaseTask *task, const std::shared_ptr<GroupNode> &taskNode) const
{
    if (!taskNode || !isWithin(node, taskNode))
        return false;
    qCWarning(tasksLog) << "Task" << task->name() << "cannot be a child of group" << q->name()
                        << "which it is or contains";
    return true;
}

void GroupTask::Private::addShare(const Child &child, const BaseTask *task)
{
    const auto [value, total] = BaseTask::Private::of(task)->figures.load();
    child->hasShare = true;
    progressValue += quint32(value) - std::exchange(child->value, quint32(value));
    progressTotal += quint32(total) - std::exchange(child->total, quint32(total));
    q->setProgress(int(progressValue), int(progressTotal));
}

void GroupTask::Private::checkFinished()
{
    if (waitMode == NoWait)
        return;
    while (!pending.isEmpty() && pending.first()->isGone())
        setPending(pending.first(), false);
    // What tells of a child that has started again is on its way.
    isCheckOwed = link->startsUnderWay > 0;
    if (!pending.isEmpty() || isCheckOwed)
        return;
    const std::shared_ptr<TaskLife> life = link->life;
    cleanup();
    if (life->task())
        q->finish(Error(NoError));
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
    if (!child->isListed.exchange(false))
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

void GroupTask::Private::unlistAndDelete(const Child &child)
{
    const Child held = child;
    unlist(held);
    const TaskVisit visit(held->life);
    BaseTask *task = visit.task();
    // What it tells until then finds that it is not listed.
    held->life->removeFollower(held.get());
    if (task)
        TaskLife::deleteLater(task);
}

void GroupTask::Private::cancelUnfinishedChildren()
{
    stop({children.begin(), children.end()}, cancelSubtasksMode);
}

// Looks only at children that have not been seen to start, or were set idle since.
void GroupTask::Private::cancelIdleChildren()
{
    takeIdleAgain();
    QList<Child> idle;
    for (auto next = unstarted.begin(); next != unstarted.end();) {
        const Child child = *next++;
        const TaskVisit visit(child->life);
        if (visit.isInside() && visit.task()->isIdle())
            idle.append(child);
        else if (!visit.isInside() || !visit.task()->isPaused())
            setUnstarted(child, false);
    }
    std::sort(idle.begin(), idle.end(),
              [](const Child &left, const Child &right) { return left->number < right->number; });
    stop(idle, cancelSubtasksMode);
}

void GroupTask::Private::takeIdleAgain()
{
    std::vector<std::weak_ptr<GroupChild>> idleAgain;
    {
        const QMutexLocker locker(&link->idleMutex);
        idleAgain.swap(link->idleAgain);
    }
    for (const auto &weak : idleAgain) {
        const Child child = weak.lock();
        if (child && child->isListed)
            setUnstarted(child, true);
    }
}

void GroupTask::Private::stop(const QList<Child> &unfinished, CancelSubtasksMode mode)
{
    const QList<Child> stopped = inOrderOfStop(unfinished, mode);
    const std::shared_ptr<TaskLife> life = link->life;
    // No queue starts one of them in the place of another.
    TasksQueueHold hold;
    if (hold.addGroup(node))
        addQueues(stopped, hold);
    QList<Child> dropped;
    for (const Child &child : stopped) {
        const TaskVisit visit(child->life);
        BaseTask *task = visit.task();
        if (!task || task->isFinished())
            continue;
        interleavingPoint("stop child");
        qCDebug(tasksLog) << "Cancelling child task" << task->name();
        if (mode == CancelSubtasks)
            task->cancel();
        else if (mode == FinishSubtasks && stopQuietly(task))
            dropped.append(child);
        if (!life->task())
            break;
    }
    if (life->task())
        dropStopped(dropped);
    // Their queues hear of no end.
    for (const Child &child : dropped) {
        const TaskVisit visit(child->life);
        Task *const task = BaseTask::Private::executableOf(visit.task());
        if (task && task->isFinished())
            TasksQueueHold::removeFromQueue(task);
    }
    hold.release();
}

// Quietly, idle ones go first.
QList<GroupTask::Private::Child> GroupTask::Private::inOrderOfStop(const QList<Child> &unfinished,
                                                                   CancelSubtasksMode mode)
{
    QList<Child> first;
    QList<Child> others;
    for (const Child &child : unfinished) {
        const TaskVisit visit(child->life);
        if (!visit.isInside() || visit.task()->isFinished())
            continue;
        const bool isFirst = mode == FinishSubtasks && visit.task()->isIdle();
        (isFirst ? first : others).append(child);
    }
    return first + others;
}

void GroupTask::Private::addQueues(const auto &stopped, TasksQueueHold &hold)
{
    for (const Child &child : stopped) {
        const TaskVisit visit(child->life);
        if (Task *const task = BaseTask::Private::executableOf(visit.task()))
            hold.add(task);
        if (const auto groupLife = groupOf(visit.task())) {
            const TaskVisit groupVisit(groupLife);
            if (!groupVisit.isInside())
                continue;
            const Private *nested = of(groupVisit);
            const GroupLocker locker(nested->mutex());
            if (hold.addGroup(nested->node))
                addQueues(nested->children, hold);
        }
    }
}

// Returns whether the task ended here; somebody else may be ending it.
bool GroupTask::Private::stopQuietly(BaseTask *task)
{
    const std::shared_ptr<TaskLife> life = TaskLife::of(task);
    if (const auto groupLife = groupOf(task)) {
        const TaskVisit groupVisit(groupLife);
        Private *const nested = groupVisit.isInside() ? of(groupVisit) : nullptr;
        if (nested)
            GroupLocker::lockAndCall(nested->mutex(), [nested] {
                nested->stop({nested->children.begin(), nested->children.end()}, FinishSubtasks);
            });
    }
    return life->task() && BaseTask::Private::of(task)->finishQuietly();
}

// No finished() comes from children that were stopped quietly: what it would have done is done here.
void GroupTask::Private::dropStopped(const QList<Child> &stopped)
{
    for (const Child &child : stopped) {
        const TaskVisit visit(child->life);
        // A handler may have run it again.
        if (!child->isListed || (visit.isInside() && !visit.task()->isFinished()))
            continue;
        setPending(child, false);
        setUnstarted(child, false);
        child->handledRun = visit.isInside() ? child->life->run() : child->begunRun.load();
        if (cleanupPolicy == DeleteWhenFinished)
            unlistAndDelete(child);
        else if (cleanupPolicy == SelfDelete)
            freeWrapper(child);
    }
}

GroupTask::GroupTask(QObject *parent) : BaseTask(parent), d(std::make_unique<Private>(this))
{
    BaseTask::Private::of(this)->kind = BaseTask::Private::Group;
    connect(
        this, &BaseTask::stateChanged, this,
        [this](State state) {
            if (previousState() == Finished && state != Finished)
                ++d->link->use;
        },
        Qt::DirectConnection);
}

GroupTask::~GroupTask()
{
    d->link->life->retire();
    d->link->life->waitForVisitors(this);
    const GroupLocker locker(d->mutex());
    d->cleanup();
    // What other threads tell of it finds nothing to do.
    while (!d->children.isEmpty()) {
        const Private::Child child = d->children.first();
        d->unlist(child);
        child->life->removeFollower(child.get());
        d->freeWrapper(child);
    }
}

// Nobody but its group knows the task that was made of a coroutine.
void GroupTask::Private::freeWrapper(const Child &child) const
{
    if (!child->isWrapper)
        return;
    const TaskVisit visit(child->life);
    if (!visit.isInside())
        return;
    visit.task()->setDeleteOnFinished(true);
    // An end that is under way, on another thread, may have looked before.
    if (child->life->isEnding() || visit.task()->isFinished())
        TaskLife::deleteLater(visit.task());
}

void GroupTask::append(BaseTask *task)
{
    GroupLocker::lockAndCall(d->mutex(), [this, task] { d->appendTask(task); });
}

void GroupTask::append(const QList<BaseTask *> &tasks)
{
    const std::shared_ptr<TaskLife> life = TaskLife::of(this);
    std::vector<std::shared_ptr<TaskLife>> held;
    held.reserve(size_t(tasks.size()));
    for (const BaseTask *task : tasks)
        held.push_back(task ? TaskLife::of(task) : nullptr);
    GroupLocker::lockAndCall(d->mutex(), [&] {
        for (const auto &listed : held) {
            if (life->task() && listed)
                d->appendTask(listed->task());
        }
    });
}

void GroupTask::append(QCoro::Task<Error> coroutine)
{
    const std::shared_ptr<TaskLife> life = TaskLife::of(this);
    auto *task = new Task(std::move(coroutine), nullptr);
    const std::shared_ptr<TaskLife> taskLife = TaskLife::of(task);
    // A coroutine that completed at once has finished its task before the task could be told to delete itself.
    const bool deletesItself = cleanupPolicy() == SelfDelete && !task->isFinished();
    const bool leftAlone = cleanupPolicy() == SelfDelete && task->isFinished();
    task->setDeleteOnFinished(cleanupPolicy() == SelfDelete);
    bool isRefused = true;
    GroupLocker::lockAndCall(d->mutex(), [&] {
        d->appendTask(task, true);
        isRefused = !life->task() || !d->lists(task);
    });
    if (taskLife->task() && (leftAlone || (isRefused && !deletesItself)))
        TaskLife::deleteLater(task);
}

QList<BaseTask *> GroupTask::subtasks(GetSubtasksModes mode) const
{
    const GroupLocker locker(d->mutex());
    QList<BaseTask *> tasks;
    for (const Private::Child &child : std::as_const(d->children)) {
        const TaskVisit visit(child->life);
        BaseTask *task = visit.task();
        if (!mode.testFlag(Executable) || BaseTask::Private::executableOf(task))
            tasks.append(task);
        if (const GroupTask *group = BaseTask::Private::groupOf(task); group && mode.testFlag(Recursive))
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
    const GroupLocker locker(d->mutex());
    return int(std::count_if(d->children.begin(), d->children.end(), [](const Private::Child &child) {
        return child->task() && child->life->state() != Finished;
    }));
}

bool GroupTask::isEmpty() const
{
    const GroupLocker locker(d->mutex());
    return d->children.isEmpty();
}

GroupTask::WaitMode GroupTask::waitMode() const
{
    return d->waitMode;
}

void GroupTask::setWaitMode(WaitMode mode)
{
    GroupLocker::lockAndCall(d->mutex(), [this, mode] {
        d->waitMode = mode;
        if (isRunning())
            d->checkFinished();
    });
}

GroupTask::CleanupPolicy GroupTask::cleanupPolicy() const
{
    return d->cleanupPolicy;
}

void GroupTask::setCleanupPolicy(CleanupPolicy policy)
{
    const GroupLocker locker(d->mutex());
    d->cleanupPolicy = policy;
    if (policy == SelfDelete)
        return;
    for (const Private::Child &child : std::as_const(d->children)) {
        const TaskVisit visit(child->life);
        if (visit.isInside())
            visit.task()->setDeleteOnFinished(false);
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
    const std::shared_ptr<TaskLife> life = TaskLife::of(this);
    GroupLocker::lockAndCall(d->mutex(), [&] {
        const quint64 use = d->link->use;
        // A child whose handlers cancel the group when it ends would begin all this again.
        if (isFinished() || d->cancelingUse == use)
            return;
        d->cancelingUse = use;
        d->cancelUnfinishedChildren();
        if (life->task())
            BaseTask::cancel();
        if (!life->task())
            return;
        if (d->cancelingUse == use)
            d->cancelingUse.reset();
        if (use == d->link->use)
            d->cleanup();
    });
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
    QList<Error> errors;
    {
        const GroupLocker locker(d->mutex());
        errors = d->errors;
    }
    return unifiedError(errors);
}

Error GroupTask::unifiedError(const QList<Error> &errors) const
{
    if (errors.isEmpty())
        return Error();
    return UnifiedError::computeUnifiedError(QSet<Error>(errors.cbegin(), errors.cend()));
}

void GroupTask::execTask(Task *task)
{
    if (!task)
        return;
    const std::shared_ptr<TasksQueueShare> share = BaseTask::Private::of(this)->queueShare();
    if (!share || !share->queue())
        return task->exec();
    const TasksQueueVisit visit(share);
    if (TasksQueue *queue = visit.queue())
        queue->append(task);
}

} // namespace zel
