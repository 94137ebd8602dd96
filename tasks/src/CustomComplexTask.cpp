#include <zel/tasks/CustomComplexTask.h>

#include "ComplexTask_p.h"
#include "GroupTask_p.h"

#include <QPointer>

namespace zel {

CustomComplexTask::CustomComplexTask(const QString &name, QObject *parent) : ComplexTask(name, parent)
{
    setExecutionMode(Asynchronous);
}

CustomComplexTask::CustomComplexTask(QObject *parent) : CustomComplexTask(QString(), parent) { }

CustomComplexTask::~CustomComplexTask() = default;

Error CustomComplexTask::doExec()
{
    const std::shared_ptr<TaskLife> life = TaskLife::of(this);
    const quint64 run = life->run();
    const QPointer<GroupTask> group = ComplexTask::d->ensureGroupTask();
    const quint64 admissions = GroupTask::Private::of(group)->admissions;
    const Error error = doExecSubtasks();
    if (!life->isIn(run) || error.hasError())
        return error;
    // Nobody would ever end a group to which nothing came. It may be another one now.
    const GroupTask *present = groupTask();
    if (!present || !GroupTask::Private::of(present)->hasAdmitted(group == present ? admissions : 0))
        ComplexTask::d->succeed(run);
    return error;
}

GroupTask::WaitMode CustomComplexTask::waitMode() const
{
    return GroupTask::WaitAll;
}

void CustomComplexTask::setSubtaskPriority(Task *subtask)
{
    if (!subtask)
        return;
    subtask->setPriority(priority());
    connect(this, &Task::priorityChanged, subtask, &Task::setPriority);
}

} // namespace zel
