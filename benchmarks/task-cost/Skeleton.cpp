#include "Skeleton.h"

Skeleton::Skeleton(QObject *parent) : QObject(parent), m_private(std::make_unique<SkeletonPrivate>(this))
{
    connect(this, &Skeleton::canceled, this, [this] { m_isCanceled = true; });
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
    m_pending.enqueue(task);
}

void SkeletonQueue::start()
{
    m_pending.dequeue()->run();
}

void SkeletonQueue::onFinished(Skeleton *task)
{
    disconnect(task, nullptr, this, nullptr);
    m_pending.isEmpty() ? idle() : start();
}

void SkeletonGroup::append(Skeleton *child)
{
    ++m_pending;
    connect(
        child, &Skeleton::started, this, [] {}, Qt::QueuedConnection);
    connect(
        child, &Skeleton::finished, this,
        [this, child] {
            if (deletesChildren) {
                disconnect(child, nullptr, this, nullptr);
                child->deleteLater();
            }
            if (--m_pending == 0)
                run();
        },
        Qt::QueuedConnection);
    connect(
        child, &Skeleton::progress, this,
        [this](int value, int) {
            m_sum += value;
            setProgress(m_sum, 0);
        },
        Qt::QueuedConnection);
    setProgress(0, 0);
}
