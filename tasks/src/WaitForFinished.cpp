#include "BaseTask_p.h"

#include <QEventLoop>
#include <QMutex>
#include <QThread>
#include <QTimer>

#include <limits>
#include <memory>
#include <optional>

namespace zel {

namespace {

/// What a wait shares with its wake-ups. They come on any thread, and late ones find no loop any more.
class WaitState : public std::enable_shared_from_this<WaitState> {
public:
    explicit WaitState(QEventLoop *loop) : m_loop(loop) { }

    /// Ends the wait with \a error, unless it has ended.
    void end(const Error &error)
    {
        const QMutexLocker locker(&m_mutex);
        if (!m_loop || m_result)
            return;
        m_result = error;
        m_loop->quit();
        // A quit() from another thread is lost when the loop has not begun to run; a posted one is not.
        if (m_loop->thread() != QThread::currentThread())
            QMetaObject::invokeMethod(m_loop, &QEventLoop::quit, Qt::QueuedConnection);
    }

    /// Ends the wait from its loop, after \a turns posted calls.
    void endLater(const Error &error, int turns)
    {
        const QMutexLocker locker(&m_mutex);
        if (!m_outcome)
            m_outcome = error;
        if (!m_loop)
            return;
        const auto step = [self = shared_from_this(), error, turns] {
            if (turns > 1)
                self->endLater(error, turns - 1);
            else
                self->end(error);
        };
        QMetaObject::invokeMethod(m_loop, step, Qt::QueuedConnection);
    }

    /// The outcome that is on its way, if any: it counts even if the task goes before it arrives.
    Error outcomeOr(const Error &error) const
    {
        const QMutexLocker locker(&m_mutex);
        return m_outcome.value_or(error);
    }

    Error close()
    {
        const QMutexLocker locker(&m_mutex);
        m_loop = nullptr;
        return m_result.value_or(Error());
    }

private:
    mutable QMutex m_mutex;
    QEventLoop *m_loop;
    std::optional<Error> m_outcome;
    std::optional<Error> m_result;
};

// Saturates: a long duration must not wrap into "no time-out".
int toTimeout(std::chrono::milliseconds duration)
{
    if (duration.count() < 0)
        return -1;
    return int(qMin<qint64>(duration.count(), std::numeric_limits<int>::max()));
}

// The regular wake-up and everything that was connected before it are posted by then.
constexpr int turnsBehindRegularWakeUp = 2;

} // namespace

Error BaseTask::Private::wait(Qt::ConnectionType wakeUp, int msec) const
{
    if (q->isFinished())
        return q->error();

    QEventLoop loop;
    const auto wait = std::make_shared<WaitState>(&loop);
    const auto onFinished = [wait, wakeUp, task = q] {
        if (wakeUp == Qt::QueuedConnection)
            wait->endLater(task->error(), 1);
        else
            wait->end(task->error());
    };
    const auto onStateChanged = [wait, task = q](State reached) {
        if (reached == Finished && !of(task)->announcesEnd())
            wait->endLater(task->error(), turnsBehindRegularWakeUp);
    };
    connect(this, &Private::finished, &loop, onFinished, Qt::DirectConnection);
    connect(q, &BaseTask::stateChanged, &loop, onStateChanged, Qt::DirectConnection);
    connect(
        this, &QObject::destroyed, &loop, [wait] { wait->end(wait->outcomeOr(destroyedError())); },
        Qt::DirectConnection);
    if (q->isFinished())
        wait->endLater(q->error(), turnsBehindRegularWakeUp);

    QTimer timer;
    timer.setTimerType(Qt::PreciseTimer);
    connect(&timer, &QTimer::timeout, &loop, [wait] { wait->end(Error(Timeout)); });
    if (msec >= 0)
        timer.start(msec);
    loop.exec(waitMode == ExcludeUserInput ? QEventLoop::ExcludeUserInputEvents : QEventLoop::AllEvents);
    // From here on the task may be gone.
    return wait->close();
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
