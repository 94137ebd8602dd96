#pragma once

#include "Places.h"

#include <zel/tasks/CustomComplexTask.h>
#include <zel/tasks/GroupTask.h>
#include <zel/tasks/TasksQueue.h>

#include <QMutex>
#include <QPointer>
#include <QThread>

#include <array>
#include <functional>
#include <memory>
#include <vector>

class World;

/// What the calling thread is at. Threads of the library that run work have one as well.
struct Here {
    Actor *actor = nullptr; ///< null on working threads
    Random random;
    quint64 round = 0;    ///< for which the random sequence was made
    int depth = 0;        ///< operations, handlers and work on the stack, since the innermost wait
    int handlerDepth = 0; ///< handlers among them, which may run under the lock of a group
    int waits = 0;
};
extern thread_local Here here;

/// A thread that does random operations, by the events of a loop or in a row.
class Actor : public QThread {
public:
    Actor(World *world, int number, bool usesLoop);

    void post(std::function<void()> call);

    const int number;
    const bool usesLoop;
    std::atomic<int> operationsLeft;
    std::atomic<bool> isWaiting = false;
    /// Whether nothing is to be expected of it before the others have ended.
    bool isThrough() const { return operationsLeft <= 0 || (isWaiting && !usesLoop); }
    /// Deleted at the end; handled by this thread alone.
    std::vector<QPointer<QObject>> leftovers;

protected:
    void run() override;

private:
    void step();

    World *const m_world;
    QObject m_context;
};

/// A queue that looks whether it starts more than its limit. It keeps its limit and lets go of no running task.
class LimitedQueue : public zel::TasksQueue {
public:
    LimitedQueue(World *world, int limit);

protected:
    void exec(zel::Task *task) override;

private:
    World *const m_world;
    const int m_limit;
    const int m_number; ///< another queue may get the address of a destroyed one
    static inline std::atomic<int> lastNumber = 0;
};

struct Operation {
    /// Where it may be done, see World::isAllowed().
    enum Where {
        Anywhere, ///< in handlers too
        Starting, ///< may start complex tasks, which take the locks of their groups
        Unlocked, ///< takes the lock of a group
        AtTop,    ///< destroys or waits
    };

    const char *name;
    Where where;
    void (*perform)(World &world);
};

/// Some threads, and what they share: one round.
class World {
public:
    enum Phase {
        Acting,
        Settling, ///< handlers do nothing, and everything comes to its end
    };

    explicit World(quint64 seed);
    ~World();
    Q_DISABLE_COPY_MOVE(World)

    /// Returns when the round is over; aborts the process when something is wrong.
    void run();

    // For the operations.
    using TaskUse = Place<zel::Task>::Use;
    using GroupUse = Place<zel::GroupTask>::Use;
    using QueueUse = Place<zel::TasksQueue>::Use;
    static int random(int bound) { return here.random(bound); }
    static zel::Error error();
    bool isActing() const { return m_phase == Acting; }
    /// Or has groups make tasks of coroutines, which nobody would delete when the policy changes.
    bool changesCleanup() const { return m_changesCleanup; }
    static auto *any(auto &places) { return places.empty() ? nullptr : &places[size_t(random(int(places.size())))]; }
    /// Unless the calling thread's handlers must leave complex tasks alone.
    TaskUse anyTask();
    TaskUse homeTask();
    GroupUse anyGroup();
    GroupUse homeGroup();
    QueueUse anyQueue();
    Actor *anyActor() { return m_actors.at(size_t(random(int(m_actors.size())))).get(); }
    std::shared_ptr<Watch> watchOf(const TaskUse &use) { return m_watches.at(size_t(use.place()->number)); }
    void putTask(Place<zel::Task> *place);
    void putGroup(Place<zel::GroupTask> *place);
    void putQueue(Place<zel::TasksQueue> *place);
    void refill();
    /// A task of nobody but the library; where it was created in a working thread, it lives with an actor.
    zel::Task *makeOwnTask();
    QCoro::Task<zel::Error> await(TaskUse task);
    zel::Error work(const std::shared_ptr<Watch> &watch, zel::Task *task);
    bool has(const char *feature) const;

    void act();
    void perform(const Operation &operation);
    void react();
    void react(zel::GroupTask *group);
    void enter();
    void checkLimit(const zel::TasksQueue *queue, int queueNumber, const zel::Task *started, int limit);
    [[noreturn]] void fail(const char *what);

    std::vector<Place<zel::Task>> tasks;
    std::vector<Place<zel::GroupTask>> groups;
    std::vector<Place<zel::TasksQueue>> queues;
    std::atomic<int> awaits = 0;
    std::atomic<int> works = 0;
    /// Queues that were moved, to be destroyed there.
    std::atomic<int> leavingQueues = 0;
    /// Pending tasks were dropped, so that complex tasks may wait for ever.
    std::atomic<bool> losesTasks = false;

private:
    friend class Actor;
    bool isAllowed(const Operation &operation) const;
    std::shared_ptr<Watch> makeWatch(Watch::Kind kind);
    zel::Task *makeTask(const std::shared_ptr<Watch> &watch);
    void reactTo(auto *sender, auto... signal);

    void everywhere(const std::function<void(Actor *)> &call);
    void until(const std::function<const char *()> &complaint, const std::function<void(Actor *)> &lap);
    /// How far the world has come in settling.
    enum Step {
        ByItself,
        Resumed, ///< no queue is paused
        Canceled,
    };
    const char *unsettled(Step step);
    void settle();
    void goOn(Actor *actor);
    void endWaited(Actor *actor);
    void checkOutcomes();
    void describe();
    static void showStacks();
    static void describeGroup(const zel::GroupTask *group);
    template <typename T>
    auto usesAt(std::vector<Place<T>> &places, Actor *actor);

    const quint64 m_seed;
    std::atomic<Phase> m_phase = Acting;
    std::atomic<int> m_workers = 0;
    Step m_step = ByItself;
    bool m_isStuck = false; ///< a thread may hold locks that the getters take
    bool m_hasGroups = false;
    bool m_hasComplex = false;
    bool m_changesCleanup = false;
    std::vector<std::unique_ptr<Actor>> m_actors;
    std::vector<std::shared_ptr<Watch>> m_watches; ///< of the task in the same place
    QMutex m_mutex;
    std::vector<std::shared_ptr<Watch>> m_allWatches;
};

extern const std::vector<Operation> allOperations;
