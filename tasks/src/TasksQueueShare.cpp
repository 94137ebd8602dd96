#include "TasksQueueShare.h"

#include "Departure.h"
#include "GroupLocker.h"
#include "Interleaving.h"
#include "TaskStart.h"

#include <zel/tasks/TasksQueue.h>

#include <QThread>

#include <utility>

namespace zel {

namespace {

thread_local TasksQueueVisit *innermostVisit = nullptr;

} // namespace

void TasksQueueShare::close(const std::function<void()> &letGo)
{
    interleavingPoint("close queue");
    {
        const QMutexLocker locker(&mutex);
        m_closer = QThread::currentThreadId();
        m_queue = nullptr;
        m_context = nullptr;
        letGo();
    }
    const int own = TasksQueueVisit::presentOf(this) ? 1 : 0;
    if (m_visits != own)
        departure::wait([this, own] { return m_visits == own; });
}

void TasksQueueShare::dispatch(const std::shared_ptr<TasksQueueShare> &share)
{
    GroupLocker::callUnlocked([share] {
        const TasksQueueVisit visit(share);
        if (TasksQueue *queue = visit.queue())
            queue->tryExec();
    });
}

void TasksQueueShare::postDispatch()
{
    m_isDispatchDue = true;
    if (!m_context || std::exchange(m_isDispatchPosted, true))
        return;
    post([share = shared_from_this()] {
        interleavingPoint("posted dispatch");
        const TasksQueueVisit visit(share);
        QMutexLocker locker(&share->mutex);
        share->m_isDispatchPosted = false;
        if (!visit.isInside() || !share->m_isDispatchDue)
            return;
        locker.unlock();
        const TaskStart fromEventLoop(share.get());
        if (TasksQueue *queue = visit.queue())
            queue->tryExec();
    });
}

bool TasksQueueShare::mayDispatch()
{
    if (m_holds == 0)
        return true;
    m_isDispatchHeld = true;
    return false;
}

void TasksQueueShare::hold()
{
    const QMutexLocker locker(&mutex);
    ++m_holds;
}

bool TasksQueueShare::release()
{
    const QMutexLocker locker(&mutex);
    if (--m_holds > 0 || !std::exchange(m_isDispatchHeld, false))
        return false;
    postDispatch();
    return true;
}

// A destructor first makes the queue null, then looks at the count; a visit first counts, then looks for the queue: one
// of the two sees the other.
bool TasksQueueShare::enter()
{
    ++m_visits;
    if (m_queue)
        return true;
    leave();
    return false;
}

void TasksQueueShare::leave()
{
    interleavingPoint("leave queue");
    --m_visits;
    if (!m_queue)
        departure::announce();
}

TasksQueueVisit::TasksQueueVisit(const std::shared_ptr<TasksQueueShare> &share)
    : m_share(share.get())
    , m_kept(presentOf(m_share) ? nullptr : share)
    , m_outer(innermostVisit)
    , m_isPresent(m_kept && m_share->enter())
{
    innermostVisit = this;
}

TasksQueueVisit::~TasksQueueVisit()
{
    innermostVisit = m_outer;
    if (m_isPresent)
        m_share->leave();
}

TasksQueue *TasksQueueVisit::queue() const
{
    if (TasksQueue *open = m_share->queue())
        return open;
    // Another thread that destroys it waits for this one.
    const bool isKept = presentOf(m_share) && m_share->m_closer != QThread::currentThreadId();
    return isKept ? m_share->m_self : nullptr;
}

TasksQueueVisit *TasksQueueVisit::presentOf(const TasksQueueShare *share)
{
    TasksQueueVisit *visit = innermostVisit;
    while (visit && (!visit->m_isPresent || visit->m_share != share))
        visit = visit->m_outer;
    return visit;
}

TasksQueueAbsence::TasksQueueAbsence(const TasksQueueShare *share)
    : m_visit(share ? TasksQueueVisit::presentOf(share) : nullptr)
{
    if (!m_visit)
        return;
    m_visit->m_isPresent = false;
    m_visit->m_share->leave();
}

TasksQueueAbsence::~TasksQueueAbsence()
{
    if (m_visit)
        m_visit->m_isPresent = m_visit->m_share->enter();
}

} // namespace zel
