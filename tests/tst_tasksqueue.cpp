#include "support/EventLog.h"
#include "support/Gate.h"
#include "support/LogCapture.h"
#include "support/Rows.h"
#include "support/Waiting.h"

#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QElapsedTimer>
#include <QPointer>
#include <QThread>

#include <array>
#include <atomic>
#include <limits>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace Qt::StringLiterals;
using namespace zel;

static_assert(TasksQueue::Idle == 0 && TasksQueue::Working == 1 && TasksQueue::Paused == 2);
static_assert(TasksQueue::Remove == 0 && TasksQueue::Finish == 1 && TasksQueue::Cancel == 2);
static_assert(TasksQueue::DeleteFinished == 0 && TasksQueue::KeepFinished == 1);
static_assert(TasksQueue::ContinueOnError == 0 && TasksQueue::ClearOnError == 1);

namespace {

/// A queue that starts one task at a time, and named tasks for it; the log keeps "started" unless told otherwise.
class Bench {
public:
    explicit Bench(int limit = 1, Qt::ConnectionType type = Qt::QueuedConnection) : queue(new TasksQueue)
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
    Task *quickTask(const QString &name, std::function<void()> work, int priority = 1)
    {
        return add(name, priority, new Task([work] { return work ? work() : void(), Error(); }));
    }
    Task *quickTask(const QString &name, int priority = 1)
    {
        return quickTask(name, std::function<void()>(), priority);
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
        const auto quick = [&](const QString &name, int priority) { return bench.quickTask(name, priority); };
        bench.queue->append(QList<Task *>{quick(u"t1"_s, 5), quick(u"t2"_s, 5), quick(u"t3"_s, 5)});
        bench.queue->prepend(quick(u"t4"_s, 5));
        *bench.queue << quick(u"t5"_s, 0);
        Task *late = quick(u"t6"_s, 9);
        Task *demoted = quick(u"t7"_s, 0);
        bench.queue->append({late, demoted, quick(u"t8"_s, 0), quick(u"t9"_s, largest), quick(u"t10"_s, largest - 1)});
        demoted->setPriority(5);
        late->setPriority(0);
        drainEvents();
        bench.queue->setMaxPriority(3); // those that are in stay in
        QCOMPARE(bench.queue->count(), 10);
        QCOMPARE(bench.log.take(), QString());

        bench.queue->resume();
        drainEvents();
        QCOMPARE(bench.log.take().remove(u":started"_s), u"t5 t8 t6 t4 t1 t2 t3 t7 t10 t9"_s);
        QCOMPARE(bench.queue->state(), TasksQueue::Idle);
    }

    void ordinaryLifeInTheLog()
    {
        Bench bench;
        const auto [a, b, c] = bench.tasks(u"a"_s, u"b"_s, u"c"_s);
        c->setCountAsRunning(false);
        LogCapture log;
        bench.queue->append({a, b});
        a->finish();
        drainEvents();
        QCOMPARE(log.take(u"info"_s).join(u'\n'), uR"(Task "a" appended, queue.count= 1
Task "b" appended, queue.count= 2
Idle queue "q"  --> Working.
Running tasks: 0 Max running tasks: 1
Task "a" : Idle => "Running"
Task "a" : Running => "Finalizing"
Task "a" : Finalizing => "Finished"
Running tasks: 0 Max running tasks: 1
Task "b" : Idle => "Running"
Running tasks: 1 Max running tasks: 1)"_s);

        bench.queue->pause();
        bench.queue->append(c);
        bench.queue->resume();
        b->finish();
        drainEvents();
        QCOMPARE(log.take(u"info"_s).join(u'\n'), uR"(Task "c" appended, queue.count= 1
"q" paused
Running tasks: 1 Max running tasks: 1
Task "b" : Running => "Finalizing"
Task "b" : Finalizing => "Finished"
Running tasks: 0 Max running tasks: 1
Task "c" : Idle => "Running"
No more tasks in the queue  "q"
Queue   "q" --> Idle.
Queue size: 0
Empty queue  "q" --> Idle.)"_s);
    }

