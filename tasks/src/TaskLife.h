#pragma once

#include <zel/tasks/BaseTask.h>

#include <QMutex>
#include <QVarLengthArray>

#include <array>
#include <atomic>
#include <memory>
#include <optional>

namespace zel {

struct GroupChild;

/// Whoever waits for the end of a task. It is called on the thread that ends or destroys the task, with the mutex of
/// the TaskLife locked: nothing of the user's may run in there.
class TaskWatcher {
public:
    /// \a isAnnounced: by finish(), which emits finished() next.
    virtual void onEnded(const BaseTask *task, bool isAnnounced) = 0;
    /// Behind the handlers of finished(), when the task is still there, and for those who want to be told.
    virtual void onAnnounced(const BaseTask *) { }
    /// Not called after the task was gone already.
    virtual void onDestroyed(const BaseTask *task, const Error &error) = 0;

protected:
    explicit TaskWatcher(bool isToldLast = false) : m_isToldLast(isToldLast) { }
    virtual ~TaskWatcher() = default;
    Q_DISABLE_COPY_MOVE(TaskWatcher)

private:
    friend class TaskLife;
    TaskWatcher *m_next = nullptr;
    TaskWatcher *m_previous = nullptr;
    bool m_isListed = false;
    const bool m_isToldLast;
};

/**
 * Who starts a task, who ends it, and whether it is gone: one answer for all threads. It outlives the task, and is what
 * others hold on to.
 *
 * The state and the number of the run change together, with the mutex locked, and whoever changes them says which run
 * it means. So of all who start an idle task one starts it, and of all who end a run one ends it; the others are told
 * before they have written anything. Who only looks needs no lock.
 *
 * The mutex is a leaf but for that of the error, which may be locked under it.
 */
class TaskLife {
public:
    using State = BaseTask::State;
    using Followers = QVarLengthArray<std::shared_ptr<GroupChild>, 2>;

    struct Change {
        State left;
        quint64 run;
        bool isReset;    ///< to Idle, from a run
        bool isQuietEnd; ///< to Finished, where no finish() announces it
    };

    explicit TaskLife(BaseTask *task) : m_self(task) { }
    Q_DISABLE_COPY_MOVE(TaskLife)

    static const std::shared_ptr<TaskLife> &of(const BaseTask *task);
    /// As QObject's, from any thread, and known to the deletion that finish() posts.
    static void deleteLater(BaseTask *task);

    /// Null once the destruction has begun, but for handlers of aboutToDestroy(). To be compared; who uses it on a
    /// thread that does not destroy it makes a TaskVisit.
    BaseTask *task() const { return !m_isRetired || isWholeHere() ? m_self : nullptr; }
    State state() const { return m_state; }
    State previousState() const { return m_previousState; }
    /// Tells runs apart: changes when a run begins, when it ends, and when the task becomes idle again.
    quint64 run() const { return m_run; }
    /// Whether the task is there and in that run.
    bool isIn(quint64 run) const { return task() && m_run == run; }
    /// Whether work of that run may begin: nobody has begun to end it.
    bool isToWork(quint64 run) const { return isIn(run) && m_endingRun != run; }
    /// Whether finish() is at work on the present run.
    bool isEnding() const { return m_endingRun == m_run; }
    /// Idle, and nobody is about to start or to end it.
    bool isFree() const { return m_state == BaseTask::Idle && m_claim == 0 && !isEnding(); }

    QMutex *mutex() const { return &m_mutex; }

    // These lock the mutex.
    /// Reserves the next start for the caller; 0 when another one has it, or the task is gone, or not in a state that
    /// it is to be started from.
    quint64 claimStart(bool isToBeIdle);
    /// Takes a reservation back, so that its begin() fails. Without effect on later ones.
    void releaseStart(quint64 claim);
    /// Sets the task running, by a reservation, or without one from the run that the caller has seen. None when
    /// somebody else starts it or has ended it, or the reservation was taken back.
    std::optional<Change> begin(quint64 claim, quint64 seenRun);
    /// The number of the run that the caller is to end; 0 when it has ended, or somebody else ends it, or it is not the
    /// one that is meant. Makes \a error that of the task, if one is given.
    quint64 claimEnd(std::optional<quint64> meantRun = {}, const Error *error = nullptr);
    /// Leaves the run that was not ended after all to others.
    void releaseEnd(quint64 run);
    /// Ends the run, for whoever has claimed that: none when the task was set idle or running again meanwhile.
    /// Those who follow the task at that moment go into \a followers, if it is given.
    std::optional<Change> complete(quint64 run, Followers *followers = nullptr);
    /// Makes \a error that of the task, unless it is not in that run any more.
    bool storeError(quint64 run, const Error &error);
    /// What nobody contests. Of \a expectedRun only, if one is given.
    std::optional<Change> change(State state, std::optional<quint64> expectedRun = {});
    /// Sets the canceled status, unless the task is not in that run any more.
    bool setCanceled(quint64 run);
    /// Whether the start that was reserved can still be begun.
    bool holdsStart(quint64 claim) const;
    /// The number of the run that has ended, also when the task was paused since; 0 when another one has begun.
    quint64 endedRun() const;
    /// What resume() goes back to.
    State pausedState() const;

