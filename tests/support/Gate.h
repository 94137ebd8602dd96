#pragma once

#include <QPointer>
#include <QSemaphore>
#include <QThread>

/**
 * Where work on another thread and the test meet: the work arrives and stays until the test opens.
 *
 * The work stands here without a cancellation point.
 */
class Gate {
public:
    void arriveAndWait()
    {
        arrive();
        m_open.acquire();
    }
    void arrive()
    {
        m_thread = QThread::currentThread();
        m_arrived.release();
    }
    /// False when nobody came in a generous time.
    bool waitForArrival(int msec = 30'000) { return m_arrived.tryAcquire(1, msec); }
    void open() { m_open.release(); }

    /// The thread object that arrived last; null when it has been freed.
    QThread *thread() const { return m_thread; }

private:
    QSemaphore m_arrived;
    QSemaphore m_open;
    QPointer<QThread> m_thread;
};
