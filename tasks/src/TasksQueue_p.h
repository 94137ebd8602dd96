#pragma once

#include "TaskLife.h"
#include "TasksQueueShare.h"

#include <zel/tasks/TasksQueue.h>

#include <QList>
#include <QObject>
#include <QString>

#include <atomic>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace zel {

struct TasksQueueClearing;

/**
 * What a queue knows of one of its tasks. Guarded by the queue's mutex.
 *
 * An entry lives as long as its queue: one that is done with is used again for another task. What was posted or is
 * on a stack therefore keeps the number of the stay beside the entry, and compares it.
 */
struct TasksQueueEntry {
    enum Place {
        Unused,   ///< stands for no task
        Outside,  ///< followed, and in no list of ours: a subclass holds it, or it is on its way from list to list
        Claimed,  ///< taken out by a dispatch, which has not come to start it
        Ready,    ///< pending, was idle when last seen
        Parked,   ///< pending, was passed over because it was not idle
        Returned, ///< pending, idle again after it was passed over
        Running,  ///< started by the queue
        Leaving,  ///< being cleared, no longer the queue's; its end is nobody's business here
    };
    using List = std::list<TasksQueueEntry>;

    bool isPending() const { return place == Ready || place == Parked || place == Returned; }
    /// What is pending goes by its turn, smaller ones first.
    std::pair<int, qint64> turn() const { return {priority, order}; }

    Task *task = nullptr;
    quint64 stay = 0;    ///< number of this stay in the queue, 0 when unused
    quint64 claim = 0;   ///< of its start; taken back when the entry is forgotten first
    qint64 order = 0;    ///< orders the pending ones of one priority
    List::iterator self; ///< its place in the list that it stands in
    int priority = 0;    ///< the one that it is listed under
    Place place = Unused;
    bool isCounted = false; ///< counted among the running ones
    /// The clear() that takes it out, or that it was added under by a handler.
    const TasksQueueClearing *clearing = nullptr;
    List *leaving = nullptr; ///< the list of that call, while it is Leaving
    /// Whether the queue hears of the task's end and its priority, and by which type.
    bool isFollowed = false;
    Qt::ConnectionType connectionType = Qt::AutoConnection;
};

/// One call of clear(), on the stack of the thread that makes it. Guarded by the queue's mutex.
struct TasksQueueClearing {
    TasksQueueEntry::List pending{};
    TasksQueueEntry::List running{};
    Qt::HANDLE thread;
    bool endsTasks;
    bool isTreatingPending = true;
    int added = 0; ///< by handlers while pending ones are treated
    /// The one that was let go of, until clearTask() has come to it.
    const Task *treated = nullptr;
};

/// What a dispatch has taken out and is about to start, on the stack of the thread that makes it.
struct TasksQueueHand {
    explicit TasksQueueHand(const TasksQueueShare *queueShare);
    ~TasksQueueHand();
    Q_DISABLE_COPY_MOVE(TasksQueueHand)

    /// The one that a dequeueTask() on this thread is called for; null when no dispatch calls it.
    static TasksQueueHand *emptyOf(const TasksQueueShare *share);
    bool take(TasksQueueEntry *taken);

    const TasksQueueShare *const share;
    TasksQueueEntry *entry = nullptr;
    Task *task = nullptr;
    quint64 stay = 0;
    quint64 claim = 0;
    std::shared_ptr<TaskLife> life;
    std::optional<TaskVisit> visit;
    /// There was no free slot any more when dequeueTask() came to take one.
    bool isFull = false;

private:
    TasksQueueHand *const m_outer;
};

/// Changed with the queue's lock held, and read without.
class TasksQueueCount {
public:
    operator int() const { return m_count.load(std::memory_order_acquire); }
    void add(int difference)
    {
        if (difference != 0)
            m_count.store(m_count.load(std::memory_order_relaxed) + difference, std::memory_order_release);
    }

private:
    std::atomic<int> m_count = 0;
};

/// Each entry stands in exactly one of the lists; the task leads to its entry.
class Q_DECL_HIDDEN TasksQueue::Private : public QObject {
    Q_OBJECT
public:
    using Entry = TasksQueueEntry;
    using Entries = TasksQueueEntry::List;
    using Share = std::shared_ptr<TasksQueueShare>;

