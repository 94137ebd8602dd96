#include "support/EventLog.h"
#include "support/LogCapture.h"
#include "support/Waiting.h"

#include <zel/tasks/ComplexTask.h>
#include <zel/tasks/CustomComplexTask.h>
#include <zel/tasks/TasksQueue.h>

#include <QPointer>
#include <QTest>
#include <QThread>

#include <array>
#include <atomic>
#include <memory>

using namespace Qt::StringLiterals;
using namespace zel;

namespace {

const Error canceledError(Canceled, u"Canceled"_s);

/// Opens what a complex task keeps for those that derive from it.
template <typename Base>
class Open : public Base {
public:
    using Base::appendSubtask;
    using Base::Base;
    using Base::execSubtask;
    using Base::execSubtasks;
    using Base::groupTask;
    using Base::setGroupTask;
};

using Job = Open<ComplexTask>;

/// Starts its subtasks with a function of the test.
class Batch : public Open<CustomComplexTask> {
public:
    explicit Batch(const QString &name, QObject *parent = nullptr) : Open(name, parent) { }
    explicit Batch(std::function<Error()> starter, QObject *parent = nullptr) : Open(parent), start(std::move(starter))
    {
    }
    using CustomComplexTask::setSubtaskPriority;

    std::function<Error()> start;

protected:
    Error doExecSubtasks() override
    {
        // The batch may be deleted meanwhile.
        const auto starter = start;
        return starter ? starter() : Error();
    }
};

/// Named tasks and a log of when they start and end.
class Bench {
public:
    Bench() { log.keepOnly({u"started"_s, u"finished"_s}); }

    /// Runs until the test ends it.
    Task *task(const QString &name) { return add(new Task(Task::Asynchronous, &owner), name); }
    /// Ends inside exec().
    Task *quick(const QString &name, const Error &error = Error())
    {
        return add(new Task([error] { return error; }, Task::Synchronous, &owner), name);
    }
    Batch *batch(const QString &name) { return add(new Batch(name, &owner), name); }
    Job *job(const QString &name)
    {
        auto *job = add(new Job(name, &owner), name);
        job->setExecutionMode(Task::Asynchronous);
        return job;
    }
    template <typename TaskClass>
    TaskClass *add(TaskClass *task, const QString &name)
    {
        task->setName(name);
        task->setObjectName(name);
        log.watch(task, name);
        return task;
    }

    QObject owner;
    EventLog log;
};

using Operation = std::function<void(Bench &bench, QPointer<Batch> batch)>;

} // namespace

class ComplexTaskTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { failOnQtWarnings(); }

    void groupBelongsToItsTask()
    {
        Job job(u"job"_s);
        QCOMPARE(job.groupTask()->name(), u"job:GroupTask"_s);
        QCOMPARE(job.groupTask()->parent(), &job);
        QCOMPARE(job.groupTask()->cancelSubtasksMode(), GroupTask::CancelSubtasks);
        QVERIFY(!job.countAsRunning());
        static_cast<BaseTask &>(job).setName(u"x"_s);
        QCOMPARE(job.groupTask()->name(), u"x:GroupTask"_s);
        QCOMPARE(Job().groupTask()->name(), u":GroupTask"_s);
        job.exec();
        QCOMPARE(job.groupTask()->waitMode(), GroupTask::NoWait);
        Batch batch(u"batch"_s);
        batch.groupTask()->setWaitMode(GroupTask::NoWait);
        batch.exec();
        QCOMPARE(batch.groupTask()->waitMode(), GroupTask::WaitAll);
    }

    // --- Ends ------------------------------------------------------------------------------------------------------

    void jobEndsWithItsWork()
    {
        Bench bench;
        Job *job = bench.job(u"job"_s);
        Task *a = bench.task(u"a"_s);
        job->setFunction(
            [&] {
                job->execSubtask(a);
                return Error();
            },
            Task::Synchronous);
        job->exec();
        QVERIFY(job->isSuccessful());
        a->finish(Error(UserError));
        drainEvents();
        QVERIFY(job->isSuccessful());
        QCOMPARE(job->groupTask()->error(), Error(UserError));
    }

    void failingSubtaskEndsTheTaskInALaterTurn()
    {
        Bench bench;
        Job *job = bench.job(u"job"_s);
        bench.log.watch(job->groupTask(), u"g"_s);
        Task *a = bench.task(u"a"_s);
        const QPointer<Task> b = bench.task(u"b"_s);
        job->exec();
        job->execSubtasks({a, b});
        bool isLater = false;
        connect(job->groupTask(), &BaseTask::finished, this, [&] { isLater = job->isRunning(); });
        a->finish(Error(UserError));
        drainEvents();
        QCOMPARE(bench.log.take(),
                 u"job:started a:started b:started a:finished g:started g:finished b:finished job:finished"_s);
        QVERIFY(isLater);
        QCOMPARE(job->error(), Error(UserError));
        QVERIFY(!b);
    }

    void cancelEndsTheSubtasksFirst()
    {
        Bench bench;
        Batch *batch = bench.batch(u"batch"_s);
        batch->groupTask()->setCleanupPolicy(GroupTask::SelfDelete);
        bench.log.watch(batch->groupTask(), u"g"_s);
        Task *a = bench.task(u"a"_s);
        Task *b = bench.task(u"b"_s);
        batch->start = [&] {
            batch->execSubtask(a);
            batch->appendSubtask(b);
            return Error();
        };
        batch->exec();
        drainEvents();
        bench.log.take();
        batch->cancel();
        QCOMPARE(bench.log.take(), u"a:finished b:finished g:finished batch:finished"_s);
        for (const BaseTask *task : QList<BaseTask *>{a, b, batch, batch->groupTask()})
            QCOMPARE(task->error(), canceledError);
        drainEvents();
        QCOMPARE(bench.log.take(), QString());
    }

    void batchWaitsForAllSubtasks()
    {
        Bench bench;
        Batch *batch = bench.batch(u"batch"_s);
        Task *a = bench.task(u"a"_s);
        Task *b = bench.task(u"b"_s);
        batch->start = [&] {
            batch->execSubtask(a);
            batch->execSubtask(b);
            return Error();
        };
        batch->exec();
        a->finish();
        drainEvents();
        QVERIFY(batch->isRunning());
        b->finish();
        drainEvents();
        QVERIFY(batch->isSuccessful());

        // Collected errors come all together.
        batch->groupTask()->setChildFailurePolicy(GroupTask::ContinueOnFailure);
        batch->start = [&] {
            batch->execSubtasks({bench.quick(u"c"_s, Error(UserError, u"c"_s)), bench.quick(u"d"_s),
                                 bench.quick(u"e"_s, Error(UserError, u"e"_s))});
            return Error();
        };
        batch->exec();
        drainEvents();
        QCOMPARE(batch->error(), Error(UserError, u"c\ne"_s));
    }

    void batchThatCannotStartEndsAtOnce()
    {
        Bench bench;
        Batch *batch = bench.batch(u"batch"_s);
        Task *a = bench.task(u"a"_s);
        batch->start = [&] {
            batch->execSubtask(a);
            return Error(NotFound);
        };
        batch->exec();
        QCOMPARE(batch->error(), Error(NotFound));
        QVERIFY(a->isRunning());
    }

    void batchWithoutSubtasksSucceedsAtOnce()
    {
        Bench bench;
        Batch *batch = bench.batch(u"batch"_s);
        batch->exec();
        QVERIFY(batch->isSuccessful());
        // What was listed before is nothing that it starts; what it lists without starting it is.
        batch->appendSubtask(bench.task(u"a"_s));
        batch->exec();
        QVERIFY(batch->isSuccessful());
        batch->start = [&] {
            batch->appendSubtask(bench.task(u"b"_s));
            return Error();
        };
        batch->exec();
        QVERIFY(batch->isRunning());
        // A group of its own that it gets meanwhile.
        batch->start = [&] {
            batch->setGroupTask(new GroupTask);
            return Error();
        };
        batch->cancel();
        batch->exec();
        QVERIFY(batch->isSuccessful());
        QCOMPARE(bench.log.take().count(u"started"_s), 4);
    }

    // --- Starting --------------------------------------------------------------------------------------------------

    void withoutQueueSubtasksStartInOrder()
    {
        Bench bench;
        Job *job = bench.job(u"job"_s);
        Batch *inner = bench.batch(u"inner"_s);
        Task *c = bench.task(u"c"_s);
        inner->start = [&] {
            inner->execSubtask(c);
            return Error();
        };
        job->exec();
        job->execSubtasks({bench.task(u"a"_s), nullptr, inner, bench.quick(u"b"_s)});
        QCOMPARE(bench.log.take(), u"job:started a:started inner:started c:started b:started b:finished"_s);
    }

    void withQueuePlainSubtasksKeepItsLimit()
    {
        Bench bench;
        TasksQueue queue;
        queue.setMaxRunningTasksCount(1);
        Job *job = bench.job(u"job"_s);
        Batch *inner = bench.batch(u"inner"_s);
        Task *c = bench.task(u"c"_s);
        inner->start = [&] {
            inner->execSubtask(c);
            return Error();
        };
        Task *a = bench.task(u"a"_s);
        Task *urgent = bench.task(u"b"_s);
        urgent->setPriority(0);
        queue.append(job);
        job->execSubtasks({inner, a, urgent});
        // They come to the queue together: the urgent one is first. The complex one waits for nobody.
        QCOMPARE(bench.log.take(), u"job:started b:started inner:started"_s);
        QCOMPARE(inner->queue(), &queue);
        QCOMPARE(queue.count(), 3);
        urgent->finish();
        drainEvents();
        QCOMPARE(bench.log.take(), u"b:finished a:started"_s);
        a->finish();
        drainEvents();
        c->finish();
        drainEvents();
        QCOMPARE(bench.log.take(), u"a:finished c:started c:finished inner:finished"_s);
    }

    void subtaskThatTheQueueRefusesFails()
    {
        Bench bench;
        TasksQueue queue;
        Batch *batch = bench.batch(u"batch"_s);
        batch->groupTask()->setChildFailurePolicy(GroupTask::ContinueOnFailure);
        const QPointer<Task> refused = bench.quick(u"a"_s);
        refused->setPriority(11);
        batch->start = [&] {
            batch->execSubtasks({refused, bench.quick(u"b"_s)});
            return Error();
        };
        queue.append(batch);
        QCOMPARE(refused->error(), Error(GeneralError, u"The queue did not take the task."_s));
        drainEvents();
        QVERIFY(!refused);
        QCOMPARE(bench.log.take(), u"batch:started b:started b:finished a:finished batch:finished"_s);
        QVERIFY(batch->error().equals(GeneralError));
    }

    void whatIsNotAdmittedIsNotStarted()
    {
        Bench bench;
        Job *job = bench.job(u"job"_s);
        job->groupTask()->setConnectionType(Qt::DirectConnection);
        job->exec();
        // The end of the first one stops the others before their turn.
        job->execSubtasks({bench.quick(u"a"_s, Error(UserError)), bench.quick(u"b"_s)});
        QCOMPARE(bench.log.take(), u"job:started a:started a:finished b:finished"_s);
        // The group has ended; the task has not heard of it.
        job->execSubtask(bench.quick(u"c"_s));
        drainEvents();
        QCOMPARE(bench.log.take(), u"c:finished job:finished"_s);
        Task *d = bench.quick(u"d"_s);
        job->execSubtask(d);
        job->appendSubtask(nullptr);
        job->execSubtask(nullptr, [] {});
        QVERIFY(d->isIdle());
        QVERIFY(job->groupTask()->isEmpty());
    }

    void callbacksTellHowASubtaskEnded()
    {
        Bench bench;
        Job *job = bench.job(u"job"_s);
        job->groupTask()->setChildFailurePolicy(GroupTask::ContinueOnFailure);
        const auto note = [&](const QString &event) { return [&bench, event] { bench.log.add(event); }; };
        bench.log.keepOnly({u"success"_s, u"failure"_s});
        job->exec();
        job->execSubtask(bench.quick(u"a"_s), note(u"success(a)"_s), note(u"failure(a)"_s));
        job->execSubtask(bench.quick(u"b"_s, Error(UserError)), note(u"success(b)"_s), note(u"failure(b)"_s));
        job->execSubtask(bench.quick(u"c"_s, Error(UserError)), note(u"success(c)"_s));
        Task *listed = bench.task(u"d"_s);
        job->appendSubtask(listed, nullptr, note(u"failure(d)"_s));
        QVERIFY(listed->isIdle());
        // Twice the callbacks, one entry in the list.
        job->appendSubtask(listed, note(u"success(d)"_s), note(u"failure(d)"_s));
        listed->cancel();
        QCOMPARE(bench.log.take(), u"success(a) failure(b) failure(d) failure(d)"_s);

        QThread thread;
        QObject context;
        context.moveToThread(&thread);
        thread.start();
        auto *distant = new Task(Task::Asynchronous);
        distant->moveToThread(&thread);
        QThread *where = nullptr;
        job->appendSubtask(distant, [&] { where = QThread::currentThread(); });
        // Gone by the time of the callback.
        QMetaObject::invokeMethod(
            &context,
            [distant] {
                distant->finish();
                delete distant;
            },
            Qt::BlockingQueuedConnection);
        drainEvents();
        QCOMPARE(where, QThread::currentThread());
        thread.quit();
        thread.wait();
    }

    void subtaskFollowsThePriority()
    {
        Bench bench;
        Batch *batch = bench.batch(u"batch"_s);
        const QPointer<Task> a = bench.task(u"a"_s);
        batch->setPriority(3);
        batch->setSubtaskPriority(a);
        batch->setSubtaskPriority(nullptr);
        QCOMPARE(a->priority(), 3);
        batch->setPriority(7);
        QCOMPARE(a->priority(), 7);
        delete a;
        batch->setPriority(8);
    }

    // --- Runs ------------------------------------------------------------------------------------------------------

    void canceledRunDoesNotEndTheNextOne()
    {
        Bench bench;
        Batch *batch = bench.batch(u"batch"_s);
        QPointer<Task> subtask;
        batch->start = [&] {
            batch->execSubtasks({subtask = bench.task(u"a"_s), bench.task(u"b"_s)});
            return Error();
        };
        batch->exec();
        drainEvents();
        batch->cancel();
        // The ends of two subtasks and of the group are on their way.
        batch->start = [&] {
            batch->execSubtask(subtask = bench.task(u"c"_s));
            return Error();
        };
        batch->exec();
        QVERIFY(!batch->isCanceled() && !batch->groupTask()->isCanceled());
        drainEvents();
        QVERIFY(batch->isRunning() && subtask->isRunning() && batch->groupTask()->isRunning());
        subtask->finish();
        drainEvents();
        QVERIFY(batch->isSuccessful());
        QCOMPARE(batch->groupTask()->error(), Error());
    }

    // The subtasks are used again, and in the second run the first of them ends before the others have started.
    void everyRunWaitsForItsSubtasks_data()
    {
        QTest::addColumn<bool>("isQueued");
        QTest::addColumn<GroupTask::CleanupPolicy>("cleanup");
        QTest::newRow("direct, kept") << false << GroupTask::SelfDelete;
        QTest::newRow("direct, new ones") << false << GroupTask::DeleteWhenFinished;
        QTest::newRow("queue, kept") << true << GroupTask::SelfDelete;
        QTest::newRow("queue, new ones") << true << GroupTask::DeleteWithGroup;
    }

    void everyRunWaitsForItsSubtasks()
    {
        QFETCH(bool, isQueued);
        QFETCH(GroupTask::CleanupPolicy, cleanup);
        Bench bench;
        TasksQueue queue;
        queue.setMaxRunningTasksCount(1);
        Batch *batch = bench.batch(u"batch"_s);
        batch->groupTask()->setCleanupPolicy(cleanup);
        batch->groupTask()->setChildFailurePolicy(GroupTask::ContinueOnFailure);
        int run = 0;
        const auto makeSubtasks = [&] {
            QList<Task *> subtasks{bench.quick(u"a"_s), bench.quick(u"b"_s), bench.quick(u"c"_s)};
            subtasks[2]->setFunction([&run] { return Error(ErrorCode(UserError + run)); });
            return subtasks;
        };
        QList<Task *> kept = makeSubtasks();
        batch->start = [&] {
            if (run > 1 && cleanup != GroupTask::SelfDelete)
                kept = makeSubtasks();
            for (Task *task : std::as_const(kept))
                task->setIdle(); // as the queue wants it
            batch->execSubtasks(kept);
            return Error();
        };
        while (++run < 4) {
            bench.log.take();
            if (isQueued) {
                batch->setIdle();
                queue.append(batch);
            } else {
                batch->exec();
            }
            drainEvents();
            QCOMPARE(bench.log.take(),
                     u"batch:started a:started a:finished b:started b:finished c:started c:finished batch:finished"_s);
            QCOMPARE(batch->error(), Error(ErrorCode(UserError + run)));
        }
    }

    void queueThatTakesNothingDoesNotHoldTheNextRun()
    {
        Bench bench;
        TasksQueue queue;
        Batch *batch = bench.batch(u"batch"_s);
        batch->groupTask()->setCleanupPolicy(GroupTask::SelfDelete);
        Task *a = bench.quick(u"a"_s);
        batch->start = [&] {
            batch->execSubtask(a);
            return Error();
        };
        queue.append(batch);
        drainEvents();
        QVERIFY(batch->isSuccessful());
        batch->exec(); // the queue leaves finished tasks alone
        drainEvents();
        QVERIFY(batch->isSuccessful());
    }

    void endOfAnotherGroupIsIgnored()
    {
        Bench bench;
        Job *job = bench.job(u"job"_s);
        job->exec();
        const QPointer<GroupTask> first = job->groupTask();
        first->setCleanupPolicy(GroupTask::DeleteWithGroup);
        const QPointer<Task> a = bench.task(u"a"_s);
        job->appendSubtask(a);
        job->setGroupTask(first); // nothing new
        QVERIFY(first);
        first->finish(Error(UserError));

        auto *second = new GroupTask;
        second->setName(u"second"_s);
        job->setGroupTask(second);
        QVERIFY(!first);
        drainEvents();
        QVERIFY(!a);
        QVERIFY(job->isRunning());
        QCOMPARE(second->cancelSubtasksMode(), GroupTask::CancelSubtasks);
        QCOMPARE(second->name(), u"second"_s);

        // Of an earlier run.
        second->finish(Error(UserError));
        job->finish();
        job->exec();
        drainEvents();
        QVERIFY(job->isRunning());
        second->finish(Error(ReadError));
        drainEvents();
        QCOMPARE(job->error(), Error(ReadError));
    }

    // --- Together --------------------------------------------------------------------------------------------------

    void nestedBatchesEndFromTheInside_data()
    {
        QTest::addColumn<bool>("isQueued");
        QTest::addColumn<bool>("isCanceled");
        for (const bool isQueued : {false, true}) {
            for (const bool isCanceled : {false, true})
                QTest::addRow("%s, %s", isQueued ? "queue" : "no queue", isCanceled ? "canceled" : "done")
                    << isQueued << isCanceled;
        }
    }

    void nestedBatchesEndFromTheInside()
    {
        QFETCH(bool, isQueued);
        QFETCH(bool, isCanceled);
        Bench bench;
        TasksQueue queue;
        queue.setMaxRunningTasksCount(1);
        QList<Batch *> batches;
        for (int level = 0; level < 5; ++level) {
            batches.append(bench.batch(u"batch%1"_s.arg(level)));
            if (level > 0) {
                batches[level - 1]->start = [&bench, batches, level] {
                    batches[level - 1]->execSubtasks({batches[level], bench.quick(u"task%1"_s.arg(level))});
                    return Error();
                };
            }
        }
        QPointer<Task> last = bench.task(u"last"_s);
        batches.last()->start = [&] {
            batches.last()->execSubtask(last);
            return Error();
        };
        bench.log.keepOnly({u"finished"_s});
        const QPointer<Batch> outermost = batches.first();
        outermost->groupTask()->setCleanupPolicy(GroupTask::SelfDelete);
        if (isQueued)
            queue.append(outermost);
        else
            outermost->exec();
        drainEvents();
        QVERIFY(outermost->isRunning() && last->isRunning());
        bench.log.take();
        if (isCanceled)
            outermost->cancel();
        else
            last->finish();
        drainEvents();
        QCOMPARE(bench.log.take(),
                 u"last:finished batch4:finished batch3:finished batch2:finished batch1:finished batch0:finished"_s);
        QCOMPARE(outermost->error(), isCanceled ? canceledError : Error());
        QCOMPARE(queue.count(), 0);
        QVERIFY(!last);
    }

    void anythingMayBeDeletedInHandlers_data()
    {
        const std::pair<const char *, Operation> operations[] = {
            {"exec", [](Bench &, QPointer<Batch> batch) { batch->exec(); }},
            {"cancel",
             [](Bench &, QPointer<Batch> batch) {
                 batch->exec();
                 if (batch)
                     batch->cancel();
             }},
            {"failure",
             [](Bench &bench, QPointer<Batch> batch) {
                 batch->exec();
                 if (const auto a = bench.owner.findChild<Task *>(u"a"_s))
                     a->finish(Error(UserError));
             }},
            {"second run",
             [](Bench &, QPointer<Batch> batch) {
                 batch->cancel();
                 if (batch)
                     batch->exec();
             }},
            {"new group",
             [](Bench &, QPointer<Batch> batch) {
                 batch->exec();
                 if (batch)
                     batch->setGroupTask(new GroupTask(batch));
             }},
        };
        QTest::addColumn<Operation>("operation");
        QTest::addColumn<QString>("victim");
        QTest::addColumn<bool>("isQueued");
        for (const auto &[name, operation] : operations) {
            for (const char *const victim : {"batch", "a", "b", "inner"}) {
                for (const bool isQueued : {false, true})
                    QTest::addRow("%s, %s is deleted, %s", name, victim, isQueued ? "queue" : "no queue")
                        << operation << QString::fromLatin1(victim) << isQueued;
            }
        }
    }

    void anythingMayBeDeletedInHandlers()
    {
        QFETCH(Operation, operation);
        QFETCH(QString, victim);
        QFETCH(bool, isQueued);
        for (int index = 0, events = 1; index < events; ++index) {
            TasksQueue queue;
            queue.setMaxRunningTasksCount(2);
            Bench bench;
            const QPointer<Batch> batch = bench.batch(u"batch"_s);
            QPointer<Batch> inner = bench.batch(u"inner"_s);
            if (isQueued)
                batch->setQueue(&queue);
            bench.log.watch(batch->groupTask(), u"g"_s);
            bench.log.keepOnly({u"canceled"_s, u"errorChanged"_s, u"finalizing"_s, u"finished"_s, u"progress"_s,
                                u"stateChanged"_s, u"started"_s});
            const QList<QPointer<Task>> subtasks{bench.task(u"a"_s), bench.quick(u"b"_s)};
            inner->start = [inner, c = bench.task(u"c"_s)] {
                inner->execSubtask(c);
                return Error();
            };
            batch->start = [batch, inner, subtasks] {
                if (subtasks[0] && subtasks[1] && inner)
                    batch->execSubtasks({subtasks[0], inner, subtasks[1]});
                return Error();
            };
            bench.log.at(index, [&] { delete bench.owner.findChild<BaseTask *>(victim); });
            operation(bench, batch);
            drainEvents();
            events = int(bench.log.events().size());
            if (batch)
                batch->cancel();
            drainEvents();
            QVERIFY(!batch || batch->isFinished());
        }
    }

    void thousandSubtasks()
    {
        constexpr int count = 1'000;
        Bench bench;
        TasksQueue queue;
        queue.setMaxRunningTasksCount(4);
        std::atomic<int> running = 0;
        std::atomic<int> most = 0;
        int callbacks = 0;
        Batch *batch = bench.batch(u"batch"_s);
        batch->groupTask()->setChildFailurePolicy(GroupTask::ContinueOnFailure);
        const auto work = [&] {
            const int now = ++running;
            for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) { }
            --running;
            return Error(ReadError);
        };
        batch->start = [&] {
            for (int number = 0; number < count; ++number) {
                auto *task = new Task(work, number % 10 ? Task::Synchronous : Task::WorkingThread, &bench.owner);
                task->setThreadWaitTime(-1);
                batch->setSubtaskPriority(task);
                batch->execSubtask(task, nullptr, [&] { ++callbacks; });
            }
            return Error();
        };
        queue.append(batch);
        QTRY_VERIFY_WITH_TIMEOUT(batch->isFinished(), 60'000);
        QCOMPARE(batch->error(), Error(ReadError));
        QCOMPARE(callbacks, count);
        QCOMPARE_LE(most.load(), 4);
        drainEvents();
        QCOMPARE(bench.owner.children(), QObjectList{batch});
        QCOMPARE(queue.count(), 0);
    }
};

QTEST_GUILESS_MAIN(ComplexTaskTest)
#include "tst_complextask.moc"