    void refusedTasksStayOutside()
    {
        Bench bench;
        LogCapture log;
        bench.queue->pause();
        Task *a = bench.task(u"a"_s);
        bench.queue->append({a, a});
        QCOMPARE(log.takeWarnings(), QStringList{u"Task \"a\" already in queue"_s});
        QCOMPARE(bench.queue->pendingTasksCount(), 1);

        const auto task = [&](const QString &name, int priority) { return bench.task(name, priority); };
        bench.queue->append({task(u"b"_s, 0), task(u"c"_s, 10), task(u"d"_s, 11), task(u"e"_s, -1)});
        bench.queue->setMaxPriority(3);
        bench.queue->prepend(task(u"f"_s, 4));
        a->setPriority(9); // takes the task out
        drainEvents();
        QCOMPARE(log.takeWarnings(),
                 QStringList({u"Invalid priority 11 of task \"d\""_s, u"Invalid priority -1 of task \"e\""_s,
                              u"Invalid priority 4 of task \"f\""_s, u"Invalid priority 9 of task \"a\""_s}));
        QCOMPARE(bench.queue->count(), 2);

        // Neither null nor a task that is not idle is worth a message.
        a->setRunning();
        bench.queue->append(QList<Task *>{nullptr, a, bench.task(u"h"_s)});
        bench.queue->prepend(nullptr);
        bench.queue->removeTask(nullptr);
        QCOMPARE(log.takeWarnings(), QStringList());
        QCOMPARE(bench.queue->count(), 3);
    }

    void limitCountsTasksThatCount()
    {
        Bench bench(2);
        const QList<Task *> tasks{bench.task(u"a"_s), bench.task(u"b"_s), bench.task(u"c"_s), bench.task(u"d"_s)};
        bench.queue->append(tasks);
        QCOMPARE(bench.log.take(), u"a:started b:started"_s);
        QCOMPARE(bench.queue->runningTasksCount(), 2);
        QCOMPARE(bench.queue->count(), 4);

        tasks[0]->setCountAsRunning(false);
        QCOMPARE(bench.queue->runningTasksCount(), 1);
        QCOMPARE(bench.queue->count(), 3);
        bench.queue->tryExec();
        QCOMPARE(bench.log.take(), u"c:started"_s);

        tasks[0]->setCountAsRunning(true); // three run now, one more than allowed
        tasks[1]->finish();
        drainEvents();
        QCOMPARE(bench.log.take(), QString());
        bench.queue->setMaxRunningTasksCount(3);
        bench.queue->tryExec();
        QCOMPARE(bench.log.take(), u"d:started"_s);
    }

    void tasksThatDoNotCountAllStart()
    {
        Bench bench;
        const QList<Task *> tasks{bench.task(u"a"_s), bench.task(u"b"_s), bench.task(u"c"_s)};
        for (Task *task : tasks)
            task->setCountAsRunning(false);
        bench.log.keepOnly({u"q:stateChanged"_s, u"started"_s});
        bench.queue->append(tasks);
        tasks[0]->finish();
        drainEvents();
        QCOMPARE(bench.log.take(), u"q:stateChanged(Working) a:started b:started c:started q:stateChanged(Idle)"_s);

        bench.queue->setMaxRunningTasksCount(0);
        bench.queue->append(bench.task(u"d"_s));
        QCOMPARE(bench.log.take(), u"q:stateChanged(Working) q:stateChanged(Idle)"_s);
        QCOMPARE(bench.queue->pendingTasksCount(), 1);
    }

    void pausedQueueStartsNothing()
    {
        Bench bench;
        bench.log.keepOnly({u"q:stateChanged"_s});
        bench.queue->resume();
        const auto [a, b] = bench.tasks(u"a"_s, u"b"_s);
        bench.queue->append({a, b});
        bench.queue->pause();
        bench.queue->pause();
        a->finish();
        drainEvents();
        QVERIFY(b->isIdle());
        bench.queue->removeTask(b);
        bench.queue->clear();
        QCOMPARE(bench.log.take(),
                 u"q:stateChanged(Working) q:stateChanged(Idle) q:stateChanged(Working) "
                 "q:stateChanged(Paused)"_s);
    }

