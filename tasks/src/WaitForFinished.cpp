#include "BaseTask_p.h"

#include <QEventLoop>
#include <QMutex>
#include <QThread>
#include <QTimer>

#include <limits>
#include <memory>
#include <optional>
#include <utility>

namespace zel {

namespace {

// The regular wake-up and everything that was connected before it are posted by then.
constexpr int turnsBehindRegularWakeUp = 2;

// Saturates: a long duration must not wrap into "no time-out".
int toTimeout(std::chrono::milliseconds duration)
{
    if (duration.count() < 0)
        return -1;
    return int(qMin<qint64>(duration.count(), std::numeric_limits<int>::max()));
}

} // namespace

/// One blocking wait, on the waiting thread's stack.
class BaseTask::Private::Wait final : public TaskWatcher {
public:
    Wait(std::shared_ptr<TaskLife> life, Qt::ConnectionType wakeUp) : m_life(std::move(life)), m_wakeUp(wakeUp)
    {
        if (!listen())
            endWith(destroyedError());
    }

    ~Wait()
    {
        if (!m_isClosed)
            static_cast<void>(close());
    }

    Q_DISABLE_COPY_MOVE(Wait)

    QEventLoop *loop() { return &m_loop; }
    /// Returns the result; none comes any more.
    Error close()
    {
        m_isClosed = true;
        const QMutexLocker locker(m_life->mutex());
        m_life->remove(this);
        return m_result.value_or(Error());
    }

    void endWith(const Error &error)
    {
        const QMutexLocker locker(m_life->mutex());
        end(error);
    }

    void onEnded(const BaseTask *task, bool isAnnounced) override
    {
        if (isAnnounced && m_wakeUp == Qt::DirectConnection)
            end(task->error());
        else
            endLater(task->error(), isAnnounced ? 1 : turnsBehindRegularWakeUp);
    }

    // An outcome that is on its way counts.
    void onDestroyed(const BaseTask *, const Error &error) override { end(m_outcome.value_or(error)); }

private:
    /// Returns false when the task is gone.
    bool listen()
    {
        const QMutexLocker locker(m_life->mutex());
        const BaseTask *task = m_life->task();
        if (!task)
            return false;
        m_life->add(this);
        if (m_life->state() == Finished)
            onEnded(task, false);
        return true;
    }

    void end(const Error &error)
    {
        if (m_result)
            return;
        m_result = error;
        m_loop.quit();
        // A quit() from another thread is lost when the loop has not begun to run; a posted one is not.
        if (m_loop.thread() != QThread::currentThread())
            QMetaObject::invokeMethod(&m_loop, &QEventLoop::quit, Qt::QueuedConnection);
    }

    /// Ends the wait from its loop, after \a turns posted calls.
    void endLater(const Error &error, int turns)
    {
        if (!m_outcome)
            m_outcome = error;
        const auto step = [this, error, turns] {
            const QMutexLocker locker(m_life->mutex());
            if (turns > 1)
                endLater(error, turns - 1);
            else
                end(error);
        };
        QMetaObject::invokeMethod(&m_loop, step, Qt::QueuedConnection);
    }

    const std::shared_ptr<TaskLife> m_life;
    const Qt::ConnectionType m_wakeUp;
    QEventLoop m_loop;
    bool m_isClosed = false;
    // Guarded by the mutex of the life.
    std::optional<Error> m_outcome;
    std::optional<Error> m_result;
};

Error BaseTask::Private::wait(Qt::ConnectionType wakeUp, int msec)
{
    if (q->isFinished())
        return q->error();

    Wait wait(life, wakeUp);
    const auto flags = waitMode == ExcludeUserInput ? QEventLoop::ExcludeUserInputEvents : QEventLoop::AllEvents;
    std::optional<QTimer> timer;
    if (msec >= 0) {
        timer.emplace();
        timer->setTimerType(Qt::PreciseTimer);
        connect(&*timer, &QTimer::timeout, wait.loop(), [&wait] { wait.endWith(Error(Timeout)); });
        timer->start(msec);
    }
    wait.loop()->exec(flags);
    // From here on the task may be gone.
    return wait.close();
}

Err BaseTask::waitForFinished(int msec) const
{
    return d->wait(Qt::DirectConnection, msec);
}

Err BaseTask::waitForFinished(std::chrono::milliseconds msec) const
{
    return d->wait(Qt::DirectConnection, toTimeout(msec));
}

Err BaseTask::waitForAllFinished(int msec) const
{
    return d->wait(Qt::QueuedConnection, msec);
}

Err BaseTask::waitForAllFinished(std::chrono::milliseconds msec) const
{
    return d->wait(Qt::QueuedConnection, toTimeout(msec));
}

} // namespace zel
