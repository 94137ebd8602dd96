#include "Departure.h"

#include <QDeadlineTimer>
#include <QMutex>
#include <QWaitCondition>

#include <chrono>

namespace zel::departure {

namespace {

constexpr std::chrono::seconds patience{2};

struct Door {
    QMutex mutex;
    QWaitCondition passed;
};

// Never destroyed: tasks and queues with static storage may outlive everything of ours that is.
Door *door()
{
    static auto *const instance = new Door;
    return instance;
}

} // namespace

void announce()
{
    const QMutexLocker locker(&door()->mutex);
    door()->passed.wakeAll();
}

void wait(const std::function<bool()> &isAlone, const std::function<void()> &onDelay)
{
    QMutexLocker locker(&door()->mutex);
    QDeadlineTimer deadline(patience);
    while (!isAlone()) {
        if (door()->passed.wait(&door()->mutex, deadline) || deadline.isForever())
            continue;
        deadline = QDeadlineTimer(QDeadlineTimer::Forever);
        if (!onDelay || isAlone())
            continue;
        locker.unlock();
        onDelay();
        locker.relock();
    }
}

} // namespace zel::departure