    void pausedTasksKeepTheirPlace()
    {
        Bench bench;
        bench.queue->pause();
        Task *a = bench.quickTask(u"a"_s);
        Task *b = bench.quickTask(u"b"_s);
        Task *c = bench.task(u"c"_s);
        Task *dropped = bench.quickTask(u"e"_s);
        bench.queue->append({a, b, c, bench.quickTask(u"d"_s), dropped});
        for (Task *task : {a, b, dropped})
            task->pause();
        bench.queue->resume();
        QCOMPARE(bench.log.take(), u"c:started"_s);
        QCOMPARE(bench.queue->pendingTasksCount(), 4);

        b->resume();
        dropped->setPriority(2);
        drainEvents();
        QCOMPARE(bench.queue->pendingTasksCount(), 3);
        a->resume();
        c->finish();
        drainEvents();
        QCOMPARE(bench.log.take(), u"a:started b:started d:started"_s);
        QCOMPARE(bench.queue->count(), 0);
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
            leave(c);
            drainEvents();
            QVERIFY(bench.isDrained());
            QCOMPARE(bench.log.take(), u"a:started c:started"_s);
            if (destroys)
                continue;
            // Only what ran forgets the queue.
            QCOMPARE(a->queue(), nullptr);
            QCOMPARE(b->queue(), bench.queue);
            b->setPriority(2);
            drainEvents();
            QCOMPARE(bench.queue->count(), 0);
        }
    }

    void taskStartedElsewhereLeavesWhenItFinishes()
    {
        Bench bench;
        bench.queue->pause();
        Task *task = bench.task(u"a"_s);
        bench.queue->append(task);
        task->exec();
        bench.queue->resume();
        QCOMPARE(bench.queue->pendingTasksCount(), 1);
        QCOMPARE(bench.queue->runningTasksCount(), 0);
        task->finish();
        drainEvents();
        QVERIFY(bench.isDrained());
    }

