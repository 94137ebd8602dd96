#include <zel/tasks/ZelTaskWaitForFinishedOperation.h>

#include "BaseTask_p.h"

#include <QMutexLocker>
#include <QPointer>
#include <QThread>

#include <optional>
#include <utility>

namespace QCoro::detail {

/// Shared with what is posted for the awaiter, which finds no coroutine to resume once that was done or is gone.
class Q_DECL_HIDDEN ZelTaskWaitForFinishedOperation::Record final : public zel::TaskWatcher,
                                                                    public std::enable_shared_from_this<Record> {
public:
    explicit Record(const zel::BaseTask *awaited) : task(awaited) { }

    void watch(std::coroutine_handle<> awaitingCoroutine);
    /// Nothing resumes the coroutine after this.
    std::coroutine_handle<> detach();
    void resume();
    zel::Error result() const;

    void onEnded(const zel::BaseTask *awaited, bool isAnnounced) override;
    void onDestroyed(const zel::BaseTask *awaited, const zel::Error &error) override;

    const QPointer<const zel::BaseTask> task;

private:
    void disconnectTask(const QMetaObject::Connection &connection) const;
    void postResume(QObject *context, int turns);

    /// Null until the awaiter waits. Its mutex guards what follows.
    std::shared_ptr<zel::TaskRef> m_ref;
    std::coroutine_handle<> m_awaiting;
    QPointer<QThread> m_awaitingThread;
    /// What the task had for an error when it ended. It counts once the task is gone or runs again.
    std::optional<zel::Error> m_outcome;
    /// The number of the task's run while it stays ended; none once the task is gone.
    std::optional<quint64> m_endedRun;
    QMetaObject::Connection m_connection;
};

void ZelTaskWaitForFinishedOperation::Record::watch(std::coroutine_handle<> awaitingCoroutine)
{
    using zel::BaseTask;
    const BaseTask *awaited = task;
    auto *internals = BaseTask::Private::of(awaited);
    m_ref = internals->ref();
    m_awaiting = awaitingCoroutine;
    m_awaitingThread = QThread::currentThread();
    const auto connection = QObject::connect(
        awaited, &BaseTask::finished, internals,
        [weak = weak_from_this()] {
            if (const auto record = weak.lock())
                record->resume();
        },
        Qt::QueuedConnection);

    // Another thread may have resumed the coroutine, and destroyed the task, since it was connected.
    QMutexLocker locker(m_ref->mutex());
    if (!m_ref->get()) {
        locker.unlock();
        const zel::Error error = BaseTask::Private::destroyedError();
        locker.relock();
        if (m_awaiting)
            onDestroyed(nullptr, error);
        return;
    }
    if (!m_awaiting) {
        locker.unlock();
        disconnectTask(connection);
        return;
    }
    m_connection = connection;
    m_ref->add(this);
    if (awaited->isFinished())
        onEnded(awaited, false);
}

std::coroutine_handle<> ZelTaskWaitForFinishedOperation::Record::detach()
{
    if (!m_ref)
        return {};
    QMutexLocker locker(m_ref->mutex());
    m_ref->remove(this);
    const auto awaiting = std::exchange(m_awaiting, {});
    const auto connection = std::exchange(m_connection, {});
    locker.unlock();
    disconnectTask(connection);
    return awaiting;
}

// Unless the task is on its way out, and the connection with it.
void ZelTaskWaitForFinishedOperation::Record::disconnectTask(const QMetaObject::Connection &connection) const
{
    const zel::TaskHold hold(*m_ref);
    if (hold.task())
        QObject::disconnect(connection);
}

void ZelTaskWaitForFinishedOperation::Record::resume()
{
    if (const auto awaiting = detach())
        awaiting.resume();
}

zel::Error ZelTaskWaitForFinishedOperation::Record::result() const
{
    std::optional<QMutexLocker<QMutex>> locker;
    if (m_ref)
        locker.emplace(m_ref->mutex());
    const bool isStillEnded = m_endedRun && task && zel::BaseTask::Private::of(task)->run == m_endedRun;
    if (m_outcome && !isStillEnded)
        return *m_outcome;
    return task ? task->error() : zel::Error(zel::NoError);
}

// What finish() announces resumes the coroutine through the connection. Behind what such an end posts, the others do.
void ZelTaskWaitForFinishedOperation::Record::onEnded(const zel::BaseTask *awaited, bool isAnnounced)
{
    auto *internals = zel::BaseTask::Private::of(awaited);
    if (!m_outcome) {
        m_outcome = awaited->error();
        m_endedRun = internals->run;
    }
    if (!isAnnounced)
        postResume(internals, 2);
}

// The task's own events go with it; the coroutine must not be resumed inside its destructor.
void ZelTaskWaitForFinishedOperation::Record::onDestroyed(const zel::BaseTask *awaited, const zel::Error &error)
{
    m_endedRun.reset();
    if (!m_outcome)
        m_outcome = error;
    QThread *thread = awaited ? awaited->thread() : nullptr;
    if ((!thread || thread->isFinished()) && m_awaitingThread)
        thread = m_awaitingThread;
    auto *courier = new QObject;
    courier->moveToThread(thread);
    const auto deliver = [courier, weak = weak_from_this()] {
        courier->deleteLater();
        if (const auto record = weak.lock())
            record->resume();
    };
    QMetaObject::invokeMethod(courier, deliver, Qt::QueuedConnection);
}

void ZelTaskWaitForFinishedOperation::Record::postResume(QObject *context, int turns)
{
    const auto step = [context, turns, weak = weak_from_this()] {
        const auto record = weak.lock();
        if (!record)
            return;
        if (turns > 1)
            record->postResume(context, turns - 1);
        else
            record->resume();
    };
    QMetaObject::invokeMethod(context, step, Qt::QueuedConnection);
}

ZelTaskWaitForFinishedOperation::ZelTaskWaitForFinishedOperation(const zel::BaseTask &task)
    : ZelTaskWaitForFinishedOperation(&task)
{
}

ZelTaskWaitForFinishedOperation::ZelTaskWaitForFinishedOperation(const zel::BaseTask *task)
    : d(std::make_shared<Record>(task))
{
}

ZelTaskWaitForFinishedOperation::ZelTaskWaitForFinishedOperation(ZelTaskWaitForFinishedOperation &&other) noexcept =
    default;

ZelTaskWaitForFinishedOperation &
ZelTaskWaitForFinishedOperation::operator=(ZelTaskWaitForFinishedOperation &&other) noexcept
{
    std::swap(d, other.d);
    return *this;
}

ZelTaskWaitForFinishedOperation::~ZelTaskWaitForFinishedOperation()
{
    if (d)
        d->detach();
}

bool ZelTaskWaitForFinishedOperation::await_ready() const
{
    return d->task && d->task->isFinished();
}

void ZelTaskWaitForFinishedOperation::await_suspend(std::coroutine_handle<> awaitingCoroutine)
{
    // Another thread may resume the coroutine, and with it destroy this awaiter, before watch() returns.
    const auto record = d;
    if (record->task && !record->task->isFinished())
        record->watch(awaitingCoroutine);
    else
        awaitingCoroutine.resume();
}

zel::Error ZelTaskWaitForFinishedOperation::await_resume()
{
    return d->result();
}

} // namespace QCoro::detail

namespace zel {

QCoro::Task<Error> BaseTask::co_waitForFinished() const
{
    co_return co_await this;
}

} // namespace zel
