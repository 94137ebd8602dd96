#include "TaskStart.h"

#include <QThread>

#include <utility>

namespace zel {

namespace {

thread_local TaskStart *innermostStart = nullptr;
thread_local int nothingLeaves = 0;

int nextDepth(const TasksQueueShare *share)
{
    const TaskStart *outer = share ? TaskStart::innermostOf(share) : nullptr;
    return outer ? outer->depth() + 1 : 1;
}

} // namespace

TaskStart::TaskStart(TaskLife *life, quint64 claim, const TasksQueueShare *share)
    : m_life(life)
    , m_claim(claim)
    , m_share(share)
    , m_loopLevel(QThread::currentThread()->loopLevel())
    , m_depth(nextDepth(share))
    , m_outer(std::exchange(innermostStart, this))
{
}

TaskStart::TaskStart(const TasksQueueShare *share) : TaskStart(nullptr, 0, share) { }

TaskStart::~TaskStart()
{
    innermostStart = m_outer;
    if (m_life && !m_isUsed)
        m_life->releaseStart(m_claim);
}

TaskStart *TaskStart::innermost()
{
    return innermostStart;
}

TaskStart *TaskStart::unusedOf(TaskStart *start, const TaskLife *life)
{
    while (start && (start->m_life != life || start->m_isUsed))
        start = start->m_outer;
    return start;
}

const TaskStart *TaskStart::innermostOf(const TasksQueueShare *share)
{
    const TaskStart *start = innermostStart;
    while (start && start->m_share != share)
        start = start->m_outer;
    return start;
}

void TaskStart::setReturning(TaskStart *start, const TaskLife *life, bool isReturning)
{
    while (start && start->m_life != life)
        start = start->m_outer;
    if (start)
        start->m_isReturning = isReturning;
}

NothingLeaves::NothingLeaves()
{
    ++nothingLeaves;
}

NothingLeaves::~NothingLeaves()
{
    --nothingLeaves;
}

bool NothingLeaves::isSaid()
{
    return nothingLeaves > 0;
}

quint64 TaskStart::use()
{
    m_isUsed = true;
    return m_claim;
}

} // namespace zel
