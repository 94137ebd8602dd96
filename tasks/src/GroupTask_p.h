#pragma once

#include "TaskRef.h"
#include "TasksQueueHold.h"

#include <zel/tasks/GroupTask.h>

#include <QHash>
#include <QList>
#include <QMutex>
#include <QThread>

#include <atomic>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace zel {

/// A group, or the complex task that it belongs to, in the order of who contains whom. Guarded by one lock for all.
struct GroupNode {
    std::vector<std::weak_ptr<GroupNode>> containers;
    /// Of the group that took the place of this one in its complex task.
    std::weak_ptr<GroupNode> successor;
};

/// How tasks in other threads reach the object that follows them, and find that it is gone.
class TaskLink {
public:
    explicit TaskLink(QObject *receiver) : m_receiver(receiver) { }

    /// Calls, or posts to the receiver's thread, by the type of a connection.
    template <typename Call>
    void deliver(Call &&call, Qt::ConnectionType type);
    /// Nothing arrives any more. Called when the receiver's destructor begins.
    void close();

private:
    QMutex m_mutex;
    QObject *m_receiver;
};

template <typename Call>
void TaskLink::deliver(Call &&call, Qt::ConnectionType type)
{
    QMutexLocker locker(&m_mutex);
    QObject *receiver = m_receiver;
    if (!receiver)
        return;
    // The receiver's own thread may want to destroy it meanwhile.
    if (type == Qt::BlockingQueuedConnection)
        locker.unlock();
    if (type == Qt::DirectConnection
        || (type == Qt::AutoConnection && receiver->thread() == QThread::currentThread())) {
        locker.unlock();
        call();
        return;
    }
    QMetaObject::invokeMethod(receiver, std::forward<Call>(call), type);
}

struct GroupLink : TaskLink {
    using TaskLink::TaskLink;

    /// Changes when the group begins anew: what was emitted before does not act on it.
    std::atomic<quint64> use{0};
};

/**
 * One stay of a task in a group's list. Shared with what is connected and posted for it: a task that is appended again
 * begins another one. Guarded by the group's lock but for the atomic members.
 */
struct GroupChild {
    /// Where it stands in a list.
    struct Link {
        std::shared_ptr<GroupChild> next;
        GroupChild *previous = nullptr;
    };

    std::shared_ptr<TaskRef> ref;
    std::shared_ptr<GroupNode> node; ///< that of its group, when it is a group or has one
    Link amongChildren;              ///< while isListed
    Link amongPending;               ///< while not isFinished
    Link amongUnstarted;             ///< while isUnstarted
    bool isListed = true;
    bool isFinished = false;  ///< its end was handled, or it was stopped quietly
    bool isUnstarted = false; ///< stands in the list of those that have not started
    bool isLeftOver = false;  ///< from before the group's fresh start, which does not wait for it
    bool hasShare = false; ///< its progress counts: not that of one that came finished and has not started again
    quint32 value = 0;     ///< its share of the sums
    quint32 total = 0;
    // What its connections use, without the lock: set before they are made.
    std::shared_ptr<GroupLink> link;
    Qt::ConnectionType connectionType = Qt::AutoConnection;
    QMetaObject::Connection started;
    QMetaObject::Connection finished;
    QMetaObject::Connection progress;
    // Numbers of the child's runs; that of a run that has ended is larger than what it was when it began.
    quint64 handledRun = 0; ///< whose end was handled
    /// The last that is known to have begun, or to be awaited: earlier ends are of no interest.
    std::atomic<quint64> begunRun{0};
    /// Whose end was taken note of, on the child's thread.
    std::atomic<quint64> reportedRun{0};

    BaseTask *task() const { return ref->get(); }
    /// Destroyed, and no end of it is on its way to the group.
    bool isGone() const { return !task() && reportedRun <= handledRun; }
};

/// A list that takes no room but in the children, and keeps them alive. While it is walked, children that were passed
/// may leave.
template <GroupChild::Link GroupChild::*link>
class GroupChildList {
public:
    using Child = std::shared_ptr<GroupChild>;

    class Iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = Child;
        using difference_type = std::ptrdiff_t;
        using pointer = const Child *;
        using reference = const Child &;

        Iterator(const GroupChildList *list, GroupChild *child) : m_list(list), m_child(child) { }
        reference operator*() const { return placeOf(*m_list, m_child); }
        Iterator &operator++()
        {
            m_child = (m_child->*link).next.get();
            return *this;
        }
        Iterator operator++(int)
        {
            const Iterator passed = *this;
            ++*this;
            return passed;
        }
        bool operator==(const Iterator &other) const = default;

