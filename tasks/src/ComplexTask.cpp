#include <zel/tasks/ComplexTask.h>

#include "BaseTask_p.h"
#include "GroupTask_p.h"
#include "TasksLog.h"
#include "TasksQueueHold.h"

#include <zel/tasks/TasksQueue.h>

#include <QPointer>

#include <utility>

namespace zel {

namespace {

constexpr QLatin1String groupNameSuffix(":GroupTask");

} // namespace

class Q_DECL_HIDDEN ComplexTask::Private {
public:
    /// A subtask to be started, in the run that it was in when the group admitted it.
    struct Admitted {
        QPointer<Task> task;
        quint64 run;

        bool isToBeStarted() const { return task && BaseTask::Private::of(task)->run == run; }
    };

    explicit Private(ComplexTask *task) : q(task) { }
    ~Private() { link->close(); }

    void setupGroupTask(GroupTask *group);
    GroupTask *ensureGroupTask();
    void onGroupFinished(const GroupTask *group, quint64 use);
    void beginRun();
    void connectSubtaskCallbacks(Task *task, std::function<void()> onSuccess, std::function<void()> onFailure);
    QList<Admitted> admit(const QList<Task *> &tasks);
    static void startDirectly(const QList<Admitted> &subtasks);
    void startThroughQueue(const QList<Admitted> &subtasks);

    /// May have been deleted by others.
    QPointer<GroupTask> groupTask;
    ComplexTask *const q;
    const std::shared_ptr<TaskLink> link = std::make_shared<TaskLink>(q);
    bool hasRun = false; ///< the group has been used by a run
};

void ComplexTask::Private::setupGroupTask(GroupTask *group)
{
    groupTask = group;
    group->setCancelSubtasksMode(GroupTask::CancelSubtasks);
    // Posted with the use of the group that has ended, so that the end of no later one is taken for it.
    connect(
        group, &GroupTask::finished, q,
        [this, group] {
            const auto onFinished = [this, ended = QPointer<GroupTask>(group),
                                     use = GroupTask::Private::of(group)->link->use.load()] {
                onGroupFinished(ended, use);
            };
            QMetaObject::invokeMethod(q, onFinished, Qt::QueuedConnection);
        },
        Qt::DirectConnection);
}

GroupTask *ComplexTask::Private::ensureGroupTask()
{
    if (!groupTask) {
        setupGroupTask(new GroupTask(q));
        groupTask->setName(q->name() + groupNameSuffix);
    }
    return groupTask;
}

void ComplexTask::Private::onGroupFinished(const GroupTask *group, quint64 use)
{
    if (group && group == groupTask && GroupTask::Private::of(group)->link->use == use)
        q->finish(group->error());
}

// A task that was set idle after a run, as a queue wants it, is run again as well.
void ComplexTask::Private::beginRun()
{
    GroupTask *group = ensureGroupTask();
    if (q->isFinished() || (hasRun && (q->isIdle() || group->isFinished())))
        GroupTask::Private::of(group)->startAfresh();
}

void ComplexTask::Private::connectSubtaskCallbacks(Task *task, std::function<void()> onSuccess,
                                                   std::function<void()> onFailure)
{
    if (!onSuccess && !onFailure)
        return;
    // The outcome is that of the moment: the subtask may be gone when its callback runs in another thread. And this
    // task may be gone when the subtask ends there.
    connect(
        task, &Task::finished, task,
        [task, toComplexTask = link, onSuccess, onFailure] {
            const auto &callback = task->hasError() ? onFailure : onSuccess;
            if (task->isFinished() && callback)
                toComplexTask->deliver(callback, Qt::AutoConnection);
        },
        Qt::DirectConnection);
}

QList<ComplexTask::Private::Admitted> ComplexTask::Private::admit(const QList<Task *> &tasks)
{
    const QPointer<ComplexTask> self(q);
    const QList<QPointer<Task>> guarded(tasks.cbegin(), tasks.cend());
    QList<Admitted> admitted;
    for (const QPointer<Task> &task : guarded) {
        if (!self || !task)
            continue;
        ensureGroupTask()->append(task);
        if (self && task && groupTask && GroupTask::Private::of(groupTask)->lists(task))
            admitted.append({task, BaseTask::Private::of(task)->run});
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

void ComplexTask::Private::startThroughQueue(const QList<Admitted> &subtasks)
{
    const QPointer<TasksQueue> queue(q->queue());
    QList<Admitted> complexTasks;
    QList<Admitted> others;
    QList<Task *> appended;
    for (const Admitted &subtask : subtasks) {
        if (qobject_cast<ComplexTask *>(subtask.task)) {
            complexTasks.append(subtask);
        } else if (subtask.isToBeStarted()) {
            others.append(subtask);
            appended.append(subtask.task);
        }
    }
    queue->append(appended);
    for (const Admitted &subtask : std::as_const(others)) {
        // Refused: nobody would ever start it, and the group would wait for it for ever.
        if (subtask.isToBeStarted() && !subtask.task->isRunning() && !TasksQueueHold::lockOf(subtask.task))
            subtask.task->finish(Error(GeneralError, ComplexTask::tr("The queue did not take the task.")));
    }
    for (const Admitted &subtask : std::as_const(complexTasks)) {
        if (!subtask.isToBeStarted())
            continue;
        subtask.task->setQueue(queue);
        subtask.task->exec();
    }
}

ComplexTask::ComplexTask(const QString &name, QObject *parent) : Task(parent), d(std::make_unique<Private>(this))
{
    d->setupGroupTask(new GroupTask(this));
    ComplexTask::setName(name);
    setCountAsRunning(false);
}

ComplexTask::ComplexTask(QObject *parent) : ComplexTask(QString(), parent) { }

ComplexTask::~ComplexTask()
{
    // The queue must not start it any more.
    TasksQueueHold::removeFromQueue(this);
    // The work may be using the group.
    stopWorkingThread();
    d->link->close();
    delete d->groupTask;
}

void ComplexTask::setName(const QString &name)
{
    BaseTask::setName(name);
    if (d->groupTask)
        d->groupTask->setName(name + groupNameSuffix);
}

void ComplexTask::exec()
{
    const QPointer<ComplexTask> self(this);
    d->beginRun();
    if (!self)
        return;
    d->hasRun = true;
    d->ensureGroupTask()->setWaitMode(waitMode());
    if (self)
        Task::exec();
}

void ComplexTask::cancel()
{
    const QPointer<ComplexTask> self(this);
    if (d->groupTask)
        d->groupTask->cancel();
    if (self)
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
    const QPointer<GroupTask> replaced = d->groupTask;
    if (replaced && GroupTask::Private::of(replaced)->isWithin(group)) {
        qCWarning(tasksLog) << "Group" << group->name() << "cannot be that of task" << name() << "which it contains";
        return;
    }
    if (replaced)
        GroupTask::Private::of(replaced)->handOverContainers(group);
    d->setupGroupTask(group);
    delete replaced;
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
    const QPointer<ComplexTask> self(this);
    const QList<Private::Admitted> admitted = d->admit(tasks);
    if (!self)
        return;
    if (queue())
        d->startThroughQueue(admitted);
    else
        Private::startDirectly(admitted);
}

GroupTask::WaitMode ComplexTask::waitMode() const
{
    return GroupTask::NoWait;
}

} // namespace zel
