#include "TaskUse.h"

#include <QList>
#include <QMutex>
#include <QThread>
#include <QWaitCondition>

#include <algorithm>
#include <iterator>
#include <utility>

namespace zel {

namespace {

using Use = std::pair<const BaseTask *, Qt::HANDLE>;

struct Registry {
    QMutex mutex;
    QWaitCondition ended;
    /// As many as threads are at work with a task at the moment, and a few more where starts are nested.
    QList<Use> uses;
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
    const QMutexLocker locker(&registry()->mutex);
    registry()->uses.append({m_task, QThread::currentThreadId()});
}

TaskUse::~TaskUse()
{
    QList<Use> &uses = registry()->uses;
    const QMutexLocker locker(&registry()->mutex);
    // The innermost one, which is the last of this thread.
    const auto found = std::find(uses.crbegin(), uses.crend(), Use(m_task, QThread::currentThreadId()));
    uses.remove(std::distance(found, uses.crend()) - 1);
    if (registry()->waiting > 0)
        registry()->ended.wakeAll();
}

void TaskUse::waitForOthers(const BaseTask *task)
{
    if (heldLocks > 0)
        return;
    const auto isElsewhere = [task, self = QThread::currentThreadId()](const Use &use) {
        return use.first == task && use.second != self;
    };
    const QMutexLocker locker(&registry()->mutex);
    ++registry()->waiting;
    while (std::any_of(registry()->uses.cbegin(), registry()->uses.cend(), isElsewhere))
        registry()->ended.wait(&registry()->mutex);
    --registry()->waiting;
}

void TaskUse::addHeldLocks(int count)
{
    heldLocks += count;
}

} // namespace zel