    void taskIsInOneQueueAtMost()
    {
        Bench bench;
        TasksQueue other;
        const auto [running, a] = bench.tasks(u"running"_s, u"a"_s);
        bench.queue->append({running, a});
        other.append(a);
        QCOMPARE(bench.queue->count(), 1);
        QCOMPARE(a->queue(), &other);
        // The first queue has nothing to do with it any more.
        bench.queue->setTaskErrorPolicy(TasksQueue::ClearOnError);
        a->setPriority(3);
        a->finish(Error(GeneralError));
        drainEvents();
        QCOMPARE(bench.queue->count(), 1);
        QCOMPARE(other.count(), 0);
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
                ++ready;
                while (ready < 2) { }
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
        QList<QPointer<Task>> tasks{bench.task(u"r"_s), bench.task(u"p1"_s), bench.task(u"p2"_s, 3),
                                    bench.task(u"p0"_s, 0), bench.task(u"done"_s, 0)};
        for (Task *task : tasks)
            bench.queue->append(task);
        tasks[2]->pause();       // treated like the others
        tasks[4]->setFinished(); // only dropped
        bench.log.keepOnly({u"finished"_s, u"q:stateChanged"_s});
        bench.log.take();

        bench.queue->clear(TasksQueue::ClearPolicy(row.policy), Error(Timeout));
        QCOMPARE(bench.queue->count(), 0);
        drainEvents();
        QCOMPARE(bench.log.take(), row.events);
        for (const auto &task : std::as_const(tasks))
            QVERIFY(task && task->queue() == bench.queue);
        QVERIFY(tasks.takeLast()->isSuccessful());
        for (Task *task : std::as_const(tasks))
            QCOMPARE(task->error().code(), row.code);

        // What the tasks do from now on is not the queue's business.
        tasks[1]->setPriority(2);
        tasks[0]->finish();
        drainEvents();
        QVERIFY(tasks[0]);
        QCOMPARE(bench.queue->count(), 0);
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
        // What comes while pending tasks are treated is dropped, what comes after that is a new beginning.
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
            bench.log.keepOnly({u"finished"_s});
            bench.log.on(u"b:finished"_s, [&] {
                bench.queue->clear();
                if (throws)
                    throw std::runtime_error("handler");
            });
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

    void destroyedQueueLetsGo()
    {
        Bench bench;
        const auto [running, pending] = bench.tasks(u"running"_s, u"pending"_s);
        bench.queue->append({running, pending});
        bench.log.keepOnly({u"finished"_s, u"q:stateChanged"_s});
        bench.log.take();
        running->finish(); // its notification is on the way
        running->setRunning();
        delete bench.queue;
        drainEvents();
        QVERIFY(running->isRunning() && pending->isIdle());
        QCOMPARE(running->queue(), nullptr);
        QCOMPARE(pending->queue(), nullptr);
        pending->setPriority(4);
        running->finish();
        drainEvents();
        QCOMPARE(bench.log.take(), u"running:finished running:finished"_s);
    }

    void finishedTaskIsHandledByPolicyAndMode_data()
    {
        QTest::addColumn<int>("bits");
        for (int bits = 0; bits < 16; ++bits) {
            QTest::addRow("%s, %s, %s, %s", bits & 1 ? "clear on error" : "continue", bits & 2 ? "keep" : "delete",
                          bits & 4 ? "triggers next" : "does not trigger", bits & 8 ? "fails" : "succeeds")
                << bits;
        }
    }

    void finishedTaskIsHandledByPolicyAndMode()
    {
        QFETCH(const int, bits);
        const bool clears = (bits & 1) && (bits & 8);
        Bench bench;
        bench.queue->setTaskErrorPolicy(TasksQueue::TaskErrorPolicy(bits & 1));
        bench.queue->setCleanupMode(TasksQueue::CleanupMode(bits >> 1 & 1));
        const QPointer<Task> a = bench.task(u"a"_s);
        Task *b = bench.task(u"b"_s);
        a->setTriggersNext(bits & 4);
        bench.queue->append({a, b, bench.task(u"c"_s)});
        LogCapture log;
        a->finish(bits & 8 ? Error(GeneralError) : Error());
        QVERIFY(b->isIdle());
        drainEvents();
        QCOMPARE(b->isRunning(), !clears);
        QCOMPARE(bench.queue->count(), clears ? 0 : 2);
        QCOMPARE(bench.queue->state(), clears ? TasksQueue::Idle : TasksQueue::Working);
        QCOMPARE(a.isNull(), !clears && !(bits & 2));
        if (!clears) // the task's leaving dispatches, and once more what it triggers
            QCOMPARE(log.take().filter(u"info Running tasks: "_s).size(), bits & 4 ? 2 : 1);
    }

    void lateNotificationTouchesNothing_data()
    {
        using enum BaseTask::State;
        // What happens between finished() and its notification.
        addRows<Late>({
            {"cleared", {Finished, 0, [](auto &queue, auto &, Task *) { queue.clear(); }}},
            {"removed", {Finished, 0, [](auto &queue, auto &, Task *task) { queue.removeTask(task); }}},
            {"destroyed", {Finished, 0, [](auto &, auto &, Task *task) { delete task; }}},
            {"restarted", {Running, 1, [](auto &, auto &, Task *task) { task->exec(); }}},
            {"appended again",
             {Running, 1, [](auto &queue, auto &, Task *task) { task->setIdle(), queue.append(task); }}},
            {"removed and appended again",
             {Running, 1,
              [](auto &queue, auto &, Task *task) { queue.removeTask(task), task->setIdle(), queue.append(task); }}},
            {"appended again to the paused queue",
             {Idle, 1, [](auto &queue, auto &, Task *task) { queue.pause(), task->setIdle(), queue.append(task); }}},
            {"taken by another queue",
             {Running, 10, [](auto &, auto &other, Task *task) { task->setIdle(), other.append(task); }}},
        });
    }

    void lateNotificationTouchesNothing()
    {
        QFETCH(const Late, row);
        const bool isDestroyed = qstrcmp(QTest::currentDataTag(), "destroyed") == 0;
        Bench bench;
        TasksQueue other;
        bench.queue->setCleanupMode(TasksQueue::DeleteFinished);
        other.setCleanupMode(TasksQueue::DeleteFinished);
        const QPointer<Task> task = bench.task(u"a"_s);
        bench.queue->append(task);
        LogCapture log;
        task->finish();
        row.action(*bench.queue, other, task);
        drainEvents();
        QCOMPARE(task.isNull(), isDestroyed);
        QCOMPARE(log.take().contains(u"debug Null task finished!"_s), isDestroyed);
        QCOMPARE(bench.queue->count() + 10 * other.count(), row.counts);
        if (isDestroyed)
            return;
        QCOMPARE(task->state(), row.state);

        // The next end is noticed where the task is now, and only there.
        bench.queue->resume();
        task->finish();
        drainEvents();
        QCOMPARE(task.isNull(), row.counts > 0);
        QCOMPARE(bench.queue->count() + other.count(), 0);
        QCOMPARE(bench.queue->state(), TasksQueue::Idle);
    }

    void throwingTaskFreesItsSlot_data()
    {
        QTest::addColumn<bool>("finishesFirst");
        QTest::addColumn<bool>("onAnotherThread");
        QTest::newRow("throws") << false << false;
        QTest::newRow("throws on another thread") << false << true;
        QTest::newRow("finishes and throws") << true << false;
        QTest::newRow("finishes and throws on another thread") << true << true;
    }

    void throwingTaskFreesItsSlot()
    {
        QFETCH(const bool, finishesFirst);
        QFETCH(const bool, onAnotherThread);
        for (const auto type : connectionTypes) {
            Bench bench(1, type);
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
        for (const bool appendedSingly : {false, true}) {
            int ran = 0;
            int left = -1;
            const std::unique_ptr<QThread> thread(QThread::create([&] {
                QObject owner;
                TasksQueue queue;
                queue.setConnectionType(Qt::DirectConnection);
                queue.setMaxRunningTasksCount(appendedSingly ? 1 : 4);
                QList<Task *> tasks;
                for (int number = 0; number < count; ++number)
                    tasks.append(new Task([&ran] { return ++ran, Error(); }, Task::Synchronous, &owner));
                for (int number = 0; appendedSingly && number < count; ++number)
                    queue.append(tasks[number]);
                if (!appendedSingly)
                    queue.append(tasks);
                left = queue.count();
            }));
#ifdef __SANITIZE_ADDRESS__
            thread->setStackSize(2 * 1024 * 1024);
#else
            thread->setStackSize(256 * 1024);
#endif
            thread->start();
            QVERIFY(thread->wait());
            QCOMPARE(ran, count);
            QCOMPARE(left, 0);
        }
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
        for (const auto type : connectionTypes) {
            for (const auto policy : {TasksQueue::Remove, TasksQueue::Finish, TasksQueue::Cancel}) {
                QTest::addRow("queue, connection %d, policy %d", type, policy) << type << policy << true;
                QTest::addRow("tasks, connection %d, policy %d", type, policy) << type << policy << false;
            }
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
            QList<QPointer<Task>> tasks{bench.quickTask(u"a"_s), bench.quickTask(u"b"_s), bench.task(u"c"_s),
                                        bench.task(u"d"_s),      bench.task(u"e"_s, 2),   bench.task(u"f"_s, 3)};
            QStringList idleNames;
            bench.log.at(index, [&] {
                isDeleted = true;
                for (Task *task : std::as_const(tasks)) {
                    if (task && task->isIdle())
                        idleNames.append(task->name());
                }
                if (deletesQueue)
                    return delete bench.queue;
                const QString event = bench.log.events().last();
                for (Task *task : std::as_const(tasks)) {
                    if (task && event != task->name() + u":aboutToDestroy"_s)
                        delete task;
                }
            });

            bench.queue->append({tasks[0], tasks[1], tasks[2], tasks[3], tasks[4], tasks[5]});
            drainEvents();
            if (tasks[2] && bench.queue)
                bench.queue->removeTask(tasks[2]);
            if (tasks[3])
                tasks[3]->finish(Error(GeneralError));
            drainEvents();
            if (bench.queue)
                bench.queue->clear(policy, Error(Timeout));
            drainEvents();
            const QStringList rest = bench.log.events().mid(index + 1);
            for (const QString &name : std::as_const(idleNames))
                QVERIFY2(!rest.contains(name + u":started"_s), qPrintable(bench.log.take()));
            QVERIFY(!bench.queue || bench.queue->count() == 0);
        }
    }

    void lockIsNotHeldWhileATaskWorks()
    {
        Bench bench;
        Gate gate;
        Task *busy = bench.quickTask(u"busy"_s, [&] { gate.arriveAndWait(); });
        Task *next = bench.quickTask(u"next"_s);
        std::thread dispatcher([&] { bench.queue->append(busy); });
        QVERIFY(gate.waitForArrival());
        bench.queue->append(next);
        bench.queue->removeTask(next);
        bench.queue->append(next);
        QCOMPARE(bench.queue->count(), 2);
        gate.open();
        dispatcher.join();
        drainEvents();
        QVERIFY(next->isSuccessful() && bench.isDrained());
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
        QVERIFY(next->isIdle());
        gate.open();
        elsewhere.join();
        QVERIFY(next->isIdle());
        QCOMPARE(bench.queue->count(), 1);
        drainEvents();
        QCOMPARE(ranIn, thread());
        QCOMPARE(bench.queue->state(), TasksQueue::Idle);
    }

    void queueAndTaskMayOutliveMain()
    {
        queueAtExit.pause();
        queueAtExit.append(&taskAtExit);
        QCOMPARE(queueAtExit.count(), 1);
    }

    void tasksAppendedFromManyThreadsAllRunOnce_data()
    {
        QTest::addColumn<Qt::ConnectionType>("type");
        QTest::addColumn<Task::ExecutionMode>("mode");
        QTest::newRow("direct") << Qt::DirectConnection << Task::Synchronous;
        QTest::newRow("queued") << Qt::QueuedConnection << Task::Synchronous;
        QTest::newRow("queued, work on threads") << Qt::QueuedConnection << Task::WorkingThread;
    }

    void tasksAppendedFromManyThreadsAllRunOnce()
    {
        QFETCH(const Qt::ConnectionType, type);
        QFETCH(const Task::ExecutionMode, mode);
        constexpr int count = 250;
        Bench bench(2, type);
        std::atomic<int> runs = 0;
        std::atomic<int> running = 0;
        std::atomic<bool> isLimitKept = true;
        QList<Task *> tasks;
        for (int number = 0; number < 4 * count; ++number) {
            tasks.append(bench.quickTask(QString(), [&] {
                ++runs;
                if (++running > 2)
                    isLimitKept = false;
                QThread::yieldCurrentThread();
                --running;
            }));
            tasks.last()->setExecutionMode(mode);
            tasks.last()->setThreadWaitTime(-1);
        }
        std::vector<std::thread> threads;
        for (int part = 0; part < 4; ++part) {
            threads.emplace_back([&, part] {
                for (Task *task : tasks.mid(part * count, count))
                    bench.queue->append(task);
            });
        }
        for (std::thread &each : threads)
            each.join();
        QTRY_VERIFY_WITH_TIMEOUT(bench.isDrained(), 30'000);
        QCOMPARE(runs.load(), 4 * count);
        QVERIFY(isLimitKept);
    }
};

QTEST_GUILESS_MAIN(TasksQueueTest)
#include "tst_tasksqueue.moc"
