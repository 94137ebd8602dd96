#include <zel/tasks/ZelTaskWaitForFinishedOperation.h>

#include "BaseTask_p.h"

#include <QMutex>
#include <QPointer>
#include <QThread>

#include <array>
#include <optional>
#include <utility>

namespace QCoro::detail {

/// Shared with what is posted for the awaiter, which finds no coroutine to resume once that was done or is gone.
class Q_DECL_HIDDEN ZelTaskWaitForFinishedOperation::Record : public std::enable_shared_from_this<Record> {
public:
    explicit Record(const zel::BaseTask *awaited) : task(awaited) { }

    void watch(std::coroutine_handle<> awaitingCoroutine);
    /// Nothing resumes the coroutine after this.
    std::coroutine_handle<> detach();
    void resume();
    zel::Error result() const;

    const QPointer<const zel::BaseTask> task;

private:
    void onEnded(const zel::BaseTask *awaited);
    void onEndedUnannounced(const zel::BaseTask *awaited);
    void resumeWithoutTask(QThread *thread);
    // These are called with the mutex held.
    void keepOutcome(const zel::BaseTask *awaited);
    void postResume(const zel::BaseTask *awaited);

    mutable QMutex m_mutex;
    std::coroutine_handle<> m_awaiting;
    QPointer<QThread> m_awaitingThread;
    /// What the task had for an error when it ended. It counts once the task is gone or runs again.
    std::optional<zel::Error> m_outcome;
    /// The number of the task's run while it stays ended; none once the task is gone.
    std::optional<quint64> m_endedRun;
    std::array<QMetaObject::Connection, 4> m_connections;
};

void ZelTaskWaitForFinishedOperation::Record::watch(std::coroutine_handle<> awaitingCoroutine)
{
    using zel::BaseTask;
    using Private = BaseTask::Private;
    // Kept in locals: once connected, another thread may resume the coroutine and destroy the awaiter.
    const BaseTask *awaited = task;
    auto *internals = Private::of(awaited);
    const auto weak = weak_from_this();
    const auto withRecord = [weak](const auto &call) {
        if (const auto record = weak.lock())
            call(*record);
    };

    const QMutexLocker locker(&m_mutex);
    m_awaiting = awaitingCoroutine;
    m_awaitingThread = QThread::currentThread();
    m_connections[0] = QObject::connect(
        awaited, &BaseTask::finished, internals, [withRecord] { withRecord([](Record &record) { record.resume(); }); },
        Qt::QueuedConnection);
    m_connections[1] = QObject::connect(
        internals, &Private::finished, internals,
        [withRecord, awaited] { withRecord([awaited](Record &record) { record.onEnded(awaited); }); },
        Qt::DirectConnection);
    m_connections[2] = QObject::connect(
        awaited, &BaseTask::stateChanged, internals,
        [withRecord, awaited, internals](BaseTask::State state) {
            if (state == BaseTask::Finished && !internals->announcesEnd())
                withRecord([awaited](Record &record) { record.onEndedUnannounced(awaited); });
        },
        Qt::DirectConnection);
    m_connections[3] = QObject::connect(
        internals, &QObject::destroyed, internals,
        [withRecord, awaited] {
            withRecord([awaited](Record &record) { record.resumeWithoutTask(awaited->thread()); });
        },
        Qt::DirectConnection);
    // Still with the mutex: without it, the coroutine may be resumed and delete the task.
    if (!awaited->isFinished())
        return;
    keepOutcome(awaited);
    postResume(awaited);
}

std::coroutine_handle<> ZelTaskWaitForFinishedOperation::Record::detach()
{
    QMutexLocker locker(&m_mutex);
    const auto connections = std::exchange(m_connections, {});
    const auto awaiting = std::exchange(m_awaiting, {});
    locker.unlock();
    for (const QMetaObject::Connection &connection : connections)
        QObject::disconnect(connection);
    return awaiting;
}

void ZelTaskWaitForFinishedOperation::Record::resume()
{
    if (const auto awaiting = detach())
        awaiting.resume();
}

zel::Error ZelTaskWaitForFinishedOperation::Record::result() const
{
    const QMutexLocker locker(&m_mutex);
    const bool isStillEnded = m_endedRun && task && zel::BaseTask::Private::of(task)->run == m_endedRun;
    if (m_outcome && !isStillEnded)
        return *m_outcome;
    return task ? task->error() : zel::Error(zel::NoError);
}

void ZelTaskWaitForFinishedOperation::Record::onEnded(const zel::BaseTask *awaited)
{
    const QMutexLocker locker(&m_mutex);
    keepOutcome(awaited);
}

// Without finished().
void ZelTaskWaitForFinishedOperation::Record::onEndedUnannounced(const zel::BaseTask *awaited)
{
    const QMutexLocker locker(&m_mutex);
    keepOutcome(awaited);
    postResume(awaited);
}

void ZelTaskWaitForFinishedOperation::Record::keepOutcome(const zel::BaseTask *awaited)
{
    if (m_outcome)
        return;
    m_outcome = awaited->error();
    m_endedRun = zel::BaseTask::Private::of(awaited)->run;
}

// Behind what a regular end posts.
void ZelTaskWaitForFinishedOperation::Record::postResume(const zel::BaseTask *awaited)
{
    QObject *context = zel::BaseTask::Private::of(awaited);
    const auto lastTurn = [weak = weak_from_this()] {
        if (const auto record = weak.lock())
            record->resume();
    };
    const auto firstTurn = [context, lastTurn] { QMetaObject::invokeMethod(context, lastTurn, Qt::QueuedConnection); };
    QMetaObject::invokeMethod(context, firstTurn, Qt::QueuedConnection);
}

void ZelTaskWaitForFinishedOperation::Record::resumeWithoutTask(QThread *thread)
{
    QMutexLocker locker(&m_mutex);
    m_endedRun.reset();
    if (!m_outcome)
        m_outcome = zel::BaseTask::Private::destroyedError();
    locker.unlock();
    // The task's own events go with it; the coroutine must not be resumed inside its destructor.
    auto *courier = new QObject;
    if ((!thread || thread->isFinished()) && m_awaitingThread)
        thread = m_awaitingThread;
    courier->moveToThread(thread);
    const auto deliver = [courier, weak = weak_from_this()] {
        courier->deleteLater();
        if (const auto record = weak.lock())
            record->resume();
    };
    QMetaObject::invokeMethod(courier, deliver, Qt::QueuedConnection);
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
