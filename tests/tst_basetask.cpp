#include "support/EventLog.h"
#include "support/LogCapture.h"
#include "support/Waiting.h"

#include <zel/tasks/BaseTask.h>
#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QMetaEnum>
#include <QMetaMethod>
#include <QPointer>
#include <QTest>

#include <memory>
#include <thread>

using namespace Qt::StringLiterals;
using namespace zel;

static_assert(std::is_same_v<std::underlying_type_t<BaseTask::State>, int>);
static_assert(BaseTask::Idle == 0 && BaseTask::Running == 1 && BaseTask::Paused == 2 && BaseTask::Finalizing == 3
              && BaseTask::Finished == 4);
static_assert(BaseTask::ProcessAllEvents == 0 && BaseTask::ExcludeUserInput == 1);

namespace {

class PlainTask : public BaseTask {
public:
    explicit PlainTask(State state = Idle, const Error &outcome = Error()) : BaseTask(nullptr), finishError(outcome)
    {
        setName(u"t"_s);
        if (state != Idle)
            setRunning();
        if (state == Paused)
            pause();
        else if (state == Finalizing)
            finalize();
        else if (state == Finished)
            finish();
    }
    using BaseTask::setState;

    Error finishError;

protected:
    Error doFinish() override { return finishError; }
};

using Operation = std::function<void(PlainTask &)>;

QString key(int state)
{
    return QString::fromLatin1(QMetaEnum::fromType<BaseTask::State>().valueToKey(state));
}

QString stateLine(int from, int to)
{
    return u"info Task \"t\" : %1 => \"%2\""_s.arg(key(from), key(to));
}

QString signatures(const QMetaObject &metaObject)
{
    QStringList result;
    for (int index = metaObject.methodOffset(); index < metaObject.methodCount(); ++index)
        result.append(QString::fromLatin1(metaObject.method(index).methodSignature()));
    return result.join(u' ');
}

const QString endOfRun = u"stateChanged(Finalizing) finalizing stateChanged(Finished) finished"_s;

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
        QTest::addColumn<BaseTask::State>("from");
        QTest::addColumn<Operation>("operation");
        QTest::addColumn<BaseTask::State>("to");
        QTest::addColumn<QString>("signalsInOrder");
        QTest::addColumn<QStringList>("logLines");

