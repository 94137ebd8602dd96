#include "support/EventLog.h"
#include "support/Gate.h"
#include "support/LogCapture.h"
#include "support/Waiting.h"

#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QElapsedTimer>
#include <QPointer>
#include <QTest>
#include <QThread>

#include <atomic>
#include <limits>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace Qt::StringLiterals;
using namespace zel;

static_assert(TasksQueue::Idle == 0 && TasksQueue::Working == 1 && TasksQueue::Paused == 2);
static_assert(TasksQueue::Append == 0 && TasksQueue::Prepend == 1);
static_assert(TasksQueue::Remove == 0 && TasksQueue::Finish == 1 && TasksQueue::Cancel == 2);
static_assert(TasksQueue::DeleteFinished == 0 && TasksQueue::KeepFinished == 1);
static_assert(TasksQueue::ContinueOnError == 0 && TasksQueue::ClearOnError == 1);
static_assert(std::is_same_v<std::underlying_type_t<TasksQueue::ClearPolicy>, int>);

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
    Task *quickTask(
        const QString &name, int priority = 1, std::function<void()> work = [] {})
    {
        return add(name, priority, new Task([work] {
                       work();
                       return Error();
                   }));
    }
    Task *quickTask(const QString &name, std::function<void()> work) { return quickTask(name, 1, std::move(work)); }

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

using Action = std::function<void(TasksQueue &, TasksQueue &, Task *)>;

} // namespace

class TasksQueueTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { failOnQtWarnings(); }

    // --- Order -----------------------------------------------------------------------------------------------------

    void smallerPriorityNumbersGoFirst()
    {
        Bench bench;
        bench.queue->pause();
        const auto quick = [&](const QString &name, int priority) { return bench.quickTask(name, priority); };
        bench.queue->append(QList<Task *>{quick(u"t1"_s, 5), quick(u"t2"_s, 5), quick(u"t3"_s, 5)});
        bench.queue->prepend(quick(u"t4"_s, 5));
        *bench.queue << quick(u"t5"_s, 0);
        Task *late = quick(u"t6"_s, 9);
        Task *demoted = quick(u"t7"_s, 0);
        bench.queue->append({late, demoted, quick(u"t8"_s, 0), quick(u"t9"_s, 10)});
        demoted->setPriority(5);
        late->setPriority(0);
        drainEvents();
        bench.queue->setMaxPriority(3); // those that are in stay in
        QCOMPARE(bench.queue->count(), 9);
        QCOMPARE(bench.log.take(), QString());

        bench.queue->resume();
        drainEvents();
        QCOMPARE(bench.log.take(),
                 u"t5:started t8:started t6:started t4:started t1:started t2:started t3:started t7:started "
                 "t9:started"_s);
        QCOMPARE(bench.queue->state(), TasksQueue::Idle);
    }

    void ordinaryLifeInTheLog()
    {
        Bench bench;
        Task *a = bench.task(u"a"_s);
        Task *b = bench.task(u"b"_s);
        Task *c = bench.task(u"c"_s);
        c->setCountAsRunning(false);
        LogCapture log;
        bench.queue->append({a, b});
        a->finish();
        drainEvents();
        QCOMPARE(log.takeInfos(), uR"(
Task "a" appended, queue.count= 1
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
        QCOMPARE(log.takeInfos(), uR"(
Task "c" appended, queue.count= 1
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

        bench.queue->append(
            {bench.task(u"b"_s, 0), bench.task(u"c"_s, 10), bench.task(u"d"_s, 11), bench.task(u"e"_s, -1)});
        bench.queue->setMaxPriority(3);
        Task *refused = bench.task(u"f"_s, 4);
        bench.queue->prepend(refused);
        QCOMPARE(log.takeWarnings(),
                 QStringList({u"Invalid priority 11 of task \"d\""_s, u"Invalid priority -1 of task \"e\""_s,
                              u"Invalid priority 4 of task \"f\""_s}));
        QCOMPARE(bench.queue->count(), 3);
        QCOMPARE(refused->queue(), bench.queue);

        // A priority that is changed to one that is refused takes the task out.
        a->setPriority(9);
        drainEvents();
        QCOMPARE(log.takeWarnings(), QStringList{u"Invalid priority 9 of task \"a\""_s});
        QCOMPARE(bench.queue->count(), 2);

        // Neither null nor a task that is not idle is worth a message.
        Task *running = bench.task(u"g"_s);
        running->setRunning();
        bench.queue->append(running);
        bench.queue->prepend(running);
        bench.queue->append(nullptr);
        bench.queue->append(QList<Task *>{nullptr, bench.task(u"h"_s), nullptr});
        bench.queue->prepend(nullptr);
        bench.queue->readdTask(nullptr);
        bench.queue->removeTask(nullptr);
        *bench.queue << nullptr;
        QCOMPARE(log.takeWarnings(), QStringList());
        QCOMPARE(bench.queue->count(), 3);
    }

    void sizeOfAPriorityCostsNothing()
    {
        Bench bench;
        bench.queue->setMaxPriority(std::numeric_limits<int>::max());
        bench.queue->pause();
        bench.queue->append({bench.quickTask(u"last"_s, std::numeric_limits<int>::max()),
                             bench.quickTask(u"third"_s, 2'000'000'000), bench.quickTask(u"second"_s, 1'000'000'000),
                             bench.quickTask(u"first"_s)});
        QCOMPARE(bench.queue->pendingTasksCount(), 4);
        bench.queue->resume();
        drainEvents();
        QCOMPARE(bench.log.take(), u"first:started second:started third:started last:started"_s);
    }

    // --- Limits and states -----------------------------------------------------------------------------------------

    void limitCountsTasksThatCount()
    {
        Bench bench(2);
        QList<Task *> tasks;
        for (const auto *name : {"a", "b", "c", "d", "e"})
            tasks.append(bench.task(QString::fromLatin1(name)));
        bench.queue->append(tasks);
        QCOMPARE(bench.log.take(), u"a:started b:started"_s);
        QCOMPARE(bench.queue->runningTasksCount(), 2);
        QCOMPARE(bench.queue->count(), 5);

        tasks[0]->setCountAsRunning(false);
        QCOMPARE(bench.queue->runningTasksCount(), 1);
        QCOMPARE(bench.queue->count(), 4);
        bench.queue->tryExec();
        QCOMPARE(bench.log.take(), u"c:started"_s);

        tasks[0]->setCountAsRunning(true); // three run now, one more than allowed
        tasks[1]->finish();
        drainEvents();
        QCOMPARE(bench.log.take(), QString());
        bench.queue->setMaxRunningTasksCount(3);
        QCOMPARE(bench.log.take(), QString());
        bench.queue->tryExec();
        QCOMPARE(bench.log.take(), u"d:started"_s);
    }

    void tasksThatDoNotCountAllStart()
    {
        Bench bench;
        QList<Task *> tasks;
        for (int number = 0; number < 10; ++number) {
            tasks.append(bench.task(QString::number(number)));
            tasks.last()->setCountAsRunning(false);
        }
        bench.queue->append(tasks);
        QCOMPARE(bench.log.events().size(), 10);
        QVERIFY(!bench.queue->hasRunningTasks());
        QCOMPARE(bench.queue->state(), TasksQueue::Idle);
        bench.log.keepOnly({u"q:stateChanged"_s});
        bench.log.take();
        tasks[0]->finish();
        drainEvents();
        QCOMPARE(bench.log.take(), QString());
    }

    void limitOfZeroStartsNothing()
    {
        Bench bench(0);
        bench.log.keepOnly({u"q:stateChanged"_s, u"started"_s});
        bench.queue->append(bench.task(u"a"_s));
        QCOMPARE(bench.log.take(), u"q:stateChanged(Working) q:stateChanged(Idle)"_s);
        QCOMPARE(bench.queue->pendingTasksCount(), 1);
    }

    void pausedQueueStartsNothing()
    {
        Bench bench;
        EventLog states;
        states.watch(bench.queue);
        bench.queue->resume();
        QCOMPARE(states.take(), u"stateChanged(Working) stateChanged(Idle)"_s);

        Task *a = bench.task(u"a"_s);
        Task *b = bench.task(u"b"_s);
        bench.queue->append({a, b});
        bench.queue->pause();
        bench.queue->pause();
        a->finish();
        drainEvents();
        QVERIFY(b->isIdle());
        QCOMPARE(bench.queue->count(), 1);
        bench.queue->removeTask(b);
        QCOMPARE(states.take(), u"stateChanged(Working) stateChanged(Paused)"_s);
        QCOMPARE(bench.queue->state(), TasksQueue::Paused);
    }

    void limitHoldsForWorkOnThreads()
    {
        Bench bench(3);
        std::atomic<int> running = 0;
        std::atomic<int> most = 0;
        QList<Task *> tasks;
        for (int number = 0; number < 60; ++number) {
            tasks.append(bench.quickTask(QString::number(number), [&] {
                const int now = ++running;
                for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) { }
                QThread::yieldCurrentThread();
                --running;
            }));
            tasks.last()->setExecutionMode(Task::WorkingThread);
            tasks.last()->setThreadWaitTime(-1);
        }
        bench.queue->append(tasks);
        QTRY_COMPARE_WITH_TIMEOUT(bench.queue->count(), 0, 30'000);
        for (const Task *task : tasks)
            QVERIFY(task->isSuccessful());
        QCOMPARE_LE(most.load(), 3);
        QCOMPARE(bench.queue->state(), TasksQueue::Idle);
    }

    void pausedTasksKeepTheirPlace()
    {
        Bench bench;
        bench.queue->pause();
        Task *a = bench.quickTask(u"a"_s);
        Task *b = bench.quickTask(u"b"_s);
        Task *c = bench.task(u"c"_s);
        Task *d = bench.quickTask(u"d"_s);
        Task *dropped = bench.quickTask(u"e"_s);
        bench.queue->append({a, b, c, d, dropped});
        a->pause();
        b->pause();
        dropped->pause();
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

    // --- Leaving the queue -----------------------------------------------------------------------------------------

    void removalStartsTheNextTaskOnly_data()
    {
        QTest::addColumn<bool>("destroys");
        QTest::newRow("removeTask()") << false;
        QTest::newRow("destruction") << true;
    }

    void removalStartsTheNextTaskOnly()
    {
        QFETCH(bool, destroys);
        Bench bench;
        Task *a = bench.task(u"a"_s);
        Task *b = bench.task(u"b"_s);
        Task *c = bench.task(u"c"_s);
        const auto leave = [&](Task *task) { destroys ? delete task : bench.queue->removeTask(task); };
        bench.queue->append({a, b, c});
        bench.queue->setMaxRunningTasksCount(2); // leaves a free slot
        bench.log.take();
        leave(b);
        drainEvents();
        QCOMPARE(bench.log.take(), u"c:started"_s);
        leave(a);
        leave(c);
        drainEvents();
        QCOMPARE(bench.queue->count(), 0);
        QCOMPARE(bench.queue->state(), TasksQueue::Idle);
        QCOMPARE(bench.log.take(), QString());
    }

    void removedTaskForgetsTheQueueUnlessPending()
    {
        Bench bench;
        Task *running = bench.task(u"running"_s);
        Task *pending = bench.task(u"pending"_s);
        bench.queue->append({running, pending});
        bench.queue->removeTask(pending);
        bench.queue->removeTask(running);
        QCOMPARE(pending->queue(), bench.queue);
        QCOMPARE(running->queue(), nullptr);
        QVERIFY(running->isRunning());
        pending->setPriority(2);
        drainEvents();
        QCOMPARE(bench.queue->count(), 0);
    }

    void taskStartedElsewhereLeavesWhenItFinishes()
    {
        Bench bench;
        bench.queue->setCleanupMode(TasksQueue::DeleteFinished);
        bench.queue->pause();
        const QPointer<Task> task = bench.task(u"a"_s);
        bench.queue->append(task);
        task->exec();
        bench.queue->resume();
        QCOMPARE(bench.queue->pendingTasksCount(), 1);
        QCOMPARE(bench.queue->runningTasksCount(), 0);
        task->finish();
        QCOMPARE(task->queue(), bench.queue);
        drainEvents();
        QVERIFY(!task);
        QCOMPARE(bench.queue->count(), 0);
    }

    void taskIsInOneQueueAtMost()
    {
        Bench bench;
        Bench other;
        bench.queue->pause();
        Task *a = bench.task(u"a"_s);
        bench.queue->append(a);
        other.queue->append(a);
        QCOMPARE(bench.queue->count(), 0);
        QCOMPARE(a->queue(), other.queue);
        QCOMPARE(bench.log.take(), u"a:started"_s);

        // The first queue has nothing to do with it any more.
        bench.queue->setCleanupMode(TasksQueue::DeleteFinished);
        bench.queue->setTaskErrorPolicy(TasksQueue::ClearOnError);
        bench.queue->append(bench.task(u"b"_s));
        a->setPriority(3);
        a->finish(Error(GeneralError));
        const QPointer<Task> guard = a;
        drainEvents();
        QVERIFY(guard);
        QCOMPARE(bench.queue->count(), 1);
        QCOMPARE(other.queue->count(), 0);
    }

    void clearAppliesThePolicy_data()
    {
        QTest::addColumn<int>("policy");
        QTest::addColumn<QString>("events");
        QTest::addColumn<int>("code");
        const QString ended = u"p0:finished p1:finished p2:finished q:stateChanged(Idle) r:finished"_s;
        QTest::newRow("remove") << int(TasksQueue::Remove) << u"q:stateChanged(Idle)"_s << int(NoError);
        QTest::newRow("finish") << int(TasksQueue::Finish) << ended << int(Timeout);
        QTest::newRow("cancel") << int(TasksQueue::Cancel) << ended << int(Canceled);
        QTest::newRow("no such policy") << 7 << u"q:stateChanged(Idle)"_s << int(NoError);
    }

    void clearAppliesThePolicy()
    {
        QFETCH(int, policy);
        QFETCH(QString, events);
        QFETCH(int, code);
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

        bench.queue->clear(TasksQueue::ClearPolicy(policy), Error(Timeout));
        QCOMPARE(bench.queue->count(), 0);
        drainEvents();
        QCOMPARE(bench.log.take(), events);
        for (const auto &task : std::as_const(tasks)) {
            QVERIFY(task);
            QCOMPARE(task->queue(), bench.queue);
        }
        QVERIFY(tasks.takeLast()->isSuccessful());
        for (Task *task : std::as_const(tasks))
            QCOMPARE(int(task->error().code()), code);

        // What the tasks do from now on is not the queue's business.
        tasks[1]->setPriority(2);
        tasks[0]->finish();
        drainEvents();
        QVERIFY(tasks[0]);
        QCOMPARE(bench.queue->count(), 0);
    }

    void clearLeavesAnEmptyOrPausedQueueAsItIs()
    {
        Bench bench;
        LogCapture log;
        bench.log.keepOnly({u"q:stateChanged"_s});
        bench.queue->clear();
        QCOMPARE(log.take(), QStringList());
        bench.queue->append({bench.task(u"a"_s), bench.task(u"b"_s)});
        bench.queue->pause();
        bench.queue->clear(TasksQueue::Cancel);
        QCOMPARE(bench.log.take(), u"q:stateChanged(Working) q:stateChanged(Paused)"_s);
    }

    void tasksAddedByReactionsToClear()
    {
        Bench bench;
        Task *early = bench.task(u"early"_s);
        Task *late = bench.task(u"late"_s);
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

    void destroyedQueueLetsGo()
    {
        Bench bench;
        Task *running = bench.task(u"running"_s);
        Task *pending = bench.task(u"pending"_s);
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

    // --- Finished tasks --------------------------------------------------------------------------------------------

    void finishedTaskIsHandledByPolicyAndMode_data()
    {
        QTest::addColumn<int>("errorPolicy");
        QTest::addColumn<int>("cleanupMode");
        QTest::addColumn<bool>("triggersNext");
        QTest::addColumn<bool>("fails");
        for (int bits = 0; bits < 16; ++bits) {
            QTest::addRow("%s, %s, %s, %s", bits & 1 ? "clear on error" : "continue", bits & 2 ? "keep" : "delete",
                          bits & 4 ? "triggers next" : "does not trigger", bits & 8 ? "fails" : "succeeds")
                << (bits & 1) << (bits >> 1 & 1) << bool(bits & 4) << bool(bits & 8);
        }
    }

    void finishedTaskIsHandledByPolicyAndMode()
    {
        QFETCH(int, errorPolicy);
        QFETCH(int, cleanupMode);
        QFETCH(bool, triggersNext);
        QFETCH(bool, fails);
        Bench bench;
        bench.queue->setTaskErrorPolicy(TasksQueue::TaskErrorPolicy(errorPolicy));
        bench.queue->setCleanupMode(TasksQueue::CleanupMode(cleanupMode));
        const QPointer<Task> a = bench.task(u"a"_s);
        a->setTriggersNext(triggersNext);
        Task *b = bench.task(u"b"_s);
        bench.queue->append({a, b, bench.task(u"c"_s)});
        LogCapture log;
        a->finish(fails ? Error(GeneralError) : Error());
        QVERIFY(b->isIdle());
        drainEvents();

        const bool clears = errorPolicy == TasksQueue::ClearOnError && fails;
        QCOMPARE(b->isRunning(), !clears);
        QCOMPARE(bench.queue->count(), clears ? 0 : 2);
        QCOMPARE(bench.queue->state(), clears ? TasksQueue::Idle : TasksQueue::Working);
        QCOMPARE(a.isNull(), !clears && cleanupMode == TasksQueue::DeleteFinished);
        if (!clears) // the task's leaving dispatches, and once more what it triggers
            QCOMPARE(log.take().filter(u"info Running tasks: "_s).size(), triggersNext ? 2 : 1);
    }

    void lateNotificationTouchesNothing_data()
    {
        QTest::addColumn<Action>("action"); // between finished() and its notification
        QTest::addColumn<BaseTask::State>("state");
        QTest::addColumn<int>("counts"); // of the queue, and ten times that of the other one
        const auto row = [](const char *name, BaseTask::State state, int counts, const Action &action) {
            QTest::newRow(name) << action << state << counts;
        };
        row("cleared", BaseTask::Finished, 0, [](auto &queue, auto &, Task *) { queue.clear(); });
        row("removed", BaseTask::Finished, 0, [](auto &queue, auto &, Task *task) { queue.removeTask(task); });
        row("destroyed", BaseTask::Finished, 0, [](auto &, auto &, Task *task) { delete task; });
        row("restarted", BaseTask::Running, 1, [](auto &, auto &, Task *task) { task->exec(); });
        row("appended again", BaseTask::Running, 1, [](auto &queue, auto &, Task *task) {
            task->setIdle();
            queue.append(task);
        });
        row("removed and appended again", BaseTask::Running, 1, [](auto &queue, auto &, Task *task) {
            queue.removeTask(task);
            task->setIdle();
            queue.append(task);
        });
        row("appended again to the paused queue", BaseTask::Idle, 1, [](auto &queue, auto &, Task *task) {
            queue.pause();
            task->setIdle();
            queue.append(task);
        });
        row("taken by another queue", BaseTask::Running, 10, [](auto &, auto &other, Task *task) {
            task->setIdle();
            other.append(task);
        });
    }

    void lateNotificationTouchesNothing()
    {
        QFETCH(Action, action);
        QFETCH(BaseTask::State, state);
        QFETCH(int, counts);
        const bool isDestroyed = qstrcmp(QTest::currentDataTag(), "destroyed") == 0;
        Bench bench;
        TasksQueue other;
        bench.queue->setCleanupMode(TasksQueue::DeleteFinished);
        other.setCleanupMode(TasksQueue::DeleteFinished);
        const QPointer<Task> task = bench.task(u"a"_s);
        bench.queue->append(task);
        LogCapture log;
        task->finish();
        action(*bench.queue, other, task);
        drainEvents();
        QCOMPARE(task.isNull(), isDestroyed);
        QCOMPARE(log.take().contains(u"debug Null task finished!"_s), isDestroyed);
        QCOMPARE(bench.queue->count() + 10 * other.count(), counts);
        if (isDestroyed)
            return;
        QCOMPARE(task->state(), state);

        // The next end is noticed where the task is now, and only there.
        bench.queue->resume();
        task->finish();
        drainEvents();
        QCOMPARE(task.isNull(), counts > 0);
        QCOMPARE(bench.queue->count() + other.count(), 0);
        QCOMPARE(bench.queue->state(), TasksQueue::Idle);
    }

    void throwingTaskFreesItsSlot_data()
    {
        QTest::addColumn<Qt::ConnectionType>("type");
        QTest::addColumn<bool>("finishesFirst");
        QTest::addColumn<bool>("onAnotherThread");
        for (int bits = 0; bits < 8; ++bits) {
            QTest::addRow("%s, %s, %s", bits & 1 ? "direct" : "queued", bits & 2 ? "finishes and throws" : "throws",
                          bits & 4 ? "other thread" : "own thread")
                << (bits & 1 ? Qt::DirectConnection : Qt::QueuedConnection) << bool(bits & 2) << bool(bits & 4);
        }
    }

    void throwingTaskFreesItsSlot()
    {
        QFETCH(Qt::ConnectionType, type);
        QFETCH(bool, finishesFirst);
        QFETCH(bool, onAnotherThread);
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
        QVERIFY(good->isSuccessful());
        QCOMPARE(bench.queue->count(), 0);
        QCOMPARE(bench.queue->state(), TasksQueue::Idle);
    }

    // --- Nesting ---------------------------------------------------------------------------------------------------

    void synchronousTasksDrainWithAFlatStack_data()
    {
        QTest::addColumn<int>("limit");
        QTest::addColumn<bool>("appendedSingly");
        QTest::newRow("one at a time") << 1 << false;
        QTest::newRow("four at a time") << 4 << false;
        QTest::newRow("appended singly") << 1 << true;
    }

    void synchronousTasksDrainWithAFlatStack()
    {
        QFETCH(int, limit);
        QFETCH(bool, appendedSingly);
        constexpr int count = 100'000;
        int ran = 0;
        int left = -1;
        const std::unique_ptr<QThread> thread(QThread::create([&] {
            QObject owner;
            TasksQueue queue;
            queue.setConnectionType(Qt::DirectConnection);
            queue.setMaxRunningTasksCount(limit);
            QList<Task *> tasks;
            for (int number = 0; number < count; ++number) {
                tasks.append(new Task(
                    [&ran] {
                        ++ran;
                        return Error();
                    },
                    Task::Synchronous, &owner));
            }
            if (appendedSingly) {
                for (Task *task : std::as_const(tasks))
                    queue.append(task);
            } else {
                queue.append(tasks);
            }
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

    void appendByRunningWorkStartsAtOnce_data()
    {
        QTest::addColumn<Qt::ConnectionType>("type");
        QTest::addColumn<int>("limit");
        QTest::addColumn<QString>("order");
        QTest::newRow("direct, room") << Qt::DirectConnection << 2 << u"outer inner end"_s;
        QTest::newRow("queued, room") << Qt::QueuedConnection << 2 << u"outer inner end"_s;
        QTest::newRow("direct, no room") << Qt::DirectConnection << 1 << u"outer end inner"_s;
        QTest::newRow("queued, no room") << Qt::QueuedConnection << 1 << u"outer end inner"_s;
    }

    void appendByRunningWorkStartsAtOnce()
    {
        QFETCH(Qt::ConnectionType, type);
        QFETCH(int, limit);
        QFETCH(QString, order);
        Bench bench(limit, type);
        EventLog log;
        Task *inner = bench.quickTask(u"inner"_s, [&] { log.add(u"inner"_s); });
        bench.queue->append(bench.quickTask(u"outer"_s, [&] {
            log.add(u"outer"_s);
            bench.queue->append(inner);
            log.add(u"end"_s);
        }));
        drainEvents();
        QCOMPARE(log.take(), order);
        QCOMPARE(bench.queue->state(), TasksQueue::Idle);
    }

    // --- Handlers that delete --------------------------------------------------------------------------------------

    void handlersMayDelete_data()
    {
        QTest::addColumn<bool>("deletesQueue"); // or else all tasks
        QTest::addColumn<Qt::ConnectionType>("type");
        QTest::addColumn<int>("policy");
        for (const auto type : {Qt::DirectConnection, Qt::QueuedConnection}) {
            for (const int policy : {TasksQueue::Remove, TasksQueue::Finish, TasksQueue::Cancel}) {
                for (const bool deletesQueue : {true, false}) {
                    QTest::addRow("%s, connection %d, policy %d", deletesQueue ? "queue" : "tasks", type, policy)
                        << deletesQueue << type << policy;
                }
            }
        }
    }

    // At the first, the second, … event of all that happens here, in a new queue each time.
    void handlersMayDelete()
    {
        QFETCH(bool, deletesQueue);
        QFETCH(Qt::ConnectionType, type);
        QFETCH(int, policy);
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
                bench.queue->clear(TasksQueue::ClearPolicy(policy), Error(Timeout));
            drainEvents();
            const QStringList rest = bench.log.events().mid(index + 1);
            for (const QString &name : std::as_const(idleNames))
                QVERIFY2(!rest.contains(name + u":started"_s), qPrintable(bench.log.take()));
            QVERIFY(!bench.queue || bench.queue->count() == 0);
        }
    }

    // --- Threads ---------------------------------------------------------------------------------------------------

    void lockIsNotHeldWhileATaskWorks()
    {
        Bench bench;
        Gate gate;
        Task *busy = bench.quickTask(u"busy"_s, [&] { gate.arriveAndWait(); });
        Task *next = bench.quickTask(u"next"_s);
        std::thread dispatcher([&] { bench.queue->append(busy); });
        QVERIFY(gate.waitForArrival());
        QCOMPARE(bench.queue->count(), 1);
        bench.queue->append(next);
        QCOMPARE(bench.queue->pendingTasksCount(), 1);
        bench.queue->removeTask(next);
        bench.queue->append(next);
        QCOMPARE(bench.queue->state(), TasksQueue::Working);
        gate.open();
        dispatcher.join();
        drainEvents();
        QVERIFY(next->isSuccessful());
        QCOMPARE(bench.queue->state(), TasksQueue::Idle);
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

    void tasksAppendedFromManyThreadsAllRunOnce_data()
    {
        QTest::addColumn<Qt::ConnectionType>("type");
        QTest::newRow("queued") << Qt::QueuedConnection;
        QTest::newRow("direct") << Qt::DirectConnection;
    }

    void tasksAppendedFromManyThreadsAllRunOnce()
    {
        QFETCH(Qt::ConnectionType, type);
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
                --running;
            }));
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
        QTRY_COMPARE_WITH_TIMEOUT(bench.queue->count(), 0, 30'000);
        QCOMPARE(runs.load(), 4 * count);
        QVERIFY(isLimitKept);
        drainEvents();
        QCOMPARE(bench.queue->state(), TasksQueue::Idle);
    }
};

QTEST_GUILESS_MAIN(TasksQueueTest)
#include "tst_tasksqueue.moc"
