#pragma once

#include <QMutex>
#include <QString>
#include <QWaitCondition>

#include <memory>

namespace zel {

/**
 * Where working threads enter their task and leave it, so that the task is not destroyed under their feet.
 *
 * Each start of a thread gets a ticket; a thread whose ticket was revoked meanwhile does not get in.
 */
class WorkGate {
public:
    quint64 admit();
    void revoke();
    bool isAdmitted(quint64 ticket) const;
    quint64 lastTicket() const;
    /// Returns when no other thread than the calling one is inside; warns when that takes seconds.
    void waitUntilLeft(const QString &taskName);

    /// Held while a thread is being started and looked at.
    QMutex startMutex;

private:
    friend class WorkVisit;
    bool enter(quint64 ticket);
    void leave();

    mutable QMutex m_mutex;
    QWaitCondition m_left;
    int m_inside = 0;
    quint64 m_lastTicket = 0;
    quint64 m_admitted = 0;
};

/// The stay of the calling thread inside a task; lives on that thread's stack.
class WorkVisit {
public:
    WorkVisit(std::shared_ptr<WorkGate> gate, quint64 ticket);
    ~WorkVisit();
    Q_DISABLE_COPY_MOVE(WorkVisit)

    bool isInside() const { return m_inside; }
    /// Ends the calling thread's visit at \a gate before its time: the work goes on without the task.
    static void leave(const WorkGate *gate);

private:
    friend class WorkGate;
    void leave();
    static int countOnThisThread(const WorkGate *gate);

    const std::shared_ptr<WorkGate> m_gate;
    bool m_inside;
    WorkVisit *const m_outer;
};

} // namespace zel
