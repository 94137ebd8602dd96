#include "WorkGate.h"

#include "TasksLog.h"

#include <QDeadlineTimer>

#include <chrono>
#include <utility>

namespace zel {

namespace {

constexpr std::chrono::seconds patience{2};

// The visits of this thread, innermost first: work may run another task's work.
thread_local WorkVisit *innermostVisit = nullptr;

} // namespace

quint64 WorkGate::admit()
{
    const QMutexLocker locker(&m_mutex);
    return m_admitted = ++m_lastTicket;
}

void WorkGate::revoke()
{
    const QMutexLocker locker(&m_mutex);
    m_admitted = 0;
}

bool WorkGate::isAdmitted(quint64 ticket) const
{
    const QMutexLocker locker(&m_mutex);
    return m_admitted == ticket;
}

quint64 WorkGate::lastTicket() const
{
    const QMutexLocker locker(&m_mutex);
    return m_lastTicket;
}

bool WorkGate::enter(quint64 ticket)
{
    const QMutexLocker locker(&m_mutex);
    if (m_admitted != ticket)
        return false;
    ++m_inside;
    return true;
}

void WorkGate::leave()
{
    const QMutexLocker locker(&m_mutex);
    --m_inside;
    m_left.wakeAll();
}

void WorkGate::waitUntilLeft(const QString &taskName)
{
    const int own = WorkVisit::countOnThisThread(this);
    const QMutexLocker locker(&m_mutex);
    QDeadlineTimer deadline(patience);
    while (m_inside > own) {
        if (m_left.wait(&m_mutex, deadline) || deadline.isForever())
            continue;
        qCWarning(tasksLog) << "Still waiting for the work of task" << taskName << "to return";
        deadline = QDeadlineTimer(QDeadlineTimer::Forever);
    }
}

WorkVisit::WorkVisit(std::shared_ptr<WorkGate> gate, quint64 ticket)
    : m_gate(std::move(gate))
    , m_inside(m_gate->enter(ticket))
    , m_outer(std::exchange(innermostVisit, this))
{
}

WorkVisit::~WorkVisit()
{
    innermostVisit = m_outer;
    leave();
}

void WorkVisit::leave()
{
    if (std::exchange(m_inside, false))
        m_gate->leave();
}

void WorkVisit::leave(const WorkGate *gate)
{
    for (WorkVisit *visit = innermostVisit; visit; visit = visit->m_outer) {
        if (visit->m_gate.get() == gate)
            visit->leave();
    }
}

int WorkVisit::countOnThisThread(const WorkGate *gate)
{
    int count = 0;
    for (const WorkVisit *visit = innermostVisit; visit; visit = visit->m_outer)
        count += visit->m_inside && visit->m_gate.get() == gate;
    return count;
}

} // namespace zel
