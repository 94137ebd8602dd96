#pragma once

#include <zel/tasks/TasksQueue.h>

#include <QList>
#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QThread>

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <utility>

namespace zel {

/**
 * The lock of a queue, and what may only be looked at while it is held.
 *
 * Shared with the queue's tasks and connections, which may reach for it when the queue is gone.
 */
class TasksQueueLock : public std::enable_shared_from_this<TasksQueueLock> {
public:
    TasksQueueLock(TasksQueue *owner, QObject *ownerContext) : queue(owner), context(ownerContext) { }

    /// Called with the lock held: dispatches from the event loop of the queue's thread, once for any number of calls.
    void postDispatch();

    QRecursiveMutex mutex;
    /// How often the thread that holds the mutex has locked it.
    int depth = 0;
    /// How many calls of clear() are on that thread's stack.
    int clearing = 0;
    /// The dispatch passes that were asked for while the mutex was held: they start nothing before it is released.
    int passesOwed = 0;
    bool dispatchPosted = false;
    /// How many TasksQueueHold keep the queue from dispatching, and whether it was asked to meanwhile. A hold begins
    /// without the mutex and ends with it.
    std::atomic<int> holds = 0;
    std::atomic<bool> isDispatchHeld = false;
    /// Both null once the queue is gone.
    TasksQueue *queue;
    /// The queue's private part: receives what is posted to the queue's thread.
    QObject *context;
};

/// Holds a queue's lock, but does not keep it alive: where the queue may be deleted meanwhile, the caller does. Dispatch
/// passes that are owed when the outermost one lets go are the business of whoever calls unlock(); where nobody does, one
/// is posted to the queue's thread.
class TasksQueueLocker {
public:
    explicit TasksQueueLocker(const std::shared_ptr<TasksQueueLock> &lock);
    ~TasksQueueLocker();
    Q_DISABLE_COPY_MOVE(TasksQueueLocker)

    /// Returns how many dispatch passes the caller has to make now.
    [[nodiscard]] int unlock();

private:
    TasksQueueLock *const m_lock;
    bool m_isLocked = true;
};

/**
 * What a queue knows of one of its tasks. Guarded by the queue's lock.
 *
 * An entry lives as long as its queue: one that is done with is used again for another task. What was posted or is
 * on a stack therefore keeps the number of the stay beside the entry, and compares it.
 */
struct TasksQueueEntry {
    enum Place {
        Unused,   ///< stands for no task
        Outside,  ///< followed, and in no list of ours: a subclass holds it, or it is on its way from list to list
        Ready,    ///< pending, was idle when last seen
        Parked,   ///< pending, was passed over because it was not idle
        Returned, ///< pending, idle again after it was passed over
        Running,  ///< started by the queue
        Leaving,  ///< being cleared, no longer the queue's; its end is nobody's business here
    };

    bool isBeingStartedElsewhere() const { return startingThread && startingThread != QThread::currentThreadId(); }
    bool isPending() const { return place == Ready || place == Parked || place == Returned; }
    /// What is pending goes by its turn, smaller ones first.
    std::pair<int, qint64> turn() const { return {priority, order}; }

    Task *task = nullptr;
    quint64 stay = 0;                          ///< number of this stay in the queue, 0 when unused
    qint64 order = 0;                          ///< orders the pending ones of one priority
    std::list<TasksQueueEntry>::iterator self; ///< its place in the list that it stands in
    int priority = 0;                          ///< the one that it is listed under
    Place place = Unused;
    int clearing = 0;       ///< which of the calls of clear() on the stack took it
    bool isCounted = false; ///< counted among the running ones
    /// The thread that is inside exec() of the task, which may not look like it yet.
    Qt::HANDLE startingThread = nullptr;
    /// Whether the queue hears of the task's end and its priority, and by which type.
    bool isFollowed = false;
    Qt::ConnectionType connectionType = Qt::AutoConnection;
    QMetaObject::Connection finished{};
    QMetaObject::Connection priorityChanged{};
    QMetaObject::Connection idle{}; ///< while it is parked
};

/// Each entry stands in exactly one of the lists; the task leads to its entry.
class Q_DECL_HIDDEN TasksQueue::Private : public QObject {
    Q_OBJECT
public:
    using Entry = TasksQueueEntry;
    using Entries = std::list<Entry>;

