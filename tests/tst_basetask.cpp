#include "support/EventLog.h"
#include "support/Gate.h"
#include "support/LogCapture.h"
#include "support/Rows.h"
#include "support/Waiting.h"

#include <zel/tasks/BaseTask.h>
#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QMetaEnum>
#include <QMetaMethod>
#include <QPointer>

#include <memory>
#include <thread>

using namespace Qt::StringLiterals;
using namespace zel;

static_assert(std::is_same_v<std::underlying_type_t<BaseTask::State>, int>);
static_assert(BaseTask::Idle == 0 && BaseTask::Running == 1 && BaseTask::Paused == 2);
static_assert(BaseTask::Finalizing == 3 && BaseTask::Finished == 4 && BaseTask::ExcludeUserInput == 1);

namespace {

class PlainTask : public BaseTask {
public:
    explicit PlainTask(State state = Idle) : BaseTask(nullptr)
    {
        setName(u"t"_s);
        const std::function<void()> reach[] = {[] {}, [] {}, [&] { pause(); }, [&] { finalize(); }, [&] { finish(); }};
        if (state != Idle)
            setRunning();
        reach[state]();
    }
    Error finishError;

protected:
    Error doFinish() override { return finishError; }
};

using Operation = std::function<void(PlainTask &)>;

struct Transition {
    BaseTask::State from;
    Operation operation;
    BaseTask::State to;
    QString events;
};

QString eventsAfterDeletion(BaseTask::State from, const Operation &operation)
{
    return ::eventsAfterDeletion([&] { return new PlainTask(from); },
                                 [&](BaseTask *task) { operation(*static_cast<PlainTask *>(task)); });
}

struct DeleteOnFinished {
    bool before; // the flag when the task finishes
    Operation duringFinished;
    Operation afterFinish;
    bool isDeleted;
};

QString key(int state)
{
    return QString::fromLatin1(QMetaEnum::fromType<BaseTask::State>().valueToKey(state));
}

QString signatures(const QMetaObject &metaObject)
{
    QStringList result;
    for (int index = metaObject.methodOffset(); index < metaObject.methodCount(); ++index)
        result.append(QString::fromLatin1(metaObject.method(index).methodSignature()));
    return result.join(u' ');
}

const QString endOfRun = u"stateChanged(Finalizing) finalizing stateChanged(Finished) finished"_s;
const QString cancelEvents = u"canceled errorChanged(Canceled) "_s + endOfRun;

} // namespace

class BaseTaskTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { failOnQtWarnings(); }

    void methodsKeepTheirOrder()
    {
        QCOMPARE(signatures(BaseTask::staticMetaObject),
                 u"finalizing() finished() progressInitiated(int) progress(int,int) progressTextChanged(QString) "
                 "stateChanged(State) paused() resumed() started() restarted() selfDelete() cancel() pause() resume() "
                 "finalize() finish(Err) finish() setIdle() setRunning() setFinished() currentProgress() "
                 "totalProgress() setProgress(int,int) progressText() setProgressText(QString) clearError() "
                 "waitForFinished(int) waitForFinished() waitForFinished(std::chrono::milliseconds) "
                 "waitForAllFinished(int) waitForAllFinished() waitForAllFinished(std::chrono::milliseconds)"_s);
        QCOMPARE(signatures(Task::staticMetaObject),
                 u"priorityChanged(int) aboutToDestroy() exec() triggersNext() setTriggersNext(bool) countAsRunning() "
                 "setCountAsRunning(bool)"_s);
        QCOMPARE(signatures(TasksQueue::staticMetaObject), u"stateChanged(State) pause() resume() tryExec()"_s);
        QCOMPARE(QMetaType::fromType<TasksQueue::State>().name(), "zel::TasksQueue::State");
    }

    void transitions_data()
    {
        QTest::addColumn<Transition>("row");
        using enum BaseTask::State;
        const QString none;
        const Operation fail = [](PlainTask &task) { task.finish(Error(GeneralError, u"x"_s)); };
        for (const auto from : {Idle, Running, Paused, Finalizing, Finished}) {
            const auto row = [from](const char *name, const Operation &operation, BaseTask::State to,
                                    const QString &events) {
                QTest::addRow("%s, %s", name, qPrintable(key(from))) << Transition{from, operation, to, events};
            };
            const bool isPaused = from == Paused;
            const bool isFinished = from == Finished;
            const QString begin = from == Idle ? u" started"_s : isFinished ? u" started restarted"_s : none;
            row("setIdle", &BaseTask::setIdle, Idle, u"stateChanged(Idle)"_s);
            row("setRunning", &BaseTask::setRunning, Running, u"stateChanged(Running)"_s + begin);
            row("setFinished", &BaseTask::setFinished, Finished, u"stateChanged(Finished)"_s);
            row("finalize", &BaseTask::finalize, Finalizing, u"stateChanged(Finalizing) finalizing"_s);
            row("pause", &BaseTask::pause, Paused, isPaused ? none : u"paused stateChanged(Paused)"_s);
            row("resume", &BaseTask::resume, isPaused ? Running : from,
                isPaused ? u"resumed stateChanged(Running)"_s : none);
            row("finish", fail, Finished, isFinished ? none : u"errorChanged(GeneralError) "_s + endOfRun);
            row("cancel", &BaseTask::cancel, Finished, isFinished ? none : cancelEvents);
        }
    }

    void transitions()
    {
        QFETCH(const Transition, row);
        PlainTask task(row.from);
        EventLog events(&task);
        row.operation(task);
        QCOMPARE(task.state(), row.to);
        QCOMPARE(task.stateString(), key(row.to));
        QCOMPARE(events.take(), row.events);
        QCOMPARE(eventsAfterDeletion(row.from, row.operation), QString());
    }

    void oneLifeInTheLog()
    {
        auto task = std::make_unique<PlainTask>(BaseTask::Running);
        LogCapture log;
        task->pause();
        task->resume();
        task->cancel();
        QStringList lines = log.take();
        QVERIFY(lines.at(5).startsWith(u"debug Setting error Error("));
        lines.removeAt(5);
        QCOMPARE(lines.join(u'\n'), uR"(info Task "t" => Paused
info Task "t" : Running => "Paused"
info Task "t" => Resumed
info Task "t" : Paused => "Running"
info Task "t" => Canceled
debug Task "t" => Finalizing
info Task "t" : Running => "Finalizing"
debug Task "t" finished.
info Task "t" : Finalizing => "Finished")"_s);

        EventLog events(task.get());
        task.reset();
        QCOMPARE(events.take(), QString());
        QCOMPARE(log.take(), QStringList{u"debug Deleting \"t\""_s});
    }

    void errorOfDoFinishReplacesTheOutcome()
    {
        PlainTask task(BaseTask::Running);
        task.finishError = Error(Timeout, u"cleaning up"_s);
        EventLog events(&task);
        task.finish();
        QCOMPARE(events.take(),
                 u"errorChanged(NoError) stateChanged(Finalizing) finalizing errorChanged(Timeout) "
                 "stateChanged(Finished) finished"_s);
        QCOMPARE(task.error(), Error(Timeout, u"cleaning up"_s));
        QCOMPARE(task.error().places().size(), 1);
        QVERIFY(task.error().places().first().file.endsWith(u"BaseTask.cpp"));
    }

    void outcomeInsideARunIsIgnored()
    {
        for (const QString &event : cancelEvents.split(u' ')) {
            PlainTask task(BaseTask::Running);
            EventLog events(&task);
            events.on(event, [&] { task.finish(Error(GeneralError, u"nested"_s)), task.cancel(); });
            task.cancel();
            QCOMPARE(events.take(), cancelEvents);
            QCOMPARE(task.error(), Error(Canceled, u"Canceled"_s));
        }
    }

    void finishedIsLeftToTheRunThatBeganMeanwhile()
    {
        for (const bool throughIdle : {false, true}) {
            PlainTask task(BaseTask::Running);
            EventLog events(&task);
            const auto restart = [&] { throughIdle ? (task.setIdle(), task.setRunning()) : task.setRunning(); };
            events.on(u"stateChanged(Finished)"_s, restart);
            task.finish(Error(GeneralError));
            QVERIFY(!events.take().contains(u" finished"));
            QVERIFY(task.isRunning());

            // A whole run inside the end of another: the inner one is the only one to tell.
            events.on(u"stateChanged(Finished)"_s, [&] { restart(), task.finish(Error(Timeout)); });
            task.finish(Error(GeneralError));
            QCOMPARE(events.take().count(u" finished"), 1);
            QVERIFY(task.error().equals(Timeout));
        }
    }

    void restOfAnEndIsLeftToTheRunThatAHandlerBegins()
    {
        for (const QString &event : {u"canceled"_s, u"errorChanged(Canceled)"_s, u"finalizing"_s}) {
            PlainTask task(BaseTask::Running);
            EventLog events(&task);
            events.on(event, [&] { task.setIdle(), task.setRunning(); });
            task.cancel();
            QVERIFY(events.take().endsWith(u"stateChanged(Idle) stateChanged(Running) started"));
            task.finish();
            QCOMPARE(events.take(), u"errorChanged(NoError) "_s + endOfRun);
        }
    }

    void setFinishedInsideAnEndDoesNotSwallowFinished()
    {
        for (const QString &event : cancelEvents.chopped(QString(u" finished"_s).size()).split(u' ')) {
            PlainTask task(BaseTask::Running);
            EventLog events(&task);
            events.on(event, [&] { task.setFinished(); });
            task.cancel();
            QCOMPARE(events.take().count(u" finished"), 1);
        }
    }

    void destructionWaitsForAnEndOnAnotherThread()
    {
        auto task = std::make_unique<Task>(Task::Asynchronous);
        task->exec();
        Gate gate;
        std::atomic<bool> isOver = false;
        const auto linger = [&] {
            gate.arrive();
            QThread::msleep(20);
            isOver = true;
        };
        connect(task.get(), &Task::finished, this, linger, Qt::DirectConnection);
        std::thread finisher([&task] { task->finish(); });
        QVERIFY(gate.waitForArrival());
        task.reset();
        QVERIFY(isOver);
        finisher.join();
    }

    void handlerMayDeleteTheTask()
    {
        const QList<Operation> operations{
            [](PlainTask &task) { task.setProgress(1, 2); },
            [](PlainTask &task) { task.setProgressText(u"x"_s); },
            [](PlainTask &task) { task.finishError = Timeout, task.finish(); },
            [](PlainTask &task) { task.setDeleteOnFinished(true), task.finish(); },
            [](PlainTask &task) {
                PlainTask source;
                task.bind(&source);
                source.setRunning();
                source.setProgress(1, 2);
                source.pause();
                source.resume();
                source.setVariantResult(3);
                source.cancel();
            },
        };
        for (const Operation &operation : operations)
            QCOMPARE(eventsAfterDeletion(BaseTask::Running, operation), QString());
    }

    void handlersOfResumedComeFirst()
    {
        PlainTask task(BaseTask::Paused);
        EventLog events(&task);
        events.on(u"resumed"_s, [&] { task.finish(Error(Timeout)); });
        task.resume();
        QCOMPARE(events.take(), u"resumed errorChanged(Timeout) "_s + endOfRun);
        task.pause();
        task.resume();
        QVERIFY(task.isFinished());
    }

    void newRunIsNotCanceled()
    {
        for (const bool throughIdle : {false, true}) {
            PlainTask task(BaseTask::Running);
            PlainTask follower;
            follower.bind(&task);
            task.cancel();
            QVERIFY(follower.isCanceled());
            if (throughIdle)
                task.setIdle();
            task.setRunning();
            QVERIFY(!task.isCanceled() && !follower.isCanceled());
            QVERIFY(task.error().equals(Canceled)); // until the new run ends
            task.finish(Error(GeneralError));
            QVERIFY(!task.isCanceled() && !follower.isCanceled());
        }
        PlainTask task(BaseTask::Running);
        std::thread([&] { task.cancel(); }).join();
        task.setRunning();
        drainEvents(); // the other thread may have posted something
        QVERIFY(!task.isCanceled());
    }

    void finishCanBeInvokedByName()
    {
        PlainTask task(BaseTask::Running);
        const Error error(GeneralError, u"by name"_s);
        QVERIFY(QMetaObject::invokeMethod(&task, "finish", Qt::QueuedConnection, Q_ARG(Err, error)));
        drainEvents();
        QVERIFY(task.isFinished());
        QCOMPARE(task.error(), error);
        task.setRunning();
        QVERIFY(QMetaObject::invokeMethod(&task, "finish", Qt::DirectConnection));
        QVERIFY(task.isSuccessful());
    }

    void boundTaskFollowsItsSource()
    {
        Task source;
        PlainTask middle;
        Task follower;
        middle.bind(&source);
        follower.bind(&middle);
        EventLog sourceEvents(&source);
        EventLog followerEvents(&follower);
        source.setRunning();
        Q_EMIT source.progressInitiated(8);
        source.setProgress(3, 8);
        source.setProgressText(u"half"_s);
        source.pause();
        source.resume();
        source.setVariantResult(42);
        source.cancel();
        source.setRunning();
        QCOMPARE(sourceEvents.events().size(), 18);
        QCOMPARE(followerEvents.take(), sourceEvents.take());
        QVERIFY(follower.isRunning());
        QCOMPARE(follower.error(), source.error());
        QCOMPARE(follower.variantResult(), QVariant(42));

        // Priorities go the other way, where both are bound.
        Task outer;
        outer.bindMutually(&source);
        outer.setPriority(3);
        outer.setPriority(3);
        source.setPriority(5);
        QCOMPARE(sourceEvents.take(), u"priorityChanged(3) priorityChanged(5)"_s);
        QCOMPARE(outer.priority(), 3);
    }

    void bindThatMakesNoSenseIsRefused_data()
    {
        // Follower and source, in turn; the last pair is refused.
        addRows<QList<int>>({
            {"null", {0, -1}},
            {"itself", {0, 0}},
            {"each other", {0, 1, 1, 0}},
            {"circle of three", {0, 1, 1, 2, 2, 0}},
            {"circle with a branch", {0, 1, 0, 2, 3, 0, 2, 3}},
        });
    }

    void bindThatMakesNoSenseIsRefused()
    {
        QFETCH(const QList<int>, row);
        for (const bool mutually : {false, true}) {
            Task tasks[4];
            const auto bind = [&](int follower, int source) {
                const Task *task = source < 0 ? nullptr : &tasks[source];
                mutually ? tasks[follower].bindMutually(task) : tasks[follower].bind(task);
            };
            LogCapture log;
            for (qsizetype pair = 0; pair < row.size() - 2; pair += 2)
                bind(row[pair], row[pair + 1]);
            QCOMPARE(log.takeWarnings(), QStringList());
            bind(row[row.size() - 2], row.last());
            QCOMPARE(log.takeWarnings().size(), 1);

            Task &refused = tasks[row[row.size() - 2]];
            EventLog events(&refused);
            refused.setPriority(7);
            refused.setProgress(1, 2);
            QCOMPARE(events.take(), u"priorityChanged(7) progress(1,2)"_s);
        }
    }

    void circleThroughADestroyedTaskIsNone()
    {
        PlainTask first;
        PlainTask last;
        auto middle = std::make_unique<PlainTask>();
        first.bind(middle.get());
        middle->bind(&last);
        middle.reset();
        last.bind(&first);
        first.setRunning();
        QVERIFY(last.isRunning());
    }

    void deletionOnFinishLooksAgain_data()
    {
        const Operation nothing = [](PlainTask &) {};
        const Operation on = [](PlainTask &task) { task.setDeleteOnFinished(true); };
        const Operation off = [](PlainTask &task) { task.setDeleteOnFinished(false); };
        const Operation restart = &BaseTask::setRunning;
        const Operation pauseAndResume = [](PlainTask &task) { task.pause(), task.resume(); };
        const Operation runAgain = [](PlainTask &task) { task.setRunning(), task.finish(); };
        addRows<DeleteOnFinished>({
            {"set", {true, nothing, nothing, true}},
            {"taken back in finished()", {true, off, nothing, false}},
            {"taken back after finish()", {true, nothing, off, false}},
            {"set in finished()", {false, on, nothing, false}},
            {"set after finish()", {false, nothing, on, false}},
            {"runs again, in finished()", {true, restart, nothing, false}},
            {"runs again, after finish()", {true, nothing, restart, false}},
            {"paused and resumed", {true, nothing, pauseAndResume, true}},
            {"ran again", {true, nothing, runAgain, true}},
        });
    }

    void deletionOnFinishLooksAgain()
    {
        QFETCH(const DeleteOnFinished, row);
        const QPointer<PlainTask> task = new PlainTask(BaseTask::Running);
        task->setDeleteOnFinished(row.before);
        EventLog events(task);
        events.on(u"finished"_s, [&] { row.duringFinished(*task); });
        task->finish();
        QVERIFY(task);
        row.afterFinish(*task);
        drainEvents();
        QCOMPARE(task.isNull(), row.isDeleted);
        if (task && task->isRunning()) {
            task->finish();
            drainEvents();
            QVERIFY(!task);
        }
        delete task.data();
    }
};

QTEST_GUILESS_MAIN(BaseTaskTest)
#include "tst_basetask.moc"
