#pragma once

#include "GroupChild.h"
#include "TasksQueueHold.h"

#include <zel/tasks/GroupTask.h>

#include <QHash>
#include <QList>

#include <atomic>
#include <memory>
#include <optional>
#include <vector>

namespace zel {

class Q_DECL_HIDDEN GroupTask::Private {
public:
    using Child = std::shared_ptr<GroupChild>;

    explicit Private(GroupTask *group)
        : q(group)
        , link(std::make_shared<GroupLink>(TaskLife::of(group), std::make_shared<QRecursiveMutex>()))
    {
    }

    static Private *of(const GroupTask *group) { return group->d.get(); }
    /// The group of a link, with its lock held; null when it is gone.
    static Private *of(const TaskVisit &visit);
    const GroupLocker::Mutex &mutex() const { return link->mutex; }

    // These take the lock.
    void startAfresh();
    bool lists(const BaseTask *task) const;
    /// Whether there is something to wait for since there were \a earlier admissions.
    bool hasAdmitted(quint64 earlier);
    /// The group that \a task is or has, null for other tasks.
    static std::shared_ptr<TaskLife> groupOf(BaseTask *task);
    static std::shared_ptr<GroupNode> nodeOf(BaseTask *task);
    /// Whether \a other contains \a node, directly or not, or is it.
    static bool isWithin(const std::shared_ptr<GroupNode> &node, const std::shared_ptr<GroupNode> &other);
    /// For a complex task, which gets another group.
    static void handOverContainers(GroupNode *from, const std::shared_ptr<GroupNode> &successor);

    // These are called with the lock held.
    bool isListed(const BaseTask *task) const;
    void appendTask(BaseTask *task, bool isWrapper = false);
    bool refuses(const BaseTask *task, const std::shared_ptr<GroupNode> &taskNode) const;
    void onChildStarted(const Child &child, quint64 run, quint64 use);
    void onChildFinished(const Child &child, quint64 run, quint64 use, const Error &error);
    void onChildProgress(const Child &child, int value, int total);
    void awaitAgain(const Child &child);
    void addShare(const Child &child, const BaseTask *task);
    void checkFinished();
    void lookAgain();
    void cleanup();
    void setPending(const Child &child, bool isPending);
    void setUnstarted(const Child &child, bool isUnstarted);
    void unlist(const Child &child);
    void freeWrapper(const Child &child) const;
    void unlistAndDelete(const Child &child);
    void cancelUnfinishedChildren();
    void cancelIdleChildren();
    void stop(const QList<Child> &unfinished, CancelSubtasksMode mode);
    static QList<Child> inOrderOfStop(const QList<Child> &unfinished, CancelSubtasksMode mode);
    static void addQueues(const auto &stopped, TasksQueueHold &hold);
    static bool stopQuietly(BaseTask *task);
    void dropStopped(const QList<Child> &stopped);
    void takeIdleAgain();

    GroupTask *const q;
    const std::shared_ptr<GroupLink> link;
    const std::shared_ptr<GroupNode> node = std::make_shared<GroupNode>();

    GroupChildList<&GroupChild::amongChildren> children;
    /// Children whose end was not handled. Destroyed ones are dropped when the group looks whether it is done.
    GroupChildList<&GroupChild::amongPending> pending;
    /// Children that were idle when they were appended and have not been seen to start.
    GroupChildList<&GroupChild::amongUnstarted> unstarted;
    /// The last stay of every task that was ever listed, by its address; another task may have that address now.
    QHash<const BaseTask *, Child> stays;
    WaitMode waitMode = WaitAll;
    CleanupPolicy cleanupPolicy = DeleteWhenFinished;
    CancelSubtasksMode cancelSubtasksMode = FinishSubtasks;
    ChildFailurePolicy childFailurePolicy = FailFast;
    Qt::ConnectionType connectionType = Qt::QueuedConnection;
    QList<Error> errors;
    bool zeroProgressReported = false;
    /// The use of the group that cancel() is at work on.
    std::optional<quint64> cancelingUse;
    /// Sums of the shares, of children that are gone too. Unsigned: they wrap.
    quint32 progressValue = 0;
    quint32 progressTotal = 0;
    /// Calls of append() that found or left their task pending.
    quint64 admissions = 0;
    quint64 lastNumber = 0; ///< of the children
    /// Whether the group is done was not looked at, because a child has started again.
    bool isCheckOwed = false;
};

} // namespace zel
