#include "PathSum.h"

#include <zel/common/UnifiedError.h>

#include <utility>

using zel::GroupTask;
using zel::Task;

PathSum::PathSum(std::unique_ptr<Source> source, bool failsFast, QObject *parent)
    : CustomComplexTask(parent)
    , m_source(std::move(source))
{
    groupTask()->setChildFailurePolicy(failsFast ? GroupTask::FailFast : GroupTask::ContinueOnFailure);
    connect(groupTask(), &Task::progress, this, &Task::setProgress);
}

void PathSum::submit(Task *task)
{
    task->setParent(this);
    execSubtask(task);
}

void PathSum::addProblem(const zel::Error &problem)
{
    m_problems.insert(problem);
}

void PathSum::closeSource()
{
    if (m_reading)
        m_reading->finish(zel::UnifiedError::computeUnifiedError(m_problems));
}

zel::Error PathSum::doExecSubtasks()
{
    m_reading = new Task(Task::Asynchronous, this);
    m_reading->setPriority(0);
    m_reading->setCountAsRunning(false);
    execSubtask(m_reading);
    return {};
}