    private:
        const GroupChildList *m_list;
        GroupChild *m_child;
    };

    Iterator begin() const { return Iterator(this, m_first.get()); }
    Iterator end() const { return Iterator(this, nullptr); }
    bool isEmpty() const { return !m_first; }
    const Child &first() const { return m_first; }

    void append(const Child &child)
    {
        (child.get()->*link).previous = m_last;
        (m_last ? (m_last->*link).next : m_first) = child;
        m_last = child.get();
    }

    void remove(const Child &child)
    {
        GroupChild::Link &left = child.get()->*link;
        Child &place = placeOf(*this, child.get());
        const Child held = std::exchange(place, std::move(left.next));
        (place ? (place.get()->*link).previous : m_last) = std::exchange(left.previous, nullptr);
    }

private:
    static auto &placeOf(auto &list, const GroupChild *child)
    {
        GroupChild *previous = (child->*link).previous;
        return previous ? (previous->*link).next : list.m_first;
    }

    Child m_first;
    GroupChild *m_last = nullptr;
};

class Q_DECL_HIDDEN GroupTask::Private {
public:
    using Child = std::shared_ptr<GroupChild>;

    explicit Private(GroupTask *group) : q(group), link(std::make_shared<GroupLink>(group)) { }

    static Private *of(const GroupTask *group) { return group->d.get(); }

    // These take the lock.
    void onChildStarted(const Child &child, quint64 run, quint64 use);
    void onChildFinished(const Child &child, quint64 run, quint64 use, const Error &error);
    void onChildProgress(const Child &child, int value, int total);
    void startAfresh();
    bool lists(const BaseTask *task) const;
    /// Whether there is something to wait for since there were \a earlier admissions.
    bool hasAdmitted(quint64 earlier) const;
    static quint64 runOf(const BaseTask *task);
    /// The group that \a task is or has, null for other tasks.
    static GroupTask *groupOf(BaseTask *task);
    /// Whether \a other contains this group, directly or not, or is it.
    bool isWithin(const GroupTask *other) const;
    /// For a complex task, which gets another group.
    void handOverContainers(GroupTask *successor);

    // These are called with the lock held.
    void appendTask(BaseTask *task);
    bool refuses(const BaseTask *task, const GroupTask *group) const;
    void awaitAgain(const Child &child);
    void addShare(const Child &child, const BaseTask *task);
    void connectChild(const Child &child, BaseTask *task);
    /// On the thread that starts or ends the child, without the lock, and when the group may be gone.
    static void reportStart(Private *group, const Child &child, const BaseTask *task);
    static void reportEnd(Private *group, const Child &child, const BaseTask *task);
    void checkFinished();
    bool isAnyStartedAgain() const;
    void cleanup();
    void setPending(const Child &child, bool isPending);
    void setUnstarted(const Child &child, bool isUnstarted);
    void unlist(const Child &child);
    static void disconnectChild(const Child &child);
    void unlistAndDelete(const Child &child);
    void cancelUnfinishedChildren();
    void cancelIdleChildren();
    void stop(const QList<Child> &unfinished, CancelSubtasksMode mode);
    static QList<Child> inOrderOfStop(const QList<Child> &unfinished, CancelSubtasksMode mode);
    static void addQueues(const auto &stopped, TasksQueueLocks &locks);
    static void stopQuietly(BaseTask *task);
    void dropStopped(const QList<Child> &stopped);
    static void leaveQueue(const TaskRef &ref, quint64 run);

    GroupTask *const q;
    /// Held while the group's signals are emitted, whose handlers may delete the group: shared with whoever holds it.
    const std::shared_ptr<QRecursiveMutex> mutex = std::make_shared<QRecursiveMutex>();

    const std::shared_ptr<GroupLink> link;
    const std::shared_ptr<GroupNode> node = std::make_shared<GroupNode>();

    GroupChildList<&GroupChild::amongChildren> children;
    /// Children whose end was not handled. Destroyed ones are dropped when the group looks whether it is done.
    GroupChildList<&GroupChild::amongPending> pending;
    /// Children that were idle when they were appended and have not been seen to start.
    GroupChildList<&GroupChild::amongUnstarted> unstarted;
    /// How many tasks had been set idle when the unstarted ones were looked at.
    quint64 knownResets = 0;
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
};

} // namespace zel
