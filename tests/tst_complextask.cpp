#include "support/EventLog.h"
#include "support/LogCapture.h"
#include "support/Rows.h"
#include "support/Waiting.h"

#include <zel/tasks/ComplexTask.h>
#include <zel/tasks/CustomComplexTask.h>
#include <zel/tasks/TasksQueue.h>

#include <QPointer>
#include <QThread>

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

/// Starts its subtasks, or calls a function of the test instead.
class Batch : public Open<CustomComplexTask> {
public:
    using CustomComplexTask::setSubtaskPriority;
    using Open::Open;

    QList<QPointer<Task>> subtasks;
    std::function<void()> start;
    Error result;

protected:
    Error doExecSubtasks() override
    {
        // The batch may be deleted meanwhile.
        const Error error = result;
        if (start)
            start();
        else
            execSubtasks({subtasks.cbegin(), subtasks.cend()});
        return error;
    }
};

/// Keeps its tasks in a store of its own, and follows them from their start on.
class OwnStore : public TasksQueue {
public:
    bool isEmpty() const override { return m_tasks.isEmpty(); }
    int pendingTasksCount() const override { return int(m_tasks.size()); }

protected:
    void enqueueTask(Task *task, EnqueueMode) override { m_tasks.append(task); }
    Task *dequeueTask() override
    {
        Task *task = m_tasks.isEmpty() ? nullptr : m_tasks.takeFirst();
        if (task)
            connectTask(task);
        return task;
    }

private:
    QList<Task *> m_tasks;
};

/// Named tasks and a log of when they start and end, and a queue.
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
    Batch *batch(const QString &name, const QList<QPointer<Task>> &subtasks = {})
    {
        auto *batch = add(new Batch(&owner), name);
        batch->subtasks = subtasks;
        return batch;
    }
    Job *runningJob()
    {
        auto *job = add(new Job(&owner), u"job"_s);
        job->setExecutionMode(Task::Asynchronous);
        job->exec();
        return job;
    }
    Task *find(const QString &name) const { return owner.findChild<Task *>(name); }

    QObject owner;
    EventLog log;
    TasksQueue queue;

private:
    template <typename TaskClass>
    TaskClass *add(TaskClass *task, const QString &name)
    {
        static_cast<BaseTask *>(task)->setName(name);
        task->setObjectName(name);
        log.watch(task, name);
        return task;
    }
};

void perform(char operation, Batch *batch)
{
    if (operation == 'e')
        batch->exec();
    else if (operation == 'c')
        batch->cancel();
    else if (operation == 'g')
        batch->setGroupTask(new GroupTask(batch));
    else if (const QPointer<Task> first = batch->subtasks[0])
        first->finish(Error(UserError));
}

} // namespace

class ComplexTaskTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { failOnQtWarnings(); }

    void failingSubtaskEndsTheTaskInALaterTurn()
    {
        Bench bench;
        Job *job = bench.runningJob();
        bench.log.watch(job->groupTask(), u"g"_s);
        Task *a = bench.task(u"a"_s);
        job->execSubtasks({a, bench.task(u"b"_s)});
        a->finish(Error(UserError));
        drainEvents();
        QCOMPARE(bench.log.take(),
                 u"job:started a:started b:started a:finished g:started g:finished b:finished job:finished"_s);
        QCOMPARE(job->error(), Error(UserError));
    }

    void batchThatStartsNothingEndsAtOnce()
    {
        Bench bench;
        Batch *batch = bench.batch(u"batch"_s);
        batch->exec();
        QVERIFY(batch->isSuccessful());
        // Listed without being started.
        batch->start = [&] { batch->appendSubtask(bench.task(u"b"_s)); };
        batch->exec();
        QVERIFY(batch->isRunning());
        batch->cancel();
        // A group of its own that it gets meanwhile.
        batch->start = [&] { batch->setGroupTask(new GroupTask); };
        batch->exec();
        QVERIFY(batch->isSuccessful());
        Task *c = bench.task(u"c"_s);
        batch->start = [&] { batch->execSubtask(c); };
        batch->result = Error(NotFound);
        batch->exec();
        QCOMPARE(batch->error(), Error(NotFound));
        QVERIFY(c->isRunning());
    }

    void queuedSubtasksKeepItsLimitUnlessItRefusesThem()
    {
        Bench bench;
        bench.queue.setMaxRunningTasksCount(1);
        Batch *inner = bench.batch(u"inner"_s, {bench.task(u"c"_s)});
        Task *urgent = bench.task(u"b"_s);
        Task *refused = bench.quick(u"x"_s);
        Task *paused = bench.task(u"p"_s); // somebody else's business
        paused->pause();
        Batch *batch = bench.batch(u"batch"_s, {inner, bench.task(u"a"_s), refused, urgent, paused});
        batch->groupTask()->setChildFailurePolicy(GroupTask::ContinueOnFailure);
        batch->setPriority(1);
        batch->setSubtaskPriority(urgent);
        QCOMPARE(urgent->priority(), 1);
        batch->setPriority(0);
        refused->setPriority(11);
        bench.queue.append(batch);
        // They come to the queue together: the urgent one is first. The complex one waits for nobody.
        QCOMPARE(bench.log.take(), u"batch:started b:started x:finished inner:started"_s);
        for (Task *task : {urgent, bench.find(u"a"_s), bench.find(u"c"_s), paused}) {
            task->finish();
            drainEvents();
        }
        QCOMPARE(bench.log.take(),
                 u"b:finished a:started a:finished c:started c:finished inner:finished p:finished batch:finished"_s);
        QCOMPARE(batch->error(), Error(GeneralError, u"The queue did not take the task."_s));
    }

    void batchThatAdmitsNothingEndsAsItsGroupDoes()
    {
        Bench bench;
        // Its subtask was listed before, and has failed.
        Batch *batch = bench.batch(u"failed"_s);
        batch->groupTask()->setConnectionType(Qt::DirectConnection);
        Task *a = bench.quick(u"a"_s, Error(UserError));
        batch->appendSubtask(a);
        batch->start = [a] { a->exec(); };
        batch->exec();
        drainEvents();
        QCOMPARE(batch->error(), Error(UserError));
        // Or is pending.
        batch = bench.batch(u"pending"_s);
        Task *b = bench.task(u"b"_s);
        batch->appendSubtask(b);
        batch->exec();
        drainEvents();
        QVERIFY(batch->isRunning());
        b->exec();
        b->finish(Error(ReadError));
        drainEvents();
        QCOMPARE(batch->error(), Error(ReadError));

        batch = bench.batch(u"canceled"_s, {bench.quick(u"c"_s)});
        bench.log.on(u"canceled:started"_s, [batch] { batch->groupTask()->cancel(); });
        batch->exec();
        drainEvents();
        QCOMPARE(batch->error(), canceledError);
    }

    void queueMayKeepSubtasksInAStoreOfItsOwn()
    {
        Bench bench;
        OwnStore queue;
        queue.pause();
        Task *a = bench.quick(u"a"_s);
        Batch *batch = bench.batch(u"batch"_s, {a});
        batch->setQueue(&queue);
        batch->exec();
        QVERIFY(a->isIdle());
        queue.resume();
        drainEvents();
        QVERIFY(batch->isSuccessful());
    }

    void subtaskThatIsCanceledOnAdmissionIsNotStarted()
    {
        for (int variant = 0; variant < 4; ++variant) {
            Bench bench;
            Job *job = bench.runningJob();
            job->setQueue(variant % 2 ? &bench.queue : nullptr);
            if (variant / 2)
                connect(job->groupTask(), &GroupTask::taskAppended, job, &Job::cancel);
            else
                connect(job->groupTask(), &GroupTask::progress, job, &Job::cancel);
            bench.log.take();
            bench.log.keepOnly({u"started"_s});
            Task *a = bench.quick(u"a"_s);
            job->execSubtasks({a, bench.quick(u"b"_s)});
            QCOMPARE(a->error(), canceledError);
            drainEvents();
            QCOMPARE(bench.log.take(), QString());
        }
    }

    void whatIsNotAdmittedIsNotStarted()
    {
        Bench bench;
        Job *job = bench.runningJob();
        job->groupTask()->setConnectionType(Qt::DirectConnection);
        // The end of the first one stops the others before their turn.
        job->execSubtasks({bench.quick(u"a"_s, Error(UserError)), nullptr, bench.quick(u"b"_s)});
        QCOMPARE(bench.log.take(), u"job:started a:started a:finished b:finished"_s);
        // The group has ended; the task has not heard of it.
        job->execSubtask(bench.quick(u"c"_s));
        drainEvents();
        QCOMPARE(bench.log.take(), u"c:finished job:finished"_s);
        job->execSubtask(bench.quick(u"d"_s));
        QCOMPARE(bench.log.take(), QString());
    }

    void callbacksTellHowASubtaskEnded()
    {
        Bench bench;
        Job *job = bench.runningJob();
        job->groupTask()->setChildFailurePolicy(GroupTask::ContinueOnFailure);
        const auto note = [&](const QString &outcome) {
            return [&, outcome] { bench.log.add(QThread::currentThread() == thread() ? outcome : u"elsewhere"_s); };
        };
        bench.log.take();
        bench.log.keepOnly({u"success"_s, u"failure"_s, u"elsewhere"_s});
        job->execSubtask(bench.quick(u"a"_s), note(u"success"_s));
        QCOMPARE(bench.log.take(), u"success"_s);
        for (const Error &error : {Error(), Error(UserError)}) {
            auto *task = new Task(Task::Asynchronous);
            job->execSubtask(task, note(u"success"_s), note(u"failure"_s));
            // Gone by the time of the callback.
            const auto end = [task, error] {
                task->finish(error);
                delete task;
            };
            const std::unique_ptr<QThread> thread(QThread::create(end));
            task->moveToThread(thread.get());
            thread->start();
            QVERIFY(thread->wait());
        }
        drainEvents();
        QCOMPARE(bench.log.take(), u"success failure"_s);
        QVERIFY(job->isRunning()); // its own work goes on
    }

    void callbacksGoWithTheirTask()
    {
        Bench bench;
        Job *job = bench.runningJob();
        const auto captured = std::make_shared<int>();
        job->execSubtask(bench.task(u"a"_s), [captured] {});
        delete job;
        QCOMPARE(captured.use_count(), 1);
    }

    void groupThatHadEndedBeginsAfresh()
    {
        Bench bench;
        Batch *canceled = bench.batch(u"canceled"_s, {bench.quick(u"a"_s)});
        canceled->cancel();
        canceled->setIdle();
        bench.queue.append(canceled);
        drainEvents();
        auto *group = new GroupTask;
        group->finish(Error(ReadError));
        Batch *batch = bench.batch(u"batch"_s, {bench.quick(u"b"_s)});
        batch->setGroupTask(group);
        batch->exec();
        drainEvents();
        QCOMPARE(bench.log.take(),
                 u"canceled:finished canceled:started a:started a:finished canceled:finished "
                 "batch:started b:started b:finished batch:finished"_s);
        QVERIFY(canceled->isSuccessful() && batch->isSuccessful());

        // Not when it is set in a run.
        group = new GroupTask;
        group->finish(Error(ReadError));
        Job *job = bench.runningJob();
        job->setGroupTask(group);
        drainEvents();
        QCOMPARE(job->error(), Error(ReadError));
    }

    void groupOfTheNextRunBringsItsChildren()
    {
        Bench bench;
        Batch *batch = bench.batch(u"batch"_s);
        batch->exec();
        Task *a = bench.task(u"a"_s);
        auto *group = new GroupTask;
        group->append(a);
        batch->setGroupTask(group);
        batch->subtasks = {bench.quick(u"b"_s)};
        batch->exec();
        drainEvents();
        QVERIFY(batch->isRunning());
        a->exec();
        a->finish(Error(UserError));
        drainEvents();
        QCOMPARE(batch->error(), Error(UserError));
    }

    void taskThatIsIdleAgainIsNotEnded()
    {
        Bench bench;
        Task *a = bench.task(u"a"_s);
        Batch *batch = bench.batch(u"batch"_s, {a});
        batch->groupTask()->setConnectionType(Qt::DirectConnection);
        batch->exec();
        a->finish();
        // The end of its group is on its way.
        batch->setIdle();
        bench.queue.pause();
        bench.queue.append(batch);
        drainEvents();
        QVERIFY(batch->isIdle());
        batch->start = [batch] { batch->setIdle(); };
        bench.queue.resume();
        drainEvents();
        QVERIFY(batch->isIdle());
    }

    // A start from before the new run is on its way to the group, to which nothing comes in that run.
    void startOfAnEarlierRunDoesNotKeepTheNextOne()
    {
        Bench bench;
        Batch *batch = bench.batch(u"batch"_s, {bench.task(u"a"_s)});
        batch->exec();
        batch->setIdle();
        batch->subtasks.clear();
        batch->exec();
        drainEvents();
        QVERIFY(batch->isSuccessful());
    }

    void zeroProgressIsReportedOnceInAllRuns()
    {
        Bench bench;
        Batch *batch = bench.batch(u"batch"_s);
        LogCapture log;
        for (int run = 0; run < 2; ++run) {
            Task *a = bench.task(u"a"_s);
            batch->subtasks = {a};
            batch->exec();
            a->setProgress(1, 0);
            a->finish();
            drainEvents();
        }
        QVERIFY(batch->isSuccessful());
        QCOMPARE(log.take().filter(u"zero maximum progress"_s).size(), 1);
    }

    void canceledRunDoesNotEndTheNextOne()
    {
        Bench bench;
        Batch *batch = bench.batch(u"batch"_s, {bench.task(u"a"_s), bench.task(u"b"_s)});
        batch->exec();
        drainEvents();
        batch->cancel();
        // The ends of two subtasks and of the group are on their way.
        batch->subtasks = {bench.task(u"c"_s)};
        batch->exec();
        drainEvents();
        QVERIFY(batch->isRunning() && batch->subtasks[0]->isRunning() && batch->groupTask()->isRunning());
        batch->subtasks[0]->finish();
        drainEvents();
        QVERIFY(batch->isSuccessful());
    }

    // The subtasks are used again, and in the second run the first of them ends before the others have started.
    void everyRunWaitsForItsSubtasks_data() { addRows<bool>({{"direct", false}, {"queue", true}}); }

    void everyRunWaitsForItsSubtasks()
    {
        QFETCH(bool, row);
        for (const auto cleanup : {GroupTask::DeleteWithGroup, GroupTask::DeleteWhenFinished, GroupTask::SelfDelete}) {
            Bench bench;
            bench.queue.setMaxRunningTasksCount(1);
            Batch *batch = bench.batch(u"batch"_s);
            batch->groupTask()->setCleanupPolicy(cleanup);
            batch->groupTask()->setChildFailurePolicy(GroupTask::ContinueOnFailure);
            for (int run = 1; run < 4; ++run) {
                bench.log.take();
                if (run == 1 || cleanup != GroupTask::SelfDelete)
                    batch->subtasks = {bench.quick(u"a"_s), bench.quick(u"b"_s), bench.quick(u"c"_s)};
                for (const QPointer<Task> &task : std::as_const(batch->subtasks))
                    task->setIdle(); // as the queue wants it
                batch->subtasks[2]->setFunction([run] { return Error(ErrorCode(UserError + run)); });
                if (row)
                    batch->setIdle();
                row ? bench.queue.append(batch) : batch->exec();
                drainEvents();
                QCOMPARE(
                    bench.log.take(),
                    u"batch:started a:started a:finished b:started b:finished c:started c:finished batch:finished"_s);
                QCOMPARE(batch->error(), Error(ErrorCode(UserError + run)));
            }
            // The queue leaves tasks alone that have ended.
            batch->exec();
            drainEvents();
            QVERIFY(batch->isFinished());
        }
    }

    void endOfAnotherGroupIsIgnored()
    {
        Bench bench;
        Job *job = bench.runningJob();
        const QPointer<GroupTask> first = job->groupTask();
        first->finish(Error(UserError));
        auto *second = new GroupTask;
        job->setGroupTask(second);
        QVERIFY(!first);
        drainEvents();
        QVERIFY(job->isRunning());

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

    void nestedBatchesEndFromTheInside()
    {
        for (int variant = 0; variant < 4; ++variant) {
            const bool isCanceled = variant % 2;
            Bench bench;
            bench.queue.setMaxRunningTasksCount(1);
            Task *last = bench.task(u"last"_s);
            Batch *batch = bench.batch(u"batch3"_s, {last});
            for (int level = 2; level >= 0; --level)
                batch = bench.batch(u"batch%1"_s.arg(level), {batch, bench.quick(u"task"_s)});
            batch->groupTask()->setCleanupPolicy(GroupTask::SelfDelete);
            variant < 2 ? bench.queue.append(batch) : batch->exec();
            drainEvents();
            bench.log.take();
            isCanceled ? batch->cancel() : last->finish();
            drainEvents();
            QCOMPARE(bench.log.take(),
                     u"last:finished batch3:finished batch2:finished batch1:finished batch0:finished"_s);
            QCOMPARE(batch->error(), isCanceled ? canceledError : Error());
            QCOMPARE(bench.queue.count(), 0);
        }
    }

    void anythingMayBeDeletedInHandlers_data()
    {
        addRows<QByteArray>({{"end", "f"}, {"cancel", "c"}, {"second run", "ce"}, {"new group", "g"}});
    }

    void groupMayBeDeletedByOthers()
    {
        Bench bench;
        Batch *batch = bench.batch(u"batch"_s, {bench.quick(u"a"_s)});
        delete batch->groupTask();
        batch->cancel();
        QVERIFY(batch->isCanceled());
        batch->exec();
        drainEvents();
        QVERIFY(batch->isSuccessful());
        delete batch->groupTask();
        batch->setGroupTask(new GroupTask(batch));
        QVERIFY(batch->groupTask());

        Task *b = bench.task(u"b"_s);
        batch->subtasks = {b};
        bench.log.on(u"batch:started"_s, [batch] { delete batch->groupTask(); });
        batch->exec();
        drainEvents();
        QVERIFY(batch->isRunning());
        b->finish(Error(UserError));
        drainEvents();
        QCOMPARE(batch->error(), Error(UserError));
    }

    void groupThatContainsTheTaskIsRefused()
    {
        Bench bench;
        Batch *batch = bench.batch(u"batch"_s);
        GroupTask *own = batch->groupTask();
        GroupTask outer;
        GroupTask middle;
        outer.append(&middle);
        middle.append(batch);
        for (GroupTask *group : {&outer, &middle}) {
            LogCapture log;
            batch->setGroupTask(group);
            QCOMPARE(log.takeWarnings().size(), 1);
            QCOMPARE(batch->groupTask(), own);
        }

        // Nor when it has lost its own, and gets another one.
        delete own;
        Job *container = bench.runningJob();
        container->appendSubtask(batch);
        LogCapture log;
        batch->setGroupTask(&middle);
        QCOMPARE(log.takeWarnings().size(), 1);
        batch->appendSubtask(container);
        QCOMPARE(log.takeWarnings().size(), 1);
        container->cancel();
        outer.cancel();
    }

    void queueDoesNotStartADyingTask()
    {
        Bench bench;
        bench.queue.setMaxRunningTasksCount(1);
        bench.queue.append(bench.task(u"busy"_s));
        Batch *batch = bench.batch(u"batch"_s);
        bench.queue.append(batch);
        bench.log.take();
        connect(batch->groupTask(), &QObject::destroyed, this, [&] {
            bench.queue.setMaxRunningTasksCount(2);
            bench.queue.tryExec();
        });
        delete batch;
        QCOMPARE(bench.log.take(), QString());
    }

    void subtaskOfAnEarlierRunIsNobodysBusiness_data()
    {
        addRows<bool>({{"before the others are listed", false}, {"after that", true}});
    }

    void subtaskOfAnEarlierRunIsNobodysBusiness()
    {
        QFETCH(const bool, row);
        Bench bench;
        Task *early = bench.task(u"early"_s);
        Task *late = bench.task(u"late"_s);
        Batch *batch = bench.batch(u"batch"_s, {early});
        batch->result = Error(Timeout);
        batch->exec();
        QVERIFY(batch->error().equals(Timeout) && early->isRunning());

        batch->result = Error();
        batch->start = [&] {
            if (row)
                batch->execSubtask(late);
            early->finish(Error(UserError));
            drainEvents();
            if (!row)
                batch->execSubtask(late);
        };
        batch->exec();
        drainEvents();
        QVERIFY(batch->isRunning());
        late->finish();
        drainEvents();
        QVERIFY(batch->isSuccessful());
    }

    void anythingMayBeDeletedInHandlers()
    {
        QFETCH(QByteArray, row);
        for (int index = 0, events = 1; index / 8 < events; ++index) {
            Bench bench;
            bench.queue.setMaxRunningTasksCount(2);
            Batch *inner = bench.batch(u"inner"_s, {bench.task(u"c"_s)});
            const QPointer<Batch> batch = bench.batch(u"batch"_s, {bench.task(u"a"_s), inner, bench.quick(u"b"_s)});
            if (index % 2)
                batch->setQueue(&bench.queue);
            bench.log.watch(batch->groupTask(), u"g"_s);
            bench.log.keepOnly({u"canceled"_s, u"errorChanged"_s, u"finalizing"_s, u"finished"_s, u"progress"_s,
                                u"stateChanged"_s, u"started"_s});
            const QString victim = QStringList({u"batch"_s, u"a"_s, u"b"_s, u"inner"_s})[index / 2 % 4];
            bench.log.at(index / 8, [&] { delete bench.owner.findChild<BaseTask *>(victim); });
            for (const char operation : 'e' + row + 'c') {
                if (batch)
                    perform(operation, batch);
                if (operation != 'c')
                    drainEvents();
                events = qMax(events, int(bench.log.events().size()));
            }
            QVERIFY(!batch || batch->isFinished());
        }
    }
};

QTEST_GUILESS_MAIN(ComplexTaskTest)
#include "tst_complextask.moc"
