#include "support/EventLog.h"
#include "support/Gate.h"
#include "support/LogCapture.h"
#include "support/Rows.h"
#include "support/Waiting.h"

#include <zel/tasks/BaseTask.h>
#include <zel/tasks/GroupTask.h>
#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QMetaEnum>
#include <QPointer>
#include <QSignalSpy>
#include <QTimer>

#include <memory>
#include <thread>

using namespace Qt::StringLiterals;
using namespace zel;

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

const QString endOfRun = u"stateChanged(Finalizing) finalizing stateChanged(Finished) finished"_s;
const QString cancelEvents = u"canceled errorChanged(Canceled) "_s + endOfRun;

} // namespace

class BaseTaskTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { failOnQtWarnings(); }

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
        QCOMPARE(events.take(), row.events);
        QCOMPARE(eventsAfterDeletion(row.from, row.operation), QString());
    }

    void errorOfDoFinishReplacesTheOutcome()
    {
        PlainTask task(BaseTask::Running);
        task.finishError = Error(Timeout, u"cleaning up"_s);
        EventLog events(&task);
        events.keepOnly({u"errorChanged"_s, u"finalizing"_s});
        task.finish();
        QCOMPARE(events.take(), u"errorChanged(NoError) finalizing errorChanged(Timeout)"_s);
        QVERIFY(task.error().places().first().file.endsWith(u"BaseTask.cpp"));
    }

    void endInsideAnEndIsIgnored()
    {
        for (const QString &event : cancelEvents.split(u' ')) {
            for (const bool quietly : {false, true}) {
                PlainTask task(BaseTask::Running);
                EventLog events(&task);
                const auto endAgain = [&] { task.finish(Error(GeneralError, u"nested"_s)), task.cancel(); };
                events.on(event, [&] { quietly ? task.setFinished() : endAgain(); });
                task.cancel();
                QCOMPARE(events.take().count(u" finished"), 1);
                QCOMPARE(task.error(), Error(Canceled, u"Canceled"_s));
            }
        }
    }

    void finishedIsLeftToTheRunThatBeganMeanwhile()
    {
        for (int bits = 0; bits < 4; ++bits) {
            const bool endsToo = bits & 2;
            PlainTask task(BaseTask::Running);
            EventLog events(&task);
            events.on(u"stateChanged(Finished)"_s, [&] {
                if (bits & 1)
                    task.setIdle();
                task.setRunning();
                if (endsToo) // the only one to tell
                    task.finish(Error(Timeout));
            });
            task.finish(Error(GeneralError));
            QCOMPARE(events.take().count(u" finished"), endsToo ? 1 : 0);
            QCOMPARE(task.isRunning(), !endsToo);
            QVERIFY(task.error().equals(endsToo ? Timeout : GeneralError));
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

    void startThatAHandlerReplacedAnnouncesNothingMore()
    {
        PlainTask task;
        EventLog events(&task);
        events.on(u"stateChanged(Running)"_s, [&] {
            task.finish();
            events.take();
            task.setRunning();
        });
        task.setRunning();
        QCOMPARE(events.take(), u"stateChanged(Running) started restarted"_s);
    }

    void signalsCanBeConnectedByNameAndQueued()
    {
        PlainTask task;
        TasksQueue queue;
        QTimer arrivals[3];
        connect(&task, SIGNAL(stateChanged(State)), &arrivals[0], SLOT(start()), Qt::QueuedConnection);
        connect(&task, SIGNAL(errorChanged(Error)), &arrivals[1], SLOT(start()), Qt::QueuedConnection);
        connect(&queue, SIGNAL(stateChanged(State)), &arrivals[2], SLOT(start()), Qt::QueuedConnection);
        task.finish();
        queue.pause();
        QCoreApplication::processEvents();
        for (const QTimer &arrival : arrivals)
            QVERIFY(arrival.isActive());
    }

    void resultIsACopy()
    {
        PlainTask task;
        task.setVariantResult(1);
        const auto &result = task.variantResult();
        task.setVariantResult(2);
        QCOMPARE(result, QVariant(1));
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
        QVERIFY(task.isFinished());
    }

    void newRunIsNotCanceled()
    {
        for (const bool throughIdle : {false, true}) {
            PlainTask task(BaseTask::Running);
            PlainTask follower;
            follower.bind(&task);
            throughIdle ? task.cancel() : std::thread([&] { task.cancel(); }).join();
            drainEvents(); // the other thread may have posted something
            QVERIFY(task.isCanceled() && follower.isCanceled());
            if (throughIdle)
                task.setIdle();
            task.setRunning();
            drainEvents();
            QVERIFY(!task.isCanceled() && !follower.isCanceled());
            QVERIFY(task.error().equals(Canceled)); // until the new run ends
        }
    }

    // A handler of canceled() sets the task idle: neither status nor error is that of the next end.
    void endThatIsAbandonedLeavesNoStatus()
    {
        PlainTask task(BaseTask::Running);
        connect(&task, &BaseTask::canceled, &task, &BaseTask::setIdle);
        task.cancel();
        QVERIFY(task.isIdle() && !task.isCanceled());
        task.setRunning();
        task.finish(Error(Timeout));
        QVERIFY(task.error().equals(Timeout) && !task.isCanceled());
    }

    // What it tells its group and its queue it tells for its source.
    void boundTaskIsFollowedToo()
    {
        Task source;
        Task follower;
        follower.bind(&source);
        TasksQueue queue;
        GroupTask group;
        group.setCleanupPolicy(GroupTask::SelfDelete);
        QSignalSpy progress(&group, &BaseTask::progress);
        queue.pause();
        queue.append(&follower);
        group.append(&follower);
        source.setRunning();
        drainEvents();
        QVERIFY(group.isRunning() && queue.count() == 1);
        source.setProgress(1, 2);
        drainEvents();
        QCOMPARE(progress.constLast(), QVariantList({1, 2}));
        source.finish();
        drainEvents();
        QVERIFY(group.isSuccessful() && queue.count() == 0);
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
        QCOMPARE(followerEvents.take(), sourceEvents.take());
        QVERIFY(follower.isRunning() && follower.error() == source.error());
        QCOMPARE(follower.variantResult(), QVariant(42));
    }

    void prioritiesOfMutuallyBoundTasksGoToTheSource()
    {
        Task source;
        Task follower;
        follower.bindMutually(&source);
        follower.setPriority(3);
        QCOMPARE(source.priority(), 3);
        source.setPriority(5);
        QCOMPARE(follower.priority(), 3);
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
            LogCapture log;
            for (qsizetype index = 0; index < row.size(); index += 2) {
                QCOMPARE(log.takeWarnings(), QStringList());
                Task &follower = tasks[row[index]];
                const Task *source = row[index + 1] < 0 ? nullptr : &tasks[row[index + 1]];
                mutually ? follower.bindMutually(source) : follower.bind(source);
            }
            QCOMPARE(log.takeWarnings().size(), 1);
            Task &refused = tasks[row[row.size() - 2]];
            EventLog events(&refused);
            refused.setPriority(7);
            refused.setProgress(1, 2);
            QCOMPARE(events.take(), u"priorityChanged(7) progress(1,2)"_s);
        }
    }

    void deletionOnFinishLooksAgain_data()
    {
        const Operation nothing = [](PlainTask &) {};
        const Operation on = [](PlainTask &task) { task.setDeleteOnFinished(true); };
        const Operation off = [](PlainTask &task) { task.setDeleteOnFinished(false); };
        const Operation restart = &BaseTask::setRunning;
        const Operation runAgain = [](PlainTask &task) { task.setRunning(), task.finish(); };
        addRows<DeleteOnFinished>({
            {"set", {true, nothing, nothing, true}},
            {"taken back in finished()", {true, off, nothing, false}},
            {"taken back after finish()", {true, nothing, off, false}},
            {"set in finished()", {false, on, nothing, false}},
            {"runs again, after finish()", {true, nothing, restart, false}},
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
        delete task.data();
    }
};

QTEST_GUILESS_MAIN(BaseTaskTest)
#include "tst_basetask.moc"
