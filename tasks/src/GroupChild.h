#pragma once

#include "GroupLocker.h"
#include "TaskLife.h"

#include <zel/common/Error.h>

#include <QMutex>
#include <QObject>

#include <atomic>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

namespace zel {

/// A group, or the complex task that it belongs to, in the order of who contains whom. Guarded by one lock for all.
struct GroupNode {
    std::vector<std::weak_ptr<GroupNode>> containers;
    /// Of the group that took the place of this one in its complex task.
    std::weak_ptr<GroupNode> successor;
    /// The thread that holds the queues of its children, because it stops this group or one that contains it.
    std::atomic<Qt::HANDLE> holder{nullptr};
};

/// How tasks on other threads reach their group, and find that it is gone.
struct GroupLink {
    GroupLink(std::shared_ptr<TaskLife> groupLife, GroupLocker::Mutex groupMutex)
        : life(std::move(groupLife))
        , mutex(std::move(groupMutex))
    {
    }

    const std::shared_ptr<TaskLife> life;
    /// Held while the group's signals are emitted, whose handlers may delete the group.
    const GroupLocker::Mutex mutex;
    /// Changes when the group begins anew: what was emitted before does not act on it.
    std::atomic<quint64> use{0};
    /// Starts that were noted and not handled.
    std::atomic<int> startsUnderWay{0};

    QMutex idleMutex;
    /// Children that were set idle after they had started. Guarded by the mutex above it.
    std::vector<std::weak_ptr<GroupChild>> idleAgain;
};

/// Calls, or posts to the thread of the task, by the type of a connection; not when the task is gone.
template <typename Call>
void deliverTo(const std::shared_ptr<TaskLife> &life, Call &&call, Qt::ConnectionType type)
{
    const TaskVisit visit(life);
    if (visit.isInside())
        QMetaObject::invokeMethod(visit.task(), std::forward<Call>(call), type);
}

/**
 * One stay of a task in a group's list. Shared with the task, which tells of itself, and with what is posted for it: a task that is appended again
 * begins another one. Guarded by the group's lock but for the atomic members.
 */
struct GroupChild {
    /// Where it stands in a list.
    struct Link {
        std::shared_ptr<GroupChild> next;
        GroupChild *previous = nullptr;
    };

    std::shared_ptr<TaskLife> life;
    std::shared_ptr<GroupNode> node; ///< that of its group, when it is a group or has one
    quint64 number = 0;              ///< orders the children
    Link amongChildren;              ///< while isListed
    Link amongPending;               ///< while not isFinished
    Link amongUnstarted;             ///< while isUnstarted
    /// Another group's child of the same task. Guarded by the mutex of the life.
    std::shared_ptr<GroupChild> nextFollower;
    std::atomic<bool> isListed = true;
    bool isFinished = false;  ///< its end was handled, or it was stopped quietly
    bool isUnstarted = false; ///< stands in the list of those that have not started
    bool isLeftOver = false;  ///< from before the group's fresh start, which does not wait for it
    bool hasShare = false;    ///< its progress counts: not that of one that came finished and has not started again
    bool isWrapper = false;   ///< made by the group of a coroutine
    quint32 value = 0;        ///< its share of the sums
    quint32 total = 0;
    // Used without the lock: set before the task knows of it.
    std::shared_ptr<GroupLink> link;
    Qt::ConnectionType connectionType = Qt::AutoConnection;
    // Numbers of the child's runs; that of a run that has ended is larger than what it was when it began.
    quint64 handledRun = 0; ///< whose end was handled
    /// The last that is known to have begun, or to be awaited: earlier ends are of no interest.
    std::atomic<quint64> begunRun{0};
    /// Whose end was taken note of, on the thread that ended it.
    std::atomic<quint64> reportedRun{0};

    BaseTask *task() const { return life->task(); }
    /// Destroyed, and no end of it is on its way to the group.
    bool isGone() const { return !task() && reportedRun <= handledRun; }

    // On the thread that starts or ends the child, without the lock, and when the group may be gone.
    static void reportStart(const std::shared_ptr<GroupChild> &child);
    /// Once for each run, and not when another one has begun.
    static void reportEnd(const std::shared_ptr<GroupChild> &child, quint64 run, const Error &error);
    static void reportProgress(const std::shared_ptr<GroupChild> &child, int value, int total);
    /// It has not started any more.
    static void noteIdle(const std::shared_ptr<GroupChild> &child);
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

} // namespace zel
