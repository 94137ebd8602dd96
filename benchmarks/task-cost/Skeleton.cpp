#include "Skeleton.h"

#include <algorithm>

Skeleton::Skeleton(QObject *parent) : QObject(parent), m_private(std::make_unique<SkeletonPrivate>(this))
{
    connect(
        this, &Skeleton::canceled, this, [this] { m_isCanceled = true; }, Qt::DirectConnection);
}

Skeleton::~Skeleton()
{
    Q_EMIT aboutToDestroy();
}

void Skeleton::run()
{
    start();
    end();
}

void Skeleton::start()
{
    Q_EMIT stateChanged(1);
    Q_EMIT started();
}

void Skeleton::end()
{
    Q_EMIT errorChanged(zel::Error());
    Q_EMIT stateChanged(3);
    Q_EMIT finalizing();
    Q_EMIT stateChanged(4);
    Q_EMIT m_private->finished();
    Q_EMIT finished();
}

void SkeletonQueue::append(Skeleton *task)
{
    connect(
        task, &Skeleton::finished, this, [this, task] { onFinished(task); }, Qt::QueuedConnection);
    connect(
        task, &Skeleton::aboutToDestroy, this, [] {}, Qt::DirectConnection);
    connect(
        task, &Skeleton::priorityChanged, this, [](int) {}, Qt::QueuedConnection);
    m_pending[size_t(task->priority)].enqueue(task);
}

void SkeletonQueue::start()
{
    const auto first = std::find_if(m_pending.begin(), m_pending.end(),
                                    [](const auto &level) { return !level.isEmpty(); });
    first != m_pending.end() ? first->dequeue()->run() : idle();
}

void SkeletonQueue::onFinished(Skeleton *task)
{
    disconnect(task, nullptr, this, nullptr);
    start();
}

SkeletonGroup::SkeletonGroup()
{
    connect(this, &Skeleton::stateChanged, this, [](int) {});
}

// Start and end are taken note of where they happen, which may be another thread, and handled in the group's.
void SkeletonGroup::append(Skeleton *child)
{
    ++m_pending;
    Q_EMIT taskAppended(child);
    setProgress(0, 0);
    connect(
        child, &Skeleton::started, this,
        [this] {
            QMetaObject::invokeMethod(
                this, [] {}, Qt::QueuedConnection);
        },
        Qt::DirectConnection);
    connect(
        child, &Skeleton::finished, this,
        [this, child] {
            QMetaObject::invokeMethod(
                this, [this, child] { onFinished(child); }, Qt::QueuedConnection);
        },
        Qt::DirectConnection);
    connect(
        child, &Skeleton::progress, this,
        [this](int value, int) {
            m_sum += value;
            setProgress(m_sum, 0);
        },
        Qt::QueuedConnection);
}

void SkeletonGroup::onFinished(Skeleton *child)
{
    if (deletesChildren) {
        disconnect(child, nullptr, this, nullptr);
        child->deleteLater();
    }
    if (--m_pending == 0)
        run();
}