    void addFollower(const std::shared_ptr<GroupChild> &child);
    void removeFollower(const GroupChild *child);
    Followers followers() const;
    bool hasFollowers() const { return m_hasFollowers; }

    /// Called when a destructor of the task's begins. From here on no visit begins and no run is claimed.
    void retire();
    /// The retired task is whole while its destructor calls handlers, on this thread alone.
    void setWhole(bool isWhole) { m_isWhole.store(isWhole, std::memory_order_release); }
    /// Called when the last destructor has seen that no other thread visits the task.
    void setDestroyed();
    /// Returns when no other thread visits the task; warns when that takes seconds. Debug builds abort when it would
    /// have to wait for a retired task under the lock of a group, which the other thread may need to get done.
    void waitForVisitors(const BaseTask *task) const;
    /// The same for threads that are inside the work.
    void waitForWorkers(const BaseTask *task) const;

    // These are called with the mutex locked. A watcher is removed before it is destroyed.
    void add(TaskWatcher *watcher);
    void remove(TaskWatcher *watcher);
    /// The task may be retired, and is whole while whoever ends it visits it.
    void notifyEnded(const BaseTask *task, bool isAnnounced);
    void notifyAnnounced(const BaseTask *task);
    void notifyDestroyed(const BaseTask *task, const Error &error);
    bool hasWatchers() const { return m_watchers; }
    bool hasWatchersToTellLast() const { return m_toBeToldLast > 0; }

private:
    friend class TaskVisit;

    enum How {
        Plainly,
        Announced, ///< as the end of the run, by finish()
        Quietly,   ///< as the end of the run, without finished()
    };
    Change move(State state, How how);
    void copyFollowers(Followers &all) const;
    bool isWholeHere() const;
    bool isAwaited() const { return m_isRetired || m_waiting > 0; }
    void waitUntilAlone(size_t kind, const BaseTask *task) const;

    mutable QMutex m_mutex;
    BaseTask *const m_self;
    Qt::HANDLE m_destroyer = nullptr; ///< the thread that retired the task
    // Written with the mutex locked, and read without.
    std::atomic<quint64> m_run{1};
    std::atomic<quint64> m_endingRun{0}; ///< that finish() is about to end
    std::atomic<quint64> m_claim{0};     ///< the reservation of the next start
    std::atomic<State> m_state{BaseTask::Idle};
    std::atomic<State> m_previousState{BaseTask::Idle};
    // Guarded by the mutex.
    State m_pausedState = BaseTask::Idle; ///< the state that was left for Paused
    std::atomic<bool> m_hasFollowers{false};
    std::atomic<bool> m_isRetired{false};
    std::atomic<bool> m_isWhole{false};
    std::atomic<bool> m_isDestroyed{false};
    quint64 m_lastNumber = 1; ///< of runs and claims
    quint64 m_claimedRun = 0; ///< the run that the reservation was made in
    quint64 m_endedRun = 0;   ///< that ended last before it was paused
    /// The first one, which leads to the others.
    std::shared_ptr<GroupChild> m_followers;
    std::atomic<TaskWatcher *> m_watchers = nullptr;
    TaskWatcher *m_lastWatcher = nullptr;
    std::atomic<int> m_toBeToldLast{0};
    /// How many visits there are, of either kind.
    std::array<std::atomic<int>, 2> m_visits{};
    /// How many threads wait for visits to end.
    mutable std::atomic<int> m_waiting{0};
};

/**
 * While it lives, this thread is at work with a task, which no other thread destroys meanwhile. This one may, in a
 * handler: ask for the task again after every call.
 *
 * Visits live on the stack of their thread. A destructor first makes the task null, then looks for visits; a visit
 * first counts, then looks for the task: one of the two sees the other.
 */
class TaskVisit {
public:
    enum Kind : size_t {
        Operation = 0,
        Work = 1, ///< on a working thread, for as long as the work takes
    };

    explicit TaskVisit(const std::shared_ptr<TaskLife> &life, Kind kind = Operation);
    ~TaskVisit();
    Q_DISABLE_COPY_MOVE(TaskVisit)

    /// Null when the task was gone before the visit, and when this thread has destroyed it since. Another thread that
    /// destroys it waits for the visit.
    BaseTask *task() const { return isInside() ? m_task : nullptr; }
    const std::shared_ptr<TaskLife> &life() const { return m_life; }
    bool isInside() const { return m_isInside && !m_life->m_isDestroyed; }
    /// Ends the visit before its time.
    void leave();

    /// Ends this thread's visits of the work of a task: it goes on without the task.
    static void leaveWork(const TaskLife *life);
    /// The visit of the finish() on this thread's stack that ends a run of the task; null if there is none.
    static const TaskVisit *endingOf(const TaskLife *life);
    /// Says which run this visit ends; 0 when it is through.
    void setEndedRun(quint64 run) { m_endedRun = run; }
    quint64 endedRun() const { return m_endedRun; }

private:
    friend class TaskLife;
    static int countOnThisThread(const TaskLife *life, size_t kind);

    const std::shared_ptr<TaskLife> m_life;
    const Kind m_kind;
    BaseTask *m_task = nullptr;
    bool m_isInside;
    quint64 m_endedRun = 0;
    TaskVisit *m_outer;
};

} // namespace zel