    /// What a dispatch pass begins with.
    struct Decision {
        enum {
            StayPaused,
            BecomeIdle,
            Start
        } step;
        bool stateChanged;
    };

    explicit Private(TasksQueue *queue);
    ~Private() override;

    // These take the lock.
    bool changeState(State newState);
    bool owesDispatch();
    Decision decide();
    bool startPending();
    bool becomeIdleAfterPass();
    /// Returns false when the task is being started on another thread.
    bool takeFromOtherQueue(Task *task);
    void dispatch(int passes);
    /// Called by the task, on whichever thread it happens.
    static void onTaskDestroyed(const std::shared_ptr<TasksQueueLock> &lock, Task *task);
    static void onTaskPriorityChanged(const std::shared_ptr<TasksQueueLock> &lock, const Task *task);
    void clearAll(ClearPolicy policy, const Error &error);
    static void recount(const std::shared_ptr<TasksQueueLock> &lock, const Task *task);

    // These are called with the lock held, and with tasks that are not past aboutToDestroy().
    Entry *entryOf(const Task *task) const;
    /// Null when another queue has taken the task.
    Entry *ensureEntry(Task *task);
    bool isPending(const Task *task) const;
    bool insert(Task *task, EnqueueMode mode);
    Entry *nextReady();
    Task *takeNextIdle();
    void takeOut(Entry *entry);
    /// Null when another queue has taken the task.
    Entry *setRunning(Task *task);
    void follow(Entry *entry);
    static void unfollow(Entry *entry);
    void forget(Entry *entry);
    Entries takeAllPending();
    Entries takeAllRunning();
    bool clearTasks(Entries entries, ClearPolicy policy, const Error &error);
    void forgetAll(Entries &entries);
    Entries takeAllLeaving();

    TasksQueue *const q;
    const std::shared_ptr<TasksQueueLock> lock;

    QString name;
    State state = Idle;
    Qt::ConnectionType connectionType = Qt::QueuedConnection;
    int maxRunning;
    CleanupMode cleanupMode = KeepFinished;
    TaskErrorPolicy errorPolicy = ContinueOnError;
    int maxPriority = 10;

    /// Ready entries by priority, each list in order; no list is empty.
    std::map<int, Entries> ready;
    Entries parked;
    Entries returned;
    /// The returned ones by turn: their places in the ready lists are taken.
    std::map<std::pair<int, qint64>, Entry *> returnedByTurn;
    Entries running;
    Entries outside;
    /// What calls of clear() have taken and not come to yet, those of the innermost call first.
    Entries leaving;
    Entries unused;
    /// Sizes of the ready, parked and returned lists together.
    int pendingCount = 0;
    /// Running entries that are counted.
    int countedRunning = 0;
    quint64 lastStay = 0;
    qint64 firstOrder = 0;
    qint64 lastOrder = 0;

public Q_SLOTS:
    void onTaskFinished(const QPointer<Task> &task, const Entry *entry, quint64 stay);
    void readd(const Entry *entry, quint64 stay);

private:
    // Called with the lock held, but for unpark(), which takes it.
    Entries &listOf(const Entry &entry);
    void move(Entry *entry, Entry::Place place, Entries &to, Entries::iterator before);
    void setCounted(Entry *entry, bool isCounted);
    void park(Entry *entry);
    void unpark(Entry *entry, quint64 stay);
    bool leavesStartToOthers() const;
    void abandonStart(Entry *entry, quint64 stay);
};

} // namespace zel
