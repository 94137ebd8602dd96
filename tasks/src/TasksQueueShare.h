#pragma once

#include <QMutex>
#include <QObject>

#include <atomic>
#include <functional>
#include <memory>
#include <utility>

namespace zel {

class TasksQueue;

/**
 * What a queue shares with its tasks and with what is connected and posted for it, which may reach for it when the
 * queue is gone.
 *
 * Its mutex guards the data of the queue. It is a leaf: no signal is emitted, nothing of the user's is called and no
 * lock but that of a task is taken while it is held.
 */
class TasksQueueShare : public std::enable_shared_from_this<TasksQueueShare> {
public:
    TasksQueueShare(TasksQueue *queue, QObject *context) : m_self(queue), m_queue(queue), m_context(context) { }
    Q_DISABLE_COPY_MOVE(TasksQueueShare)

    /// Null for null.
    static std::shared_ptr<TasksQueueShare> of(const TasksQueue *queue);

    /// Null once the destruction has begun: to be compared, and used with the mutex locked. Who uses it otherwise makes
    /// a TasksQueueVisit.
    TasksQueue *queue() const { return m_queue; }
    /// Called when the destructor begins: nobody else comes in. Calls \a letGo with the mutex locked, in the same step,
    /// and returns when no other thread is inside.
    void close(const std::function<void()> &letGo);

    /// A dispatch in the calling thread, as soon as this holds no lock of a group.
    static void dispatch(const std::shared_ptr<TasksQueueShare> &share);

    QMutex mutex;

    // These are called with the mutex locked.
    /// Dispatches from the event loop of the queue's thread, once for any number of calls, unless a dispatch comes
    /// first.
    void postDispatch();
    /// Whether a dispatch may go on now. If not, it is made when the last hold has ended.
    bool mayDispatch();
    /// Called where a dispatch begins, which serves whatever was posted.
    void setServed() { m_isDispatchDue = false; }
    template <typename Call>
    void post(Call call)
    {
        if (m_context)
            QMetaObject::invokeMethod(m_context, std::move(call), Qt::QueuedConnection);
    }

    /// Nothing is started until as many calls of release() were made.
    void hold();
    /// Returns whether the caller owes a dispatch, which is posted besides.
    bool release();

private:
    friend class TasksQueueVisit;
    friend class TasksQueueAbsence;
    bool enter();
    void leave();

    TasksQueue *const m_self;
    std::atomic<TasksQueue *> m_queue;
    /// The thread that destroys the queue.
    std::atomic<Qt::HANDLE> m_closer = nullptr;
    /// Threads that choose, react or announce for the queue.
    std::atomic<int> m_visits = 0;
    // Guarded by the mutex.
    /// The queue's private part, which receives what is posted to the queue's thread; null once the queue is closed.
    QObject *m_context;
    int m_holds = 0;
    bool m_isDispatchHeld = false;
    bool m_isDispatchPosted = false;
    bool m_isDispatchDue = false;
};

/**
 * While it lives, this thread is at work for a queue, which no other thread destroys meanwhile. This one may: ask for
 * the queue again after every call. A thread counts once, however many visits are on its stack.
 */
class TasksQueueVisit {
public:
    explicit TasksQueueVisit(const std::shared_ptr<TasksQueueShare> &share);
    ~TasksQueueVisit();
    Q_DISABLE_COPY_MOVE(TasksQueueVisit)

    /// Lives as long as the visit, also when the queue does not.
    TasksQueueShare *share() const { return m_share; }
    /// Null when this thread has destroyed the queue, or the queue was gone before the visit.
    TasksQueue *queue() const;
    /// Whether there is something left to do for the queue, whose destruction may have begun on another thread.
    bool isInside() const { return m_share->queue(); }

private:
    friend class TasksQueueShare;
    friend class TasksQueueAbsence;
    static TasksQueueVisit *presentOf(const TasksQueueShare *share);

    TasksQueueShare *const m_share;
    /// Null while a visit below keeps it.
    const std::shared_ptr<TasksQueueShare> m_kept;
    TasksQueueVisit *const m_outer;
    bool m_isPresent = false; ///< counts this thread
};

/// While it lives, this thread runs work for the queue, which may be destroyed meanwhile: the visits below find it
/// closed.
class TasksQueueAbsence {
public:
    explicit TasksQueueAbsence(const TasksQueueShare *share);
    ~TasksQueueAbsence();
    Q_DISABLE_COPY_MOVE(TasksQueueAbsence)

private:
    TasksQueueVisit *const m_visit;
};

} // namespace zel
