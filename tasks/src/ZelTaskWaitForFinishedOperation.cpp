#include <zel/tasks/ZelTaskWaitForFinishedOperation.h>

#include "BaseTask_p.h"
#include "CoroutineHandover.h"

#include <QMutexLocker>
#include <QPointer>
#include <QThread>

#include <optional>
#include <utility>

namespace QCoro::detail {

/// Shared with what is posted for the awaiter, which finds no coroutine to resume once that was done or is gone.
class Q_DECL_HIDDEN ZelTaskWaitForFinishedOperation::Record final : public zel::TaskWatcher,
                                                                    public zel::CoroutineHandover::Suspended,
                                                                    public std::enable_shared_from_this<Record> {
public:
    explicit Record(const zel::BaseTask *awaited)
        : TaskWatcher(true)
        , life(awaited ? zel::TaskLife::of(awaited) : nullptr)
    {
    }
    ~Record() override
    {
        if (m_courier)
            m_courier->deleteLater();
    }

    bool isGone() const { return !life || !life->task(); }
    bool isToBeWaitedFor() const { return !isGone() && life->state() != zel::BaseTask::Finished; }

    void watch(std::coroutine_handle<> awaitingCoroutine);
    /// Nothing resumes the coroutine after this.
    std::coroutine_handle<> detach();
    void resume();
    zel::Error result() const;

    void onEnded(const zel::BaseTask *awaited, bool isAnnounced) override;
    void onAnnounced(const zel::BaseTask *awaited) override;
    void onDestroyed(const zel::BaseTask *awaited, const zel::Error &error) override;
    void onHandedOver() override;

    /// Null when there was no task.
    const std::shared_ptr<zel::TaskLife> life;

private:
    void postResume(QObject *context, int turns);
    void resumeIn(QThread *thread);
    void send(QObject *courier);

    // Guarded by the mutex of the life.
    std::coroutine_handle<> m_awaiting;
    QPointer<QThread> m_awaitingThread;
    /// What the task had for an error when it ended. It counts once the task is gone or runs again.
    std::optional<zel::Error> m_outcome;
    /// The number of the task's run while it stays ended; none once the task is gone.
    std::optional<quint64> m_endedRun;
    bool m_isHandedOver = true;
    /// In the thread in which the coroutine was to be resumed before it was handed over.
    QObject *m_courier = nullptr;
};

void ZelTaskWaitForFinishedOperation::Record::watch(std::coroutine_handle<> awaitingCoroutine)
{
    using zel::BaseTask;
    m_awaiting = awaitingCoroutine;
    m_awaitingThread = QThread::currentThread();
    const zel::TaskVisit visit(life);
    const BaseTask *awaited = visit.task();
    if (awaited && awaited->thread() != QThread::currentThread())
        m_isHandedOver = !zel::CoroutineHandover::tells(weak_from_this());
    QMutexLocker locker(life->mutex());
    if (!life->task()) {
        locker.unlock();
        const zel::Error gone = BaseTask::Private::destroyedError();
        locker.relock();
        return onDestroyed(nullptr, gone);
    }
    life->add(this);
    if (life->state() == BaseTask::Finished)
        onEnded(awaited, false);
}

std::coroutine_handle<> ZelTaskWaitForFinishedOperation::Record::detach()
{
    if (!life)
        return {};
    const QMutexLocker locker(life->mutex());
    life->remove(this);
    return std::exchange(m_awaiting, {});
}

void ZelTaskWaitForFinishedOperation::Record::resume()
{
    {
        const QMutexLocker locker(life->mutex());
        if (!m_isHandedOver && m_awaitingThread != QThread::currentThread()) {
            if (!m_courier)
                m_courier = new QObject;
            return;
        }
    }
    if (const auto awaiting = detach()) {
        const zel::CoroutineHandover handover;
        awaiting.resume();
    }
}

void ZelTaskWaitForFinishedOperation::Record::onHandedOver()
{
    QObject *courier = nullptr;
    {
        const QMutexLocker locker(life->mutex());
        m_isHandedOver = true;
        courier = std::exchange(m_courier, nullptr);
    }
    if (!courier)
        return;
    const QThread *thread = courier->thread();
    if (thread && !thread->isFinished())
        return send(courier);
    delete courier;
    resume();
}

// In that of the awaiting coroutine, if there is none.
void ZelTaskWaitForFinishedOperation::Record::resumeIn(QThread *thread)
{
    if ((!thread || thread->isFinished()) && m_awaitingThread)
        thread = m_awaitingThread;
    auto *courier = new QObject;
    courier->moveToThread(thread);
    send(courier);
}

// Resumes the coroutine in the thread of the courier, which goes.
void ZelTaskWaitForFinishedOperation::Record::send(QObject *courier)
{
    const auto deliver = [courier, weak = weak_from_this()] {
        courier->deleteLater();
        if (const auto record = weak.lock())
            record->resume();
    };
    QMetaObject::invokeMethod(courier, deliver, Qt::QueuedConnection);
}

zel::Error ZelTaskWaitForFinishedOperation::Record::result() const
{
    if (!life)
        return zel::Error(zel::NoError);
    const zel::TaskVisit visit(life);
    const QMutexLocker locker(life->mutex());
    const bool isStillEnded = m_endedRun && visit.isInside() && life->run() == m_endedRun;
    if (m_outcome && !isStillEnded)
        return *m_outcome;
    return visit.isInside() ? visit.task()->error() : zel::Error(zel::NoError);
}

// What finish() announces resumes the coroutine behind that. Behind what such an end posts, the others do.
void ZelTaskWaitForFinishedOperation::Record::onEnded(const zel::BaseTask *awaited, bool isAnnounced)
{
    if (!m_outcome) {
        m_outcome = awaited->error();
        m_endedRun = life->run();
    }
    if (!isAnnounced)
        postResume(zel::BaseTask::Private::of(awaited), 2);
}

void ZelTaskWaitForFinishedOperation::Record::onAnnounced(const zel::BaseTask *awaited)
{
    if (m_outcome)
        postResume(zel::BaseTask::Private::of(awaited), 1);
}

// The task's own events go with it; the coroutine must not be resumed inside its destructor.
void ZelTaskWaitForFinishedOperation::Record::onDestroyed(const zel::BaseTask *awaited, const zel::Error &error)
{
    m_endedRun.reset();
    if (!m_outcome)
        m_outcome = error;
    resumeIn(awaited ? awaited->thread() : nullptr);
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
    return !d->isGone() && d->life->state() == zel::BaseTask::Finished;
}

void ZelTaskWaitForFinishedOperation::await_suspend(std::coroutine_handle<> awaitingCoroutine)
{
    // Another thread may resume the coroutine, and with it destroy this awaiter, before watch() returns.
    const auto record = d;
    if (record->isToBeWaitedFor())
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
