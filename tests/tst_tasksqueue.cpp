#include "support/EventLog.h"
#include "support/Gate.h"
#include "support/LogCapture.h"
#include "support/Rows.h"
#include "support/Waiting.h"

#include <zel/tasks/ComplexTask.h>
#include <zel/tasks/GroupTask.h>
#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QElapsedTimer>
#include <QPointer>
#include <QThread>

#include <array>
#include <atomic>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <thread>

using namespace Qt::StringLiterals;
using namespace zel;

namespace {

/// A queue that starts one task at a time, and named tasks for it; the log keeps "started" unless told otherwise.
class Bench {
public:
    explicit Bench(int limit = 1, Qt::ConnectionType type = Qt::QueuedConnection, TasksQueue *ownQueue = nullptr)
        : queue(ownQueue ? ownQueue : new TasksQueue)
    {
        queue->setName(u"q"_s);
        queue->setMaxRunningTasksCount(limit);
        queue->setConnectionType(type);
        log.watch(queue, u"q"_s);
        log.keepOnly({u"started"_s});
    }
    ~Bench() { delete queue; }

    /// A task that runs until somebody ends it.
    Task *task(const QString &name, int priority = 1) { return add(name, priority, new Task(Task::Asynchronous)); }
    /// A task that does \a work at once, in the thread that dispatches it.
    Task *quickTask(
        const QString &name, std::function<void()> work = [] {}, int priority = 1)
    {
        return add(name, priority, new Task([work] { return work(), Error(); }));
    }
    template <typename... Names>
    std::array<Task *, sizeof...(Names)> tasks(const Names &...names)
    {
        return {task(names)...};
    }
    bool isDrained() const { return queue->count() == 0 && queue->state() == TasksQueue::Idle; }

    QObject owner;
    EventLog log;
    QPointer<TasksQueue> queue;

private:
    Task *add(const QString &name, int priority, Task *task)
    {
        task->setParent(&owner);
        task->setName(name);
        task->setPriority(priority);
        log.watch(task, name);
        return task;
    }
};

struct Clearing {
    int policy;
    QString events;
    ErrorCode code;
};

struct Late {
    BaseTask::State state;
    int counts; // of the queue, and ten times that of the other one
    std::function<void(TasksQueue &, TasksQueue &other, Task *)> action;
};

/// Where a task is set idle in its run, and what the queue's limit is there.
enum class Reset {
    WhileRunning,
    InStateChanged,
    InFinished,
    AfterFinish,
};

using BenchStep = std::function<void(Bench &, Task *)>;

/// A subclass that shows what it inherits, and tells of what the queue calls.
class OpenQueue : public TasksQueue {
public:
    using TasksQueue::addTask;
    using TasksQueue::clearTask;
    using TasksQueue::connectTask;
    using TasksQueue::disconnectTask;
    using TasksQueue::enqueueTask;
    using TasksQueue::exec;
    using TasksQueue::removeRunningTask;

    std::function<void()> beforeTaskFinished = [] {};
    std::function<void()> afterTaskFinished = [] {};
    int destroyedTasks = 0;

    void onTaskDestroyed(Task *task) override
    {
        ++destroyedTasks;
        TasksQueue::onTaskDestroyed(task);
    }

protected:
    void onTaskFinished(Task *task) override
    {
        beforeTaskFinished();
        TasksQueue::onTaskFinished(task);
        afterTaskFinished();
    }
};

// Destroyed after everything else of this program that is, the queue before the task that it still holds.
Task taskAtExit;
TasksQueue queueAtExit;

constexpr auto connectionTypes = {Qt::DirectConnection, Qt::QueuedConnection};

} // namespace

class TasksQueueTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { failOnQtWarnings(); }

    void smallerPriorityNumbersGoFirst()
    {
        constexpr int largest = std::numeric_limits<int>::max();
        Bench bench;
        bench.queue->setMaxPriority(largest);
        bench.queue->pause();
        const auto task = [&](const QString &name, int priority) {
            return bench.quickTask(
                name, [] {}, priority);
        };
        Task *promoted = task(u"t1"_s, 9);
        Task *demoted = task(u"t2"_s, 0);
        bench.queue->append({promoted, demoted, task(u"t3"_s, 5), task(u"t4"_s, 5), task(u"t5"_s, largest)});
        bench.queue->prepend(task(u"t6"_s, 5));
        *bench.queue << task(u"t7"_s, 0);
        demoted->setPriority(5);
        promoted->setPriority(0);
        drainEvents();
        bench.queue->setMaxPriority(3); // those that are in stay in
        bench.queue->resume();
        drainEvents();
        QCOMPARE(bench.log.take().remove(u":started"_s), u"t7 t1 t6 t3 t4 t2 t5"_s);
    }

    void refusedTasksStayOutside()
    {
        Bench bench;
        LogCapture log;
        bench.queue->pause();
        const auto task = [&](const QString &name, int priority) { return bench.task(name, priority); };
        Task *a = task(u"a"_s, 1);
        Task *running = task(u"running"_s, 1);
        running->setRunning(); // no more worth a message than null
        bench.queue->append({a, nullptr, running, a, task(u"b"_s, 0), task(u"c"_s, 10), task(u"d"_s, 11)});
        bench.queue->setMaxPriority(3);
        bench.queue->prepend(task(u"e"_s, -1));
        a->setPriority(9); // takes the task out
        drainEvents();
        QCOMPARE(log.takeWarnings(),
                 QStringList({u"Task \"a\" already in queue"_s, u"Invalid priority 11 of task \"d\""_s,
                              u"Invalid priority -1 of task \"e\""_s, u"Invalid priority 9 of task \"a\""_s}));
        QCOMPARE(bench.queue->count(), 2);
    }

    void limitCountsTasksThatCount()
    {
        Bench bench(2);
        const auto [a, b, c, d] = bench.tasks(u"a"_s, u"b"_s, u"c"_s, u"d"_s);
        bench.queue->append({a, b, c, d});
        QCOMPARE(bench.log.take(), u"a:started b:started"_s);
        a->setCountAsRunning(false);
        QCOMPARE(bench.queue->runningTasksCount(), 1);
        QCOMPARE(bench.queue->count(), 3);
        bench.queue->tryExec();
        QCOMPARE(bench.log.take(), u"c:started"_s);

        a->setCountAsRunning(true); // three run now, one more than allowed
        b->finish();
        drainEvents();
        QCOMPARE(bench.log.take(), QString());
        bench.queue->setMaxRunningTasksCount(3);
        bench.queue->tryExec();
        QCOMPARE(bench.log.take(), u"d:started"_s);
    }

    void pausedTasksKeepTheirPlace()
    {
        Bench bench;
        bench.queue->pause();
        Task *a = bench.quickTask(u"a"_s);
        Task *b = bench.quickTask(u"b"_s);
        Task *c = bench.task(u"c"_s);
        Task *dropped = bench.quickTask(u"d"_s);
        bench.queue->append({a, b, c, dropped});
        for (Task *task : {a, b, dropped})
            task->pause();
        bench.queue->resume();
        b->resume();
        dropped->setPriority(2);
        drainEvents();
        QCOMPARE(bench.queue->pendingTasksCount(), 2);
        a->resume();
        c->finish();
        drainEvents();
        QCOMPARE(bench.log.take(), u"c:started a:started b:started"_s);
        QVERIFY(bench.isDrained());
    }

    void manyPausedTasksInFrontDoNotSlowDispatch()
    {
        const auto drainTime = [](int pausedCount, int resumedCount) {
            constexpr int count = 20'000;
            QObject owner;
            TasksQueue queue;
            queue.setConnectionType(Qt::DirectConnection);
            queue.setMaxRunningTasksCount(1);
            queue.pause();
            QList<Task *> tasks;
            for (int number = 0; number < pausedCount + count; ++number)
                tasks.append(new Task(&owner));
            queue.append(tasks);
            for (Task *task : tasks.first(pausedCount))
                task->pause();
            QElapsedTimer timer;
            timer.start();
            queue.resume();
            for (Task *task : tasks.first(resumedCount))
                task->resume();
            queue.tryExec();
            const qint64 elapsed = timer.elapsed();
            return queue.count() == pausedCount - resumedCount ? elapsed : std::numeric_limits<qint64>::max();
        };
        // Looking at each paused task again for each one that starts would be two billion looks.
        const qint64 alone = drainTime(0, 0);
        QCOMPARE_LT(drainTime(100'000, 0), 10 * alone + 1000);
        QCOMPARE_LT(drainTime(100'000, 30'000), 10 * alone + 1000);
    }

    void removalStartsTheNextTaskOnly()
    {
        for (const bool destroys : {false, true}) {
            Bench bench;
            const auto [a, b, c] = bench.tasks(u"a"_s, u"b"_s, u"c"_s);
            const auto leave = [&](Task *task) { destroys ? delete task : bench.queue->removeTask(task); };
            bench.queue->append({a, b, c});
            bench.queue->setMaxRunningTasksCount(2); // leaves a free slot
            leave(b);
            drainEvents();
            leave(a);
            if (!destroys)
                b->setPriority(2); // nobody's business here
            leave(c);
            drainEvents();
            QVERIFY(bench.isDrained());
            QCOMPARE(bench.log.take(), u"a:started c:started"_s);
        }
    }

    void taskAppendedOnTwoThreadsIsInOneQueue()
    {
        for (int round = 0; round < 1'000; ++round) {
            TasksQueue left;
            TasksQueue right;
            left.pause();
            right.pause();
            Task task;
            std::atomic<int> ready = 0;
            const auto appendTo = [&](TasksQueue &queue) {
                for (++ready; ready < 2;) { }
                queue.append(&task);
            };
            std::thread other([&] { appendTo(left); });
            appendTo(right);
            other.join();
            QCOMPARE(left.count() + right.count(), 1);
        }
    }

    void clearAppliesThePolicy_data()
    {
        const QString ended = u"p0:finished p1:finished p2:finished q:stateChanged(Idle) r:finished"_s;
        addRows<Clearing>({
            {"remove", {TasksQueue::Remove, u"q:stateChanged(Idle)"_s, NoError}},
            {"finish", {TasksQueue::Finish, ended, Timeout}},
            {"cancel", {TasksQueue::Cancel, ended, Canceled}},
            {"no such policy", {7, u"q:stateChanged(Idle)"_s, NoError}},
        });
    }

    void clearAppliesThePolicy()
    {
        QFETCH(const Clearing, row);
        Bench bench;
        bench.queue->setCleanupMode(TasksQueue::DeleteFinished);
        const QList<Task *> tasks{bench.task(u"r"_s), bench.task(u"p1"_s), bench.task(u"p2"_s, 3),
                                  bench.task(u"p0"_s, 0)};
        Task *done = bench.task(u"done"_s, 0);
        for (Task *task : tasks + QList<Task *>{done})
            bench.queue->append(task);
        tasks[2]->pause();   // treated like the others
        done->setFinished(); // only dropped
        bench.log.keepOnly({u"finished"_s, u"q:stateChanged"_s});
        bench.log.take();

        bench.queue->clear(TasksQueue::ClearPolicy(row.policy), Error(Timeout));
        QCOMPARE(bench.queue->count(), 0);
        drainEvents();
        QCOMPARE(bench.log.take(), row.events);
        QVERIFY(done->isSuccessful());
        for (Task *task : tasks)
            QCOMPARE(task->error().code(), row.code);
    }

    void tasksAddedByReactionsToClear()
    {
        Bench bench;
        const auto [early, late] = bench.tasks(u"early"_s, u"late"_s);
        bench.queue->append({bench.task(u"running"_s), bench.task(u"pending"_s)});
        bench.log.keepOnly({u"started"_s, u"finished"_s});
        bench.log.take();
        bench.log.on(u"pending:finished"_s, [&] { bench.queue->append(early); });
        bench.log.on(u"running:finished"_s, [&] { bench.queue->append(late); });
        bench.queue->clear(TasksQueue::Cancel);
        drainEvents();
        // What comes while pending tasks are treated is dropped, what comes after that stays.
        QVERIFY(early->isIdle());
        QCOMPARE(bench.log.take(), u"pending:finished running:finished late:started"_s);
        QCOMPARE(bench.queue->count(), 1);
    }

    void handlersMayClearAgainOrThrow()
    {
        for (const bool throws : {false, true}) {
            Bench bench;
            const auto [a, b, c] = bench.tasks(u"a"_s, u"b"_s, u"c"_s);
            bench.queue->append({bench.task(u"running"_s), a, b, c});
            bench.log.on(u"b:finished"_s, [&] {
                bench.queue->clear();
                if (throws)
                    throw std::runtime_error("handler");
            });
            bench.log.keepOnly({u"finished"_s});
            try {
                bench.queue->clear(TasksQueue::Cancel);
                QVERIFY(!throws);
            } catch (const std::runtime_error &) {
                QVERIFY(throws);
            }
            QVERIFY(a->isCanceled() && b->isCanceled());
            QCOMPARE(c->isCanceled(), !throws);
            QCOMPARE(bench.queue->count(), 0);
            bench.queue->append({bench.task(u"new"_s), c});
            QCOMPARE(bench.queue->count(), throws ? 2 : 1);
        }
    }

    void finishedTaskIsHandledByPolicyAndMode()
    {
        for (int bits = 0; bits < 16; ++bits) {
            const bool keeps = bits & 1;
            const bool triggersNext = bits & 2;
            const bool fails = bits & 4;
            const bool clears = fails && (bits & 8);
            Bench bench;
            bench.queue->setTaskErrorPolicy(bits & 8 ? TasksQueue::ClearOnError : TasksQueue::ContinueOnError);
            bench.queue->setCleanupMode(keeps ? TasksQueue::KeepFinished : TasksQueue::DeleteFinished);
            const QPointer<Task> a = bench.task(u"a"_s);
            Task *b = bench.task(u"b"_s);
            a->setTriggersNext(triggersNext);
            bench.queue->append({a, b, bench.task(u"c"_s)});
            LogCapture log;
            a->finish(fails ? Error(GeneralError) : Error());
            QVERIFY(b->isIdle());
            drainEvents();
            QCOMPARE(b->isRunning(), !clears);
            QCOMPARE(bench.queue->count(), clears ? 0 : 2);
            QCOMPARE(a.isNull(), !clears && !keeps);
            // The task's leaving dispatches, and once more what it triggers.
            if (!clears)
                QCOMPARE(log.take().filter(u"info Running tasks: "_s).size(), triggersNext ? 2 : 1);
        }
    }

    // Whenever they were connected; and who awaits a task finds its slot free.
    void queueReactsBehindTheHandlersAndBeforeAwaiters()
    {
        for (const Qt::ConnectionType type : connectionTypes) {
            Bench bench(1, type);
            const auto [a, b] = bench.tasks(u"a"_s, u"b"_s);
            Task *const first = a;
            Task *const second = b;
            bench.queue->append({first, second});
            connect(first, &Task::finished, this, [&] { QVERIFY(second->isIdle()); });
            bool isNextRunning = false;
            const auto await = [&]() -> QCoro::Task<> {
                co_await first;
                isNextRunning = second->isRunning();
            };
            const auto awaiting = await();
            first->finish();
            drainEvents();
            QVERIFY(awaiting.isReady() && isNextRunning);
            // Nothing is cut by this.
            second->blockSignals(true);
            second->finish();
            drainEvents();
            QVERIFY(bench.isDrained());
        }
    }

    void lateNotificationTouchesNothing_data()
    {
        using enum BaseTask::State;
        // What happens between finished() and its notification.
        addRows<Late>({
            {"cleared", {Finished, 0, [](auto &queue, auto &, Task *) { queue.clear(); }}},
            {"destroyed", {Finished, 0, [](auto &, auto &, Task *task) { delete task; }}},
            {"restarted", {Running, 1, [](auto &, auto &, Task *task) { task->exec(); }}},
            {"appended again",
             {Running, 1, [](auto &queue, auto &, Task *task) { task->setIdle(), queue.append(task); }}},
            {"removed and appended again",
             {Running, 1,
              [](auto &queue, auto &, Task *task) { queue.removeTask(task), task->setIdle(), queue.append(task); }}},
            {"taken by another queue",
             {Running, 10, [](auto &, auto &other, Task *task) { task->setIdle(), other.append(task); }}},
        });
    }

    void lateNotificationTouchesNothing()
    {
        QFETCH(const Late, row);
        Bench bench;
        Bench other;
        for (TasksQueue *queue : {bench.queue.get(), other.queue.get()})
            queue->setCleanupMode(TasksQueue::DeleteFinished);
        const QPointer<Task> task = bench.task(u"a"_s);
        bench.queue->append(task);
        LogCapture log;
        task->finish();
        row.action(*bench.queue, *other.queue, task);
        const bool isDestroyed = task.isNull();
        drainEvents();
        QCOMPARE(task.isNull(), isDestroyed);
        QCOMPARE(log.take().contains(u"debug Null task finished!"_s), isDestroyed);
        QCOMPARE(bench.queue->count() + 10 * other.queue->count(), row.counts);
        if (isDestroyed)
            return;
        QCOMPARE(task->state(), row.state);

        // The next end is noticed where the task is now, and only there.
        task->finish();
        drainEvents();
        QCOMPARE(task.isNull(), row.counts > 0);
        QVERIFY(bench.isDrained() && other.isDrained());
    }

    void throwingTaskFreesItsSlot()
    {
        for (int bits = 0; bits < 8; ++bits) {
            const bool finishesFirst = bits & 1;
            const bool onAnotherThread = bits & 2;
            Bench bench(1, bits & 4 ? Qt::DirectConnection : Qt::QueuedConnection);
            Task *bad = bench.quickTask(u"bad"_s, [&] {
                if (finishesFirst)
                    bad->finish();
                throw std::runtime_error("work");
            });
            Task *good = bench.quickTask(u"good"_s);
            bool isThrown = false;
            const auto append = [&] {
                try {
                    bench.queue->append({bad, good});
                } catch (const std::runtime_error &) {
                    isThrown = true;
                }
            };
            onAnotherThread ? std::thread(append).join() : append();
            drainEvents();
            QVERIFY(isThrown);
            QCOMPARE(bad->isRunning(), !finishesFirst);
            QVERIFY(good->isSuccessful() && bench.isDrained());
        }
    }

    void synchronousTasksDrainWithAFlatStack()
    {
        constexpr int count = 100'000;
        int ran = 0;
        const std::unique_ptr<QThread> thread(QThread::create([&] {
            QObject owner;
            TasksQueue queue;
            queue.setConnectionType(Qt::DirectConnection);
            QList<Task *> tasks;
            for (int number = 0; number < count; ++number)
                tasks.append(new Task([&ran] { return ++ran, Error(); }, Task::Synchronous, &owner));
            queue.append(tasks);
        }));
#ifdef __SANITIZE_ADDRESS__
        thread->setStackSize(2 * 1024 * 1024);
#else
        thread->setStackSize(256 * 1024);
#endif
        thread->start();
        QVERIFY(thread->wait());
        QCOMPARE(ran, count);
    }

    void appendByRunningWorkStartsAtOnceWhereThereIsRoom()
    {
        for (const auto type : connectionTypes) {
            for (const bool isRoom : {true, false}) {
                Bench bench(isRoom ? 2 : 1, type);
                EventLog log;
                Task *inner = bench.quickTask(u"inner"_s, [&] { log.add(u"inner"_s); });
                bench.queue->append(bench.quickTask(u"outer"_s, [&] {
                    log.add(u"outer"_s);
                    bench.queue->append(inner);
                    log.add(u"end"_s);
                }));
                drainEvents();
                QCOMPARE(log.take(), isRoom ? u"outer inner end"_s : u"outer end inner"_s);
                QCOMPARE(bench.queue->state(), TasksQueue::Idle);
            }
        }
    }

    void handlersMayDelete_data()
    {
        QTest::addColumn<Qt::ConnectionType>("type");
        QTest::addColumn<TasksQueue::ClearPolicy>("policy");
        QTest::addColumn<bool>("deletesQueue"); // or else all tasks
        for (int bits = 0; bits < 12; ++bits) {
            QTest::addRow("%s, %s, policy %d", bits & 1 ? "queue" : "tasks", bits & 2 ? "direct" : "queued", bits / 4)
                << (bits & 2 ? Qt::DirectConnection : Qt::QueuedConnection) << TasksQueue::ClearPolicy(bits / 4)
                << bool(bits & 1);
        }
    }

    // At the first, the second, … event of all that happens here, in a new queue each time.
    void handlersMayDelete()
    {
        QFETCH(const Qt::ConnectionType, type);
        QFETCH(const TasksQueue::ClearPolicy, policy);
        QFETCH(const bool, deletesQueue);
        bool isDeleted = true;
        for (int index = 0; isDeleted; ++index) {
            isDeleted = false;
            Bench bench(2, type);
            bench.log.keepOnly({});
            bench.queue->setCleanupMode(TasksQueue::DeleteFinished);
            const QList<QPointer<Task>> tasks{bench.quickTask(u"a"_s), bench.task(u"b"_s),    bench.task(u"c"_s),
                                              bench.task(u"d"_s),      bench.task(u"e"_s, 2), bench.task(u"f"_s, 3)};
            bench.log.at(index, [&] {
                isDeleted = true;
                if (deletesQueue)
                    return delete bench.queue;
                const QString event = bench.log.events().last();
                bench.queue->pause(); // or each deletion would start the next task
                for (Task *task : tasks) {
                    if (task && event != task->name() + u":aboutToDestroy"_s)
                        delete task;
                }
            });

            bench.queue->append({tasks.begin(), tasks.end()});
            drainEvents();
            if (tasks[1] && bench.queue)
                bench.queue->removeTask(tasks[1]);
            if (tasks[2])
                tasks[2]->finish(Error(GeneralError));
            drainEvents();
            if (bench.queue)
                bench.queue->clear(policy, Error(Timeout));
            drainEvents();
            const QStringList rest = bench.log.events().mid(index + 1);
            QCOMPARE(rest.filter(u"stateChanged(Running)"_s), QStringList());
            QVERIFY(!bench.queue || bench.queue->count() == 0);
        }
    }

    void destructionElsewhereDispatchesInTheThreadOfTheQueue()
    {
        Bench bench;
        Gate gate;
        std::thread elsewhere([&] {
            Task task(Task::Asynchronous);
            bench.queue->append(&task);
            gate.arriveAndWait();
        });
        QVERIFY(gate.waitForArrival());
        QThread *ranIn = nullptr;
        Task *next = bench.quickTask(u"next"_s, [&] { ranIn = QThread::currentThread(); });
        bench.queue->append(next);
        gate.open();
        elsewhere.join();
        QVERIFY(next->isIdle());
        drainEvents();
        QCOMPARE(ranIn, thread());
        QVERIFY(bench.isDrained());
    }

    void appendByWorkThatGaveUpItsSlotStartsAtOnce()
    {
        const BenchStep ways[] = {
            [](Bench &bench, Task *outer) { bench.queue->removeTask(outer); },
            [](Bench &bench, Task *) { bench.queue->clear(); },
            [](Bench &, Task *outer) { outer->finish(); },
        };
        for (const auto type : connectionTypes) {
            for (const BenchStep &giveUp : ways) {
                // Queued, an end is handled later.
                Bench bench(type == Qt::QueuedConnection && &giveUp == &ways[2] ? 2 : 1, type);
                Task *inner = bench.quickTask(u"inner"_s);
                bool isDone = false;
                Task *outer = bench.quickTask(u"outer"_s, [&] {
                    giveUp(bench, outer);
                    bench.queue->append(inner);
                    isDone = inner->isFinished();
                });
                bench.queue->append(outer);
                QVERIFY(isDone);
                drainEvents();
                QVERIFY(bench.isDrained());
            }
        }
    }

    void workMayWaitForATaskBehindItInTheList()
    {
        for (const auto type : connectionTypes) {
            Bench bench(2, type);
            Task *behind = bench.quickTask(u"behind"_s);
            Error waited(GeneralError);
            Task *waiting = bench.quickTask(u"waiting"_s, [&] { waited = behind->waitForFinished(2000); });
            bench.queue->append({waiting, behind});
            QCOMPARE(waited, Error());
        }
    }

    void taskThatIsSetIdleFreesItsSlotAndIsLeftAlone_data()
    {
        addRows<Reset>({
            {"while it runs", Reset::WhileRunning},
            {"by a handler of stateChanged()", Reset::InStateChanged},
            {"by a handler of finished()", Reset::InFinished},
            {"before its end is handled", Reset::AfterFinish},
        });
    }

    void taskThatIsSetIdleFreesItsSlotAndIsLeftAlone()
    {
        QFETCH(const Reset, row);
        for (const auto type : connectionTypes) {
            Bench bench(1, type);
            const QPointer<Task> task = bench.task(u"a"_s);
            Task *next = bench.task(u"b"_s);
            GroupTask group;
            group.setCleanupPolicy(GroupTask::SelfDelete);
            group.append(task.get());
            bench.queue->append({task, next});
            // A direct queue has handled the end by then.
            if (row != Reset::AfterFinish)
                bench.queue->setCleanupMode(TasksQueue::DeleteFinished);
            if (row == Reset::InStateChanged)
                bench.log.on(u"a:stateChanged(Finished)"_s, [&] { task->setIdle(); });
            if (row == Reset::InFinished)
                bench.log.on(u"a:finished"_s, [&] { task->setIdle(); });
            bench.log.keepOnly({u"stateChanged"_s, u"finished"_s});
            if (row != Reset::WhileRunning)
                task->finish();
            if (row == Reset::WhileRunning || row == Reset::AfterFinish)
                task->setIdle();
            drainEvents();
            QVERIFY(task && task->isIdle());
            QVERIFY(next->isRunning());
            QCOMPARE(bench.queue->count(), 1);
            QVERIFY(group.isFinished());
        }
    }

    void taskThatWasPassedOverIsStartedWhenItIsIdleAgain_data()
    {
        // What a subclass does to the parked task; it asks for the dispatch itself then.
        addRows<std::function<void(OpenQueue &, Task *)>>({
            {"left alone", nullptr},
            {"connected", &OpenQueue::connectTask},
            {"disconnected", &OpenQueue::disconnectTask},
            {"removed if it were running", &OpenQueue::removeRunningTask},
        });
    }

    void taskThatWasPassedOverIsStartedWhenItIsIdleAgain()
    {
        using Step = std::function<void(OpenQueue &, Task *)>;
        QFETCH(const Step, row);
        for (const auto type : connectionTypes) {
            auto *queue = new OpenQueue;
            Bench bench(1, type, queue);
            queue->pause();
            Task *task = bench.quickTask(u"a"_s);
            queue->append(task);
            task->pause();
            queue->resume();
            if (row)
                row(*queue, task);
            task->resume();
            QVERIFY(task->isIdle()); // no work inside resume()
            if (row)
                queue->tryExec();
            drainEvents();
            QCOMPARE(bench.log.take(), u"a:started"_s);
        }
    }

    void destructionInTheThreadOfTheQueueDispatchesAtOnce()
    {
        for (const bool throws : {false, true}) {
            Bench bench;
            LogCapture log;
            Task *first = bench.task(u"a"_s);
            Task *next = bench.quickTask(u"b"_s, [throws] {
                if (throws)
                    throw std::runtime_error("work");
            });
            Task *last = bench.task(u"c"_s);
            bench.queue->append({first, next, last});
            delete first;
            // No exception can leave a destructor.
            QCOMPARE(next->error(), throws ? Error(GeneralError, u"work"_s) : Error());
            QVERIFY(next->isFinished());
            QCOMPARE(log.take(u"critical"_s).size(), throws ? 1 : 0);
            drainEvents();
            QVERIFY(last->isRunning());
        }
    }

    void directQueueNeedsNoEventLoop_data()
    {
        const auto cancelGroup = [](GroupTask::CancelSubtasksMode mode) -> BenchStep {
            return [mode](Bench &, Task *task) {
                GroupTask group;
                group.setCleanupPolicy(GroupTask::SelfDelete);
                group.setCancelSubtasksMode(mode);
                group.append(task);
                group.cancel();
            };
        };
        addRows<BenchStep>({
            {"its group is canceled", cancelGroup(GroupTask::CancelSubtasks)},
            {"its group is canceled quietly", cancelGroup(GroupTask::FinishSubtasks)},
            {"taken by another queue",
             [](Bench &, Task *task) {
                 task->setIdle();
                 TasksQueue other;
                 other.append(task);
             }},
        });
    }

    void directQueueNeedsNoEventLoop()
    {
        QFETCH(const BenchStep, row);
        Bench bench(1, Qt::DirectConnection);
        const auto [running, next] = bench.tasks(u"a"_s, u"b"_s);
        bench.queue->append({running, next});
        row(bench, running);
        QVERIFY(next->isRunning());
    }

    void loggingChangesNoState()
    {
        const auto statesOfADrain = [] {
            Bench bench;
            bench.log.keepOnly({u"q:stateChanged"_s});
            const auto [a, b] = bench.tasks(u"a"_s, u"b"_s);
            bench.queue->append({a, b});
            b->pause(); // never starts, and is there for every pass
            a->finish();
            drainEvents();
            return bench.log.take();
        };
        const QString plain = statesOfADrain();
        const LogCapture log;
        QCOMPARE(plain, statesOfADrain());
    }

    void endIsHandledWithoutTheLockAndDispatchedInside()
    {
        for (const auto type : connectionTypes) {
            auto *queue = new OpenQueue;
            Bench bench(1, type, queue);
            Gate counted;
            std::thread other;
            queue->beforeTaskFinished = [&] {
                other = std::thread([&] { queue->count(), counted.arrive(); });
                bench.log.add(counted.waitForArrival(2000) ? u"unlocked"_s : u"locked"_s);
            };
            queue->afterTaskFinished = [&] { bench.log.add(u"handled"_s); };
            bench.log.keepOnly({u"started"_s, u"locked"_s, u"unlocked"_s, u"handled"_s});
            const auto [a, b] = bench.tasks(u"a"_s, u"b"_s);
            queue->append({a, b});
            a->finish();
            drainEvents();
            other.join();
            QCOMPARE(bench.log.take(), u"a:started unlocked b:started handled"_s);
        }
    }

    void subclassHearsOnceOfEachTaskThatIsDestroyed()
    {
        OpenQueue queue;
        queue.setMaxRunningTasksCount(1);
        for (Task *task : {new Task(Task::Asynchronous), new Task, static_cast<Task *>(new ComplexTask)}) {
            const int heard = queue.destroyedTasks;
            queue.append(task);
            delete task;
            QCOMPARE(queue.destroyedTasks, heard + 1);
        }
    }

    void nullIsIgnoredByWhatSubclassesCall()
    {
        struct OpenGroup : GroupTask {
            using GroupTask::execTask;
        };
        OpenQueue queue;
        queue.exec(nullptr);
        queue.addTask(nullptr, TasksQueue::Append);
        queue.enqueueTask(nullptr, TasksQueue::Prepend);
        queue.onTaskDestroyed(nullptr);
        queue.connectTask(nullptr);
        queue.disconnectTask(nullptr);
        queue.removeRunningTask(nullptr);
        queue.clearTask(nullptr, TasksQueue::Cancel, Error());
        QCOMPARE(queue.count(), 0);
        OpenGroup group;
        group.execTask(nullptr);
        group.setQueue(&queue);
        group.execTask(nullptr);
    }

    void queueAndTaskMayOutliveMain()
    {
        queueAtExit.pause();
        queueAtExit.append(&taskAtExit);
        QCOMPARE(queueAtExit.count(), 1);
    }
};

QTEST_GUILESS_MAIN(TasksQueueTest)
#include "tst_tasksqueue.moc"