        const QString setting = u"debug Setting error Error("_s;
        for (const auto from :
             {BaseTask::Idle, BaseTask::Running, BaseTask::Paused, BaseTask::Finalizing, BaseTask::Finished}) {
            const auto row = [from](const char *name, const Operation &operation, BaseTask::State to,
                                    const QString &signalsInOrder, const QStringList &logLines) {
                QTest::addRow("%s, %s", name, qPrintable(key(from)))
                    << from << operation << to << signalsInOrder << logLines;
            };
            const bool isPaused = from == BaseTask::Paused;
            const bool isFinished = from == BaseTask::Finished;
            const QStringList endLines{u"debug Task \"t\" => Finalizing"_s, stateLine(from, BaseTask::Finalizing),
                                       u"debug Task \"t\" finished."_s,
                                       stateLine(BaseTask::Finalizing, BaseTask::Finished)};

            row("setIdle", &BaseTask::setIdle, BaseTask::Idle, u"stateChanged(Idle)"_s,
                {stateLine(from, BaseTask::Idle)});
            row("setFinished", &BaseTask::setFinished, BaseTask::Finished, u"stateChanged(Finished)"_s,
                {stateLine(from, BaseTask::Finished)});
            row("finalize", &BaseTask::finalize, BaseTask::Finalizing, u"stateChanged(Finalizing) finalizing"_s,
                endLines.first(2));
            row("setRunning", &BaseTask::setRunning, BaseTask::Running,
                u"stateChanged(Running)"_s + (from == BaseTask::Idle ? u" started"_s : QString())
                    + (isFinished ? u" started restarted"_s : QString()),
                {stateLine(from, BaseTask::Running)});

            if (isPaused) {
                row("pause", &BaseTask::pause, BaseTask::Paused, QString(), {});
                row("resume", &BaseTask::resume, BaseTask::Running, u"resumed stateChanged(Running)"_s,
                    {u"info Task \"t\" => Resumed"_s, stateLine(from, BaseTask::Running)});
            } else {
                row("pause", &BaseTask::pause, BaseTask::Paused, u"paused stateChanged(Paused)"_s,
                    {u"info Task \"t\" => Paused"_s, stateLine(from, BaseTask::Paused)});
                row("resume", &BaseTask::resume, from, QString(), {});
            }

            const Operation succeed = [](PlainTask &task) { task.finish(); };
            const Operation fail = [](PlainTask &task) { task.finish(Error(GeneralError, u"x"_s)); };
            if (isFinished) {
                row("finish", succeed, BaseTask::Finished, QString(), {});
                row("finish with an error", fail, BaseTask::Finished, QString(), {});
                row("cancel", &BaseTask::cancel, BaseTask::Finished, QString(), {});
            } else {
                row("finish", succeed, BaseTask::Finished, u"errorChanged(NoError) "_s + endOfRun, endLines);
                row("finish with an error", fail, BaseTask::Finished, u"errorChanged(GeneralError) "_s + endOfRun,
                    QStringList{setting} + endLines);
                row("cancel", &BaseTask::cancel, BaseTask::Finished, u"canceled errorChanged(Canceled) "_s + endOfRun,
                    QStringList{u"info Task \"t\" => Canceled"_s, setting} + endLines);
            }
        }
    }

    void transitions()
    {
        QFETCH(BaseTask::State, from);
        QFETCH(Operation, operation);
        QFETCH(BaseTask::State, to);
        QFETCH(QString, signalsInOrder);
        QFETCH(QStringList, logLines);

        PlainTask task(from);
        QCOMPARE(task.state(), from);
        EventLog events(&task);
        LogCapture log;
        operation(task);

        QCOMPARE(task.state(), to);
        QCOMPARE(task.stateString(), key(to));
        QCOMPARE(events.take(), signalsInOrder);
        QStringList lines = log.take();
        for (QString &line : lines) {
            // How an error is written is not the subject here.
            if (line.startsWith(u"debug Setting error Error("))
                line.truncate(line.indexOf(u'(') + 1);
        }
        QCOMPARE(lines, logLines);
    }

    void errorOfDoFinishReplacesTheOutcome()
    {
        PlainTask task(BaseTask::Running, Error(Timeout, u"cleaning up"_s));
        EventLog events(&task);
        task.finish();
        QCOMPARE(events.take(),
                 u"errorChanged(NoError) stateChanged(Finalizing) finalizing errorChanged(Timeout) "
                 "stateChanged(Finished) finished"_s);
        QCOMPARE(task.error(), Error(Timeout, u"cleaning up"_s));
        QCOMPARE(task.error().places().size(), 1);
        QVERIFY(task.error().places().first().function.contains(u"finish"));
        QVERIFY(task.error().places().first().file.endsWith(u"BaseTask.cpp"));
    }

    void outcomeInsideARunIsIgnored_data()
    {
        QTest::addColumn<QString>("event");
        const QString all = u"canceled errorChanged(Canceled) "_s + endOfRun;
        for (const QString &event : all.split(u' '))
            QTest::newRow(qPrintable(event)) << event;
    }

    void outcomeInsideARunIsIgnored()
    {
        QFETCH(QString, event);
        PlainTask task(BaseTask::Running);
        EventLog events(&task);
        events.on(event, [&] {
            task.finish(Error(GeneralError, u"nested"_s));
            task.cancel();
        });
        task.cancel();
        QCOMPARE(events.take(), u"canceled errorChanged(Canceled) "_s + endOfRun);
        QCOMPARE(task.error(), Error(Canceled, u"Canceled"_s));
    }

    void tasksThatCancelEachOtherEndOnce()
    {
        PlainTask first(BaseTask::Running);
        PlainTask second(BaseTask::Running);
        connect(&first, &BaseTask::canceled, &second, &BaseTask::cancel);
        connect(&second, &BaseTask::canceled, &first, &BaseTask::cancel);
        EventLog events;
        events.keepOnly({u"canceled"_s, u"finished"_s});
        events.watch(&first, u"first"_s);
        events.watch(&second, u"second"_s);
        first.cancel();
        QCOMPARE(events.take().count(u"canceled"_s), 2);
        QVERIFY(first.isFinished() && second.isFinished());
        QVERIFY(first.error().equals(Canceled) && second.error().equals(Canceled));
    }

    void finishedIsLeftToTheRunThatBeganMeanwhile_data()
    {
        QTest::addColumn<Operation>("restart");
        QTest::newRow("set running") << Operation(&BaseTask::setRunning);
        QTest::newRow("set idle, then running") << Operation([](PlainTask &task) {
            task.setIdle();
            task.setRunning();
        });
    }

    void finishedIsLeftToTheRunThatBeganMeanwhile()
    {
        QFETCH(Operation, restart);
        PlainTask task(BaseTask::Running);
        EventLog events(&task);
        events.on(u"stateChanged(Finished)"_s, [&] { restart(task); });
        task.finish(Error(GeneralError));
        QVERIFY(!events.take().contains(u" finished"));
        QVERIFY(task.isRunning());
        task.finish();
        QCOMPARE(events.take(), u"errorChanged(NoError) "_s + endOfRun);

        // A whole run inside the end of another: the inner one is the only one to tell.
        events.on(u"stateChanged(Finished)"_s, [&] {
            restart(task);
            task.finish(Error(Timeout));
        });
        task.setRunning();
        task.finish(Error(GeneralError));
        QCOMPARE(events.take().count(u" finished"), 1);
        QVERIFY(task.error().equals(Timeout));
    }

    void handlerMayDeleteTheTask_data()
    {
        QTest::addColumn<BaseTask::State>("from");
        QTest::addColumn<Operation>("operation");
        QTest::addColumn<Error>("finishError");
        const auto row = [](const char *name, BaseTask::State from, const Operation &operation,
                            const Error &finishError = Error()) {
            QTest::newRow(name) << from << operation << finishError;
        };
        row("setIdle", BaseTask::Running, &BaseTask::setIdle);
        row("start", BaseTask::Idle, &BaseTask::setRunning);
        row("restart", BaseTask::Finished, &BaseTask::setRunning);
        row("pause", BaseTask::Running, &BaseTask::pause);
        row("resume", BaseTask::Paused, &BaseTask::resume);
        row("finalize", BaseTask::Running, &BaseTask::finalize);
        row("cancel", BaseTask::Running, &BaseTask::cancel);
        row("cancel, doFinish fails", BaseTask::Running, &BaseTask::cancel, Error(Timeout));
        row("setFinished", BaseTask::Running, &BaseTask::setFinished);
        row("clearError", BaseTask::Running, &BaseTask::clearError);
        row("setProgress", BaseTask::Running, [](PlainTask &task) { task.setProgress(1, 2); });
        row("setProgressText", BaseTask::Running, [](PlainTask &task) { task.setProgressText(u"x"_s); });
        row("finish and delete", BaseTask::Running, [](PlainTask &task) {
            task.setDeleteOnFinished(true);
            task.finish();
        });
        row("operations of a followed task", BaseTask::Idle, [](PlainTask &task) {
            PlainTask source;
            task.bind(&source);
            source.setRunning();
            source.setProgress(1, 2);
            source.pause();
            source.resume();
            source.setVariantResult(3);
            source.cancel();
        });
    }

    void handlerMayDeleteTheTask()
    {
        QFETCH(BaseTask::State, from);
        QFETCH(Operation, operation);
        QFETCH(Error, finishError);
        QCOMPARE(eventsAfterDeletion([&] { return new PlainTask(from, finishError); },
                                     [&](BaseTask *task) { operation(*static_cast<PlainTask *>(task)); }),
                 QString());
    }

    void resumeReturnsToTheStateThatWasLeft()
    {
        PlainTask task(BaseTask::Paused);
        EventLog events(&task);
        events.on(u"resumed"_s, [&] { task.setState(BaseTask::Paused); });
        task.resume();
        QCOMPARE(events.take(), u"resumed stateChanged(Paused) stateChanged(Running)"_s);
        QCOMPARE(task.previousState(), BaseTask::Paused);

        PlainTask finished(BaseTask::Finished);
        finished.pause();
        finished.resume();
        QVERIFY(finished.isFinished());
    }

    void handlerOfResumedMayChangeTheState()
    {
        PlainTask task(BaseTask::Paused);
        EventLog events(&task);
        events.on(u"resumed"_s, [&] { task.finish(Error(Timeout)); });
        task.resume();
        QVERIFY(task.isFinished());
        QCOMPARE(events.take(), u"resumed errorChanged(Timeout) "_s + endOfRun);

        PlainTask left(BaseTask::Idle);
        left.pause();
        connect(&left, &BaseTask::resumed, &left, &BaseTask::setRunning);
        left.resume();
        QVERIFY(left.isRunning());
    }

    void newRunIsNotCanceled_data()
    {
        QTest::addColumn<bool>("throughIdle");
        QTest::addColumn<bool>("canceledElsewhere");
        QTest::newRow("set running") << false << false;
        QTest::newRow("set idle, then running") << true << false;
        QTest::newRow("canceled on another thread") << false << true;
    }

    void newRunIsNotCanceled()
    {
        QFETCH(bool, throughIdle);
        QFETCH(bool, canceledElsewhere);
        PlainTask task(BaseTask::Running);
        PlainTask follower;
        if (!canceledElsewhere) // the relay of another thread's signals comes late
            follower.bind(&task);
        canceledElsewhere ? std::thread([&] { task.cancel(); }).join() : task.cancel();
        QVERIFY(task.isCanceled());
        if (throughIdle)
            task.setIdle();
        task.setRunning();
        drainEvents(); // nothing of the old run may be on the way
        QVERIFY(!task.isCanceled());
        QVERIFY(!follower.isCanceled());
        QVERIFY(task.error().equals(Canceled)); // until the new run ends
        task.finish(Error(GeneralError));
        QVERIFY(!task.isCanceled());
        QVERIFY(!follower.isCanceled());
    }

    void finishCanBeInvokedByName()
    {
        PlainTask task(BaseTask::Running);
        QVERIFY(QMetaObject::invokeMethod(&task, "finish", Qt::QueuedConnection,
                                          Q_ARG(Err, Error(GeneralError, u"by name"_s))));
        QVERIFY(task.isRunning());
        drainEvents();
        QVERIFY(task.isFinished());
        QCOMPARE(task.error(), Error(GeneralError, u"by name"_s));

        task.setRunning();
        QVERIFY(QMetaObject::invokeMethod(&task, "finish", Qt::QueuedConnection));
        drainEvents();
        QVERIFY(task.isSuccessful());
    }

    void boundTaskFollowsItsSource()
    {
        PlainTask source;
        PlainTask middle;
        PlainTask follower;
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
        QCOMPARE(follower.currentProgress(), 0);
        QCOMPARE(follower.progressText(), QString());
    }

    void bindThatMakesNoSenseIsRefused_data()
    {
        QTest::addColumn<QList<int>>("bound"); // follower and source, in turn; the last pair is refused
        QTest::newRow("null") << QList<int>{0, -1};
        QTest::newRow("itself") << QList<int>{0, 0};
        QTest::newRow("each other") << QList<int>{0, 1, 1, 0};
        QTest::newRow("circle of three") << QList<int>{0, 1, 1, 2, 2, 0};
        QTest::newRow("circle with a branch") << QList<int>{0, 1, 0, 2, 3, 0, 2, 3};
    }

    void bindThatMakesNoSenseIsRefused()
    {
        QFETCH(QList<int>, bound);
        for (const bool mutually : {false, true}) {
            Task tasks[4];
            const auto bind = [&](int follower, int source) {
                const Task *task = source < 0 ? nullptr : &tasks[source];
                mutually ? tasks[follower].bindMutually(task) : tasks[follower].bind(task);
            };
            LogCapture log;
            for (qsizetype pair = 0; pair < bound.size() - 2; pair += 2)
                bind(bound[pair], bound[pair + 1]);
            QCOMPARE(log.takeWarnings(), QStringList());
            bind(bound[bound.size() - 2], bound.last());
            QCOMPARE(log.takeWarnings().size(), 1);

            Task &refused = tasks[bound[bound.size() - 2]];
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
        LogCapture log;
        last.bind(&first);
        QCOMPARE(log.takeWarnings(), QStringList());
        first.setRunning();
        QVERIFY(last.isRunning());
    }

    void mutualBindCopiesPrioritiesOneWay()
    {
        Task outer;
        Task inner;
        outer.bindMutually(&inner);
        EventLog events(&inner);
        outer.setPriority(1); // as before
        outer.setPriority(3);
        outer.setPriority(3);
        QCOMPARE(events.take(), u"priorityChanged(3)"_s);
        inner.setPriority(5);
        QCOMPARE(outer.priority(), 3);
        inner.setRunning();
        QVERIFY(outer.isRunning());
    }

    void deletionOnFinishLooksAgain_data()
    {
        QTest::addColumn<bool>("before"); // the flag when the task finishes
        QTest::addColumn<Operation>("duringFinished");
        QTest::addColumn<Operation>("afterFinish");
        QTest::addColumn<bool>("deleted");

        const Operation nothing = [](PlainTask &) {};
        const Operation on = [](PlainTask &task) { task.setDeleteOnFinished(true); };
        const Operation off = [](PlainTask &task) { task.setDeleteOnFinished(false); };
        const Operation restart = &BaseTask::setRunning;
        const Operation pauseAndResume = [](PlainTask &task) {
            task.pause();
            task.resume();
        };
        const Operation runAgain = [](PlainTask &task) {
            task.setRunning();
            task.finish();
        };
        QTest::newRow("set") << true << nothing << nothing << true;
        QTest::newRow("not set") << false << nothing << nothing << false;
        QTest::newRow("set twice") << true << on << on << true;
        QTest::newRow("taken back in finished()") << true << off << nothing << false;
        QTest::newRow("taken back after finish()") << true << nothing << off << false;
        QTest::newRow("set in finished()") << false << on << nothing << false;
        QTest::newRow("set after finish()") << false << nothing << on << false;
        QTest::newRow("runs again, in finished()") << true << restart << nothing << false;
        QTest::newRow("runs again, after finish()") << true << nothing << restart << false;
        QTest::newRow("paused and resumed") << true << nothing << pauseAndResume << true;
        QTest::newRow("ran again") << true << nothing << runAgain << true;
    }

    void deletionOnFinishLooksAgain()
    {
        QFETCH(bool, before);
        QFETCH(Operation, duringFinished);
        QFETCH(Operation, afterFinish);
        QFETCH(bool, deleted);

        const QPointer<PlainTask> task = new PlainTask(BaseTask::Running);
        task->setDeleteOnFinished(before);
        EventLog events(task);
        events.on(u"finished"_s, [&] { duringFinished(*task); });
        task->finish();
        QVERIFY(task);
        afterFinish(*task);
        drainEvents();
        QCOMPARE(task.isNull(), deleted);
        if (!task)
            return;

        if (task->isRunning()) {
            task->finish();
            drainEvents();
            QVERIFY(!task);
        }
        delete task.data();
    }

    void destructionEmitsNothing()
    {
        auto task = std::make_unique<PlainTask>(BaseTask::Running);
        EventLog events(task.get());
        LogCapture log;
        task.reset();
        QCOMPARE(events.take(), QString());
        QCOMPARE(log.take(), QStringList{u"debug Deleting \"t\""_s});
    }
};

QTEST_GUILESS_MAIN(BaseTaskTest)
#include "tst_basetask.moc"
