#include "GroupChild.h"

#include "GroupTask_p.h"
#include "Interleaving.h"

#include <QThread>

namespace zel {

namespace {

/// Has the group handle something: here, with its lock held, or in its thread, by the type of the connection.
template <typename Handle>
void tell(const std::shared_ptr<GroupChild> &child, Handle handle)
{
    interleavingPoint("tell group");
    auto handleLocked = [child, handle = std::move(handle)]() mutable {
        // The lock first: whoever destroys the group in a handler holds it, and would wait for the visit.
        GroupLink *const link = child->link.get();
        GroupLocker::notify(link->mutex, [child = std::move(child), handle = std::move(handle)] {
            const TaskVisit visit(child->link->life);
            if (visit.isInside())
                handle(GroupTask::Private::of(visit), child);
        });
    };
    if (child->connectionType == Qt::DirectConnection)
        handleLocked();
    else
        deliverTo(child->link->life, std::move(handleLocked), child->connectionType);
}

} // namespace

void GroupChild::reportStart(const std::shared_ptr<GroupChild> &child)
{
    if (!child->isListed)
        return;
    const quint64 run = child->life->run();
    // Unless an earlier handler of started() has ended it, which is reported already.
    if (child->reportedRun < run)
        child->begunRun = run;
    ++child->link->startsUnderWay;
    tell(child, [run, use = child->link->use.load()](auto *group, const auto &told) {
        --told->link->startsUnderWay;
        group->onChildStarted(told, run, use);
    });
}

void GroupChild::reportEnd(const std::shared_ptr<GroupChild> &child, quint64 run, const Error &error)
{
    // One that runs again, begun by a handler, tells of that itself.
    if (child->life->task() && child->life->endedRun() != run && child->life->state() != BaseTask::Idle)
        return;
    quint64 reported = child->reportedRun;
    do {
        if (reported >= run)
            return;
    } while (!child->reportedRun.compare_exchange_weak(reported, run));
    tell(child, [run, use = child->link->use.load(), error](auto *group, const auto &told) {
        group->onChildFinished(told, run, use, error);
    });
}

void GroupChild::reportProgress(const std::shared_ptr<GroupChild> &child, int value, int total)
{
    if (!child->isListed)
        return;
    tell(child, [value, total](auto *group, const auto &told) { group->onChildProgress(told, value, total); });
}

void GroupChild::noteIdle(const std::shared_ptr<GroupChild> &child)
{
    const QMutexLocker locker(&child->link->idleMutex);
    child->link->idleAgain.push_back(child);
}

} // namespace zel
