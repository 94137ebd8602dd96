#include "TaskUse.h"

#include <QMutex>
#include <QThread>
#include <QWaitCondition>

#include <algorithm>
#include <utility>
#include <vector>

namespace zel {

namespace {

using Use = std::pair<const BaseTask *, Qt::HANDLE>;

struct Registry {
    QMutex mutex;
    QWaitCondition ended;
    /// As many as threads are at work with a task at the moment, and a few more where starts are nested.
    std::vector<Use> uses;
    int waiting = 0;
};
// Never destroyed: tasks and queues with static storage may outlive everything of ours that is.
Registry *registry()
{
    static auto *const instance = new Registry;
    return instance;
}

thread_local int heldLocks = 0;

} // namespace

TaskUse::TaskUse(const BaseTask *task) : m_task(task)
{
    Registry *shared = registry();
    const QMutexLocker locker(&shared->mutex);
    shared->uses.emplace_back(m_task, QThread::currentThreadId());
}

TaskUse::~TaskUse()
{
    Registry *shared = registry();
    const QMutexLocker locker(&shared->mutex);
    // Most often the last one.
    const auto found = std::find(shared->uses.rbegin(), shared->uses.rend(), Use(m_task, QThread::currentThreadId()));
    *found = shared->uses.back();
    shared->uses.pop_back();
    if (shared->waiting > 0)
        shared->ended.wakeAll();
}

void TaskUse::waitForOthers(const BaseTask *task)
{
    if (heldLocks > 0)
        return;
    const auto isElsewhere = [task, self = QThread::currentThreadId()](const Use &use) {
        return use.first == task && use.second != self;
    };
    Registry *shared = registry();
    const QMutexLocker locker(&shared->mutex);
    ++shared->waiting;
    while (std::any_of(shared->uses.cbegin(), shared->uses.cend(), isElsewhere))
        shared->ended.wait(&shared->mutex);
    --shared->waiting;
}

void TaskUse::addHeldLocks(int count)
{
    heldLocks += count;
}

} // namespace zel