    explicit Private(TasksQueue *queue);
    ~Private() override;

    // These take the lock. The queue may be gone when those that announce or start something return.
    template <typename Condition>
    void changeState(State newState, Condition isMeant);
    bool startPending(quint64 &servedRequests);
    void takeFromOtherQueue(Task *task);
    bool endCleared(Entries &entries, ClearPolicy policy, const Error &error);
    void treatRunning(TasksQueueClearing &clearing);

    // Called by tasks, on whichever thread it happens, when even the queue may be gone.
    static void onTaskEnded(const Share &share, const std::shared_ptr<TaskLife> &life, const Entry *entry,
                            quint64 stay);
    static void onTaskDestroyed(const Share &share, Task *task);
    static void onTaskAnnounced(const Share &share, Task *task);
    static void onTaskPriorityChanged(const Share &share, Task *task);
    /// The task is idle again. Returns whether a dispatch is owed.
    static bool onTaskIdle(const Share &share, const Task *task, bool isReset);
    static void recount(const Share &share, const Task *task);

    // These are called with the lock held, and with tasks that are not past aboutToDestroy().
    Entry *entryOf(const Task *task) const;
    /// Null when another queue has taken the task, or this one is being destroyed.
    Entry *ensureEntry(Task *task);
    bool isPending(const Task *task) const;
    /// Whether somebody will free a slot, who goes on then.
    bool isFull() const { return countedRunning > 0 && countedRunning >= maxRunning; }
    bool isBeingStarted(const Entry *entry) const;
    bool insert(Task *task, EnqueueMode mode);
    /// Into \a hand, if there is one.
    Task *takeNextIdle(TasksQueueHand *hand);
    void takeOut(Entry *entry);
    void follow(Entry *entry);
    static void unfollow(Entry *entry);
    void forget(Entry *entry);
    void takeAll(TasksQueueClearing &clearing);
    void forgetAll(Entries &entries);
    void forgetEverything();
    TasksQueueClearing *clearingOfThisThread() const;

    TasksQueue *const q;
    const Share share;

    QString name;
    Qt::ConnectionType connectionType = Qt::QueuedConnection;
    CleanupMode cleanupMode = KeepFinished;
    TaskErrorPolicy errorPolicy = ContinueOnError;
    // Written with the lock held, and read without by those who only ask.
    std::atomic<State> state = Idle;
    std::atomic<int> maxRunning;
    std::atomic<int> maxPriority = 10;

    /// Ready entries by priority, each list in order; no list is empty.
    std::map<int, Entries> ready;
    Entries parked;
    Entries returned;
    /// The returned ones by turn: their places in the ready lists are taken.
    std::map<std::pair<int, qint64>, Entry *> returnedByTurn;
    Entries claimed;
    Entries running;
    Entries outside;
    Entries unused;
    /// The calls of clear() that are under way, on all threads.
    std::vector<TasksQueueClearing *> clearings;
    /// Sizes of the ready, parked and returned lists together.
    TasksQueueCount pendingCount;
    /// Entries that are counted: claimed and running ones, and those that clear() has not come to.
    TasksQueueCount countedRunning;
    quint64 lastStay = 0;
    qint64 firstOrder = 0;
    qint64 lastOrder = 0;
    /// How often a dispatch was asked for. A pass that has seen them all may make the queue Idle.
    quint64 requests = 0;

private:
    // These take the lock.
    void announce(State announced);
    bool leavesStartToOthers() const;
    bool take(TasksQueueHand &hand, Task *task);
    void letGo(TasksQueueHand &hand);
    void abandonStart(const TasksQueueHand &hand);
    static void readd(const Share &share, const Entry *entry, quint64 stay);
    template <typename Call>
    static void hear(const Share &share, Task *task, Call call);

    // Called with the lock held.
    Entry *nextReady();
    Entries &listOf(const Entry &entry);
    void move(Entry *entry, Entry::Place place, Entries &to, Entries::iterator before);
    void setCounted(Entry *entry, bool isCounted);

    /// The thread that is emitting stateChanged(), and what others have it announce next.
    Qt::HANDLE m_announcer = nullptr;
    std::deque<State> m_announcements;
};

} // namespace zel
