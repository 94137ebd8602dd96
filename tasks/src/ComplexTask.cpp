#include <zel/tasks/ComplexTask.h>

#include "BaseTask_p.h"
#include "ComplexTask_p.h"
#include "GroupTask_p.h"
#include "Interleaving.h"
#include "TaskStart.h"
#include "Task_p.h"
#include "TasksLog.h"
#include "TasksQueueShare.h"

#include <zel/tasks/TasksQueue.h>

#include <optional>
#include <utility>
#include <vector>

namespace zel {

namespace {

constexpr QLatin1String groupNameSuffix(":GroupTask");

} // namespace

void ComplexTask::Private::setupGroupTask(GroupTask *group)
{
    const std::shared_ptr<GroupNode> replaced = std::exchange(node, GroupTask::Private::of(group)->node);
    if (replaced)
        GroupTask::Private::handOverContainers(replaced.get(), node);
    groupTask = group;
    {
        std::shared_ptr<TaskLife> other = TaskLife::of(group);
        const QMutexLocker locker(TaskLife::of(q)->mutex());
        sharedGroup.swap(other);
    }
    hasRun = false;
    group->setCancelSubtasksMode(GroupTask::CancelSubtasks);
    connect(
        group, &GroupTask::finished, q, [this, group] { postGroupFinished(group); }, Qt::DirectConnection);
}

// With the use of the group and the run of the task that have ended, so that the end of no other one is taken for it.
void ComplexTask::Private::postGroupFinished(GroupTask *group)
{
    const auto onFinished = [this, ended = QPointer<GroupTask>(group), run = TaskLife::of(q)->run(),
                             use = GroupTask::Private::of(group)->link->use.load()] {
        onGroupFinished(ended, use, run);
    };
    QMetaObject::invokeMethod(q, onFinished, Qt::QueuedConnection);
}

GroupTask *ComplexTask::Private::ensureGroupTask()
{
    if (!groupTask) {
        setupGroupTask(new GroupTask(q));
        groupTask->setName(q->name() + groupNameSuffix);
        // Others have deleted that of the run.
        if (!q->isIdle())
            groupTask->setWaitMode(q->waitMode());
    }
    return groupTask;
}

void ComplexTask::Private::onGroupFinished(const GroupTask *group, quint64 use, quint64 run)
{
    interleavingPoint("group finished");
    if (group && group == groupTask && GroupTask::Private::of(group)->link->use == use)
        BaseTask::Private::of(q)->finishRun(run, group->error());
}

// The group is made fresh, also when it ended before the run; one that was set since the last run is taken as it is.
void ComplexTask::Private::beginRun(BaseTask::State left)
{
    const std::shared_ptr<TaskLife> life = TaskLife::of(q);
    GroupTask *group = ensureGroupTask();
    const bool isAnother = left == BaseTask::Finished || left == BaseTask::Idle;
    if (group->isFinished() || (hasRun && isAnother))
        GroupTask::Private::of(group)->startAfresh();
    if (!life->task())
        return;
    hasRun = true;
    ensureGroupTask()->setWaitMode(q->waitMode());
}

void ComplexTask::Private::succeed(quint64 run) const
{
    BaseTask::Private::of(q)->finishRun(run, Error(NoError));
}

std::shared_ptr<TaskLife> ComplexTask::Private::groupLife() const
{
    const QMutexLocker locker(TaskLife::of(q)->mutex());
    return sharedGroup;
}

void ComplexTask::Private::connectSubtaskCallbacks(Task *task, std::function<void()> onSuccess,
                                                   std::function<void()> onFailure)
{
    if (!onSuccess && !onFailure)
        return;
    // Those of subtasks that are gone make room.
    if (callbacks.size() == callbacks.capacity())
        std::erase_if(callbacks, [](const auto &weak) { return weak.expired(); });
    const auto shared = std::make_shared<SubtaskCallbacks>(std::move(onSuccess), std::move(onFailure));
    callbacks.push_back(shared);
    // The outcome is that of the moment: the subtask may be gone when its callback runs in another thread. The receiver
    // is the subtask: another one might be destroyed while it emits on another thread.
    connect(
        task, &Task::finished, task,
        [task, life = TaskLife::of(q), shared] {
            if (!task->isFinished())
                return;
            if (const auto callback = shared->of(task->hasError()))
                deliverTo(life, callback, Qt::AutoConnection);
        },
        Qt::DirectConnection);
}

std::function<void()> SubtaskCallbacks::of(bool hasFailed) const
{
    const QMutexLocker locker(&m_mutex);
    return hasFailed ? m_onFailure : m_onSuccess;
}

// What they hold is destroyed without the lock.
void SubtaskCallbacks::drop()
{
    std::function<void()> onSuccess;
    std::function<void()> onFailure;
    const QMutexLocker locker(&m_mutex);
    m_onSuccess.swap(onSuccess);
    m_onFailure.swap(onFailure);
}

// In the run that they have before anybody hears of it: one that a handler ends is not started.
QList<ComplexTask::Private::Admitted> ComplexTask::Private::admit(const QList<Task *> &tasks)
{
    const std::shared_ptr<TaskLife> life = TaskLife::of(q);
    QList<Admitted> given;
    for (Task *task : tasks) {
        if (task)
            given.append({task, TaskLife::of(task), TaskLife::of(task)->run()});
    }
    QList<Admitted> admitted;
    for (const Admitted &subtask : std::as_const(given)) {
        if (!life->task() || !subtask.life->task())
            continue;
        ensureGroupTask()->append(subtask.task);
        if (life->task() && subtask.life->task() && groupTask && GroupTask::Private::of(groupTask)->lists(subtask.task))
            admitted.append(subtask);
    }
    return admitted;
}

// One that was stopped meanwhile, because another failed, is not started again.
void ComplexTask::Private::startDirectly(const QList<Admitted> &subtasks)
{
    for (const Admitted &subtask : subtasks) {
        if (subtask.isToBeStarted())
            subtask.task->exec();
    }
}

void ComplexTask::Private::startThroughQueue(const QList<Admitted> &subtasks,
                                             const TasksQueueVisit &visit)
{
    QList<Admitted> complexTasks;
    QList<Admitted> others;
    QList<Task *> appended;
    for (const Admitted &subtask : subtasks) {
        if (!subtask.isToBeStarted())
            continue;
        if (BaseTask::Private::complexOf(subtask.task)) {
            complexTasks.append(subtask);
        } else {
            others.append(subtask);
            appended.append(subtask.task);
        }
    }
    const int maxPriority = visit.queue()->maxPriority();
    visit.queue()->append(appended);
    for (const Admitted &subtask : std::as_const(others)) {
        // Refused: nobody would ever start it, and the group would wait for it for ever.
        const TaskVisit atWork(subtask.life);
        if (!atWork.isInside() || !subtask.isToBeStarted() || !subtask.life->isFree())
            continue;
        const int priority = subtask.task->priority();
        if (!subtask.task->d->queueShare() && (priority < 0 || priority > maxPriority))
            BaseTask::Private::of(subtask.task)
                ->finishRun(subtask.run, Error(GeneralError, ComplexTask::tr("The queue did not take the task.")));
    }
    for (const Admitted &subtask : std::as_const(complexTasks)) {
        if (!subtask.isToBeStarted())
            continue;
        subtask.task->setQueue(visit.queue());
        subtask.task->exec();
    }
}

ComplexTask::ComplexTask(const QString &name, QObject *parent) : Task(parent), d(std::make_unique<Private>(this))
{
    d->setupGroupTask(new GroupTask(this));
    ComplexTask::setName(name);
    setCountAsRunning(false);
    BaseTask::Private::of(this)->kind = BaseTask::Private::Complex;
}

ComplexTask::ComplexTask(QObject *parent) : ComplexTask(QString(), parent) { }

ComplexTask::~ComplexTask()
{
    // The queue must not start it any more, nor its work use the group.
    const std::shared_ptr<TaskLife> life = TaskLife::of(this);
    life->retire();
    Task::d->leaveQueue();
    life->waitForVisitors(this);
    stopWorkingThread();
    delete d->groupTask;
    for (const auto &weak : d->callbacks) {
        if (const auto callbacks = weak.lock())
            callbacks->drop();
    }
}

void ComplexTask::setName(const QString &name)
{
    BaseTask::setName(name);
    if (d->groupTask)
        d->groupTask->setName(name + groupNameSuffix);
}

// The group is prepared inside, when the start is claimed.
void ComplexTask::exec()
{
    Task::exec();
}

void ComplexTask::cancel()
{
    const std::shared_ptr<TaskLife> life = TaskLife::of(this);
    const TaskVisit visit(life);
    if (const auto groupLife = d->groupLife()) {
        const TaskVisit groupVisit(groupLife);
        if (groupVisit.isInside())
            static_cast<GroupTask *>(groupVisit.task())->cancel();
    }
    if (life->task())
        BaseTask::cancel();
}

GroupTask *ComplexTask::groupTask() const
{
    return d->groupTask;
}

void ComplexTask::setGroupTask(GroupTask *group)
{
    if (!group || group == d->groupTask)
        return;
    if (GroupTask::Private::isWithin(d->node, GroupTask::Private::of(group)->node)) {
        qCWarning(tasksLog) << "Group" << group->name() << "cannot be that of task" << name() << "which it contains";
        return;
    }
    const QPointer<GroupTask> replaced = d->groupTask;
    d->setupGroupTask(group);
    delete replaced;
    // It has ended already, and with it the run that is under way.
    if (group->isFinished() && !isIdle() && !isFinished())
        d->postGroupFinished(group);
}

void ComplexTask::appendSubtask(Task *task, std::function<void()> onSuccess, std::function<void()> onFailure)
{
    if (!task)
        return;
    d->connectSubtaskCallbacks(task, std::move(onSuccess), std::move(onFailure));
    d->ensureGroupTask()->append(task);
}

void ComplexTask::execSubtask(Task *task)
{
    execSubtasks({task});
}

void ComplexTask::execSubtask(Task *task, std::function<void()> onSuccess, std::function<void()> onFailure)
{
    if (!task)
        return;
    d->connectSubtaskCallbacks(task, std::move(onSuccess), std::move(onFailure));
    execSubtask(task);
}

void ComplexTask::execSubtasks(const QList<Task *> &tasks)
{
    if (isFinished())
        return;
    const std::shared_ptr<TaskLife> life = TaskLife::of(this);
    const QList<Private::Admitted> admitted = d->admit(tasks);
    if (!life->task())
        return;
    const std::shared_ptr<TasksQueueShare> share = BaseTask::Private::of(this)->queueShare();
    if (!share || !share->queue())
        return Private::startDirectly(admitted);
    const TasksQueueVisit visit(share);
    if (visit.queue())
        d->startThroughQueue(admitted, visit);
}

GroupTask::WaitMode ComplexTask::waitMode() const
{
    return GroupTask::NoWait;
}

} // namespace zel
