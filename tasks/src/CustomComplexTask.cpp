#include <zel/tasks/CustomComplexTask.h>

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
    const QPointer<CustomComplexTask> self(this);
    const QPointer<GroupTask> group = groupTask();
    const quint64 admissions = GroupTask::Private::of(group)->admissions;
    const Error error = doExecSubtasks();
    if (!self || error.hasError())
        return error;
    // Nobody would ever end a group to which nothing came. It may be another one now.
    const GroupTask *present = groupTask();
    if (!present || !GroupTask::Private::of(present)->hasAdmitted(group == present ? admissions : 0))
        finish(NoError);
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
