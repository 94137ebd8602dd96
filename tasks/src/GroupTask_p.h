#pragma once

#include <zel/tasks/GroupTask.h>

#include <QHash>
#include <QList>
#include <QMutex>
#include <QPointer>
#include <QSet>

#include <array>
#include <atomic>
#include <functional>
#include <list>
#include <memory>

namespace zel {

/**
 * One stay of a task in a group's list. Shared with what is connected and posted for it: a task that is appended again
 * begins another one. Guarded by the group's lock but for the atomic members.
 */
struct GroupChild {
    using List = std::list<std::shared_ptr<GroupChild>>;

    QPointer<BaseTask> task;
    const BaseTask *address = nullptr; ///< compared, never used
    List::iterator listed;             ///< place in the list of children, while isListed
    List::iterator pending;            ///< place in the list of pending ones, while not isFinished
    bool isListed = true;
    bool isFinished = false;  ///< its end was handled, or it was stopped quietly
    bool isUnstarted = false; ///< stands in the list of those that have not started
    List::iterator unstarted;
    quint64 handledStarts = 0; ///< starts, when its end was handled
    bool hasShare = false;     ///< its progress counts: not that of one that came finished and has not started again
    quint32 value = 0;         ///< its share of the sums
    quint32 total = 0;
    std::array<QMetaObject::Connection, 3> connections;
    /// How often it was started, as seen on its thread: tells a late end from that of the present run.
    std::atomic<quint64> starts{0};
    /// The end of the present run was taken note of.
    std::atomic<bool> isEndReported{false};

    /// Destroyed, and no end of it is on its way to the group.
    bool isGone() const { return !task && !isEndReported; }
};

/// How children in other threads reach their group, and find that it is gone.
struct GroupLink {
    /// Calls, or posts to the group's thread, by the type of a connection.
    void deliver(const std::function<void()> &call, Qt::ConnectionType type);

    QMutex mutex;
    GroupTask *group; ///< null once it is being destroyed
    /// Changes when the group begins anew: what was emitted before does not act on it.
    std::atomic<quint64> use{0};
};

class Q_DECL_HIDDEN GroupTask::Private {
public:
    using Child = std::shared_ptr<GroupChild>;

    explicit Private(GroupTask *group) : q(group) { link->group = group; }

    static Private *of(const GroupTask *group) { return group->d.get(); }

    // These take the lock.
    void onChildStarted(const Child &child, quint64 use);
    void onChildFinished(const Child &child, quint64 starts, quint64 use, const Error &error);
    void onChildProgress(const Child &child, int value, int total);
    void startAfresh();
    bool lists(const BaseTask *task) const;
    /// Whether there is something to wait for since there were \a earlier admissions.
    bool hasAdmitted(quint64 earlier) const;
    /// The group that \a task is or has, null for other tasks.
    static GroupTask *groupOf(BaseTask *task);
    void handOverContainers(GroupTask *successor);

    // These are called with the lock held.
    void appendTask(BaseTask *task);
    bool refuses(BaseTask *task) const;
    void addShare(const Child &child);
    void connectChild(const Child &child);
    void reportEnd(const std::shared_ptr<GroupLink> &toGroup, const Child &child, const Error &error,
                   Qt::ConnectionType type);
    void checkFinished();
    bool isAnyStartedAgain() const;
    void cleanup();
    void setPending(const Child &child, bool isPending);
    void setStarted(const Child &child);
    void unlist(const Child &child);
    void cancelUnfinishedChildren();
    void cancelIdleChildren();
    void stop(QList<Child> stopped, CancelSubtasksMode mode);
    static void addQueues(const auto &stopped, QSet<TasksQueue *> &queues);
    void stopQuietly(BaseTask *task);
    void dropStopped(const QList<Child> &stopped);

    GroupTask *const q;
    /// Held while the group's signals are emitted, whose handlers may delete the group: shared with whoever holds it.
    const std::shared_ptr<QRecursiveMutex> mutex = std::make_shared<QRecursiveMutex>();

    const std::shared_ptr<GroupLink> link = std::make_shared<GroupLink>();

    GroupChild::List children;
    /// Children whose end was not handled. Destroyed ones are dropped when the group looks whether it is done.
    GroupChild::List pending;
    /// Children that were idle when they were appended and have not been seen to start.
    GroupChild::List unstarted;
    /// The last stay of every task that was ever listed, by its address; another task may have that address now.
    QHash<const BaseTask *, Child> stays;
    /// The groups that list this one, or the complex task that owns it. Guarded by a lock of its own.
    QList<GroupTask *> containers;
    WaitMode waitMode = WaitAll;
    CleanupPolicy cleanupPolicy = DeleteWhenFinished;
    CancelSubtasksMode cancelSubtasksMode = FinishSubtasks;
    ChildFailurePolicy childFailurePolicy = FailFast;
    Qt::ConnectionType connectionType = Qt::QueuedConnection;
    QList<Error> errors;
    bool zeroProgressReported = false;
    bool isCanceling = false; ///< cancel() is at work
    /// Sums of the shares, of children that are gone too. Unsigned: they wrap.
    quint32 progressValue = 0;
    quint32 progressTotal = 0;
    /// Calls of append() that found or left their task pending.
    quint64 admissions = 0;
};

} // namespace zel
