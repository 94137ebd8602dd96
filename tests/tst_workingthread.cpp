#include "support/EventLog.h"
#include "support/Gate.h"
#include "support/LogCapture.h"
#include "support/Waiting.h"

#include <zel/tasks/Task.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QPointer>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QTest>
#include <QThread>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#ifdef Q_OS_LINUX
#include <pthread.h>
#endif

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace zel;

namespace {

/// How many threads this process has; not positive where that cannot be told.
qsizetype liveThreads()
{
    return QDir(u"/proc/self/task"_s).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size();
}

bool isInterrupted()
{
    return QThread::currentThread()->isInterruptionRequested();
}

const QString couldNotKill = u"Could not kill working thread for task \"t\""_s;

/// A task whose work ignores every request to stop until the gate opens.
std::unique_ptr<Task> stubbornTask(Gate *gate, const Error &result = Error())
{
    auto task = std::make_unique<Task>(
        [gate, result] {
            gate->arriveAndWait();
            return result;
        },
        Task::WorkingThread);
    task->setName(u"t"_s);
    task->setThreadTerminationEnabled(false);
    task->setThreadWaitTime(0);
    return task;
}

/// A subclass whose work uses its own members.
class SubclassedTask : public Task {
public:
    SubclassedTask() : Task(WorkingThread) { }
    ~SubclassedTask() override { stopWorkingThread(); }

    Gate gate;
    std::atomic<bool> *returned = nullptr;

protected:
    Error doExec() override
    {
        gate.arrive();
        while (!isInterrupted())
            QThread::msleep(1);
        QThread::msleep(50);
        m_steps.push_back(1);
        *returned = true;
        return Error();
    }

private:
    std::vector<int> m_steps;
};

class OpenTask : public Task {
public:
    using Task::createWorkingThread;
    using Task::deleteWorkingThread;
    using Task::interruptWorkingThread;
    using Task::quitWorkingThread;
    using Task::startWorkingThread;
    using Task::Task;
    using Task::terminateWorkingThread;
};

} // namespace

class WorkingThreadTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        failOnQtWarnings();
        m_threads = liveThreads();
    }

    // Whatever a test did: no thread stays behind.
    void cleanup()
    {
        QTRY_VERIFY_WITH_TIMEOUT(liveThreads() <= m_threads, 30'000);
        drainEvents();
    }

    void resultArrivesInTheThreadOfTheTask_data()
    {
        QTest::addColumn<bool>("execElsewhere");
        QTest::newRow("exec() in the task's thread") << false;
        QTest::newRow("exec() in another thread") << true;
    }

    void resultArrivesInTheThreadOfTheTask()
    {
        QFETCH(bool, execElsewhere);
        Gate gate;
        const auto task = stubbornTask(&gate, Error(GeneralError, u"x"_s));
        QThread *finishedIn = nullptr;
        connect(
            task.get(), &BaseTask::finished, this, [&] { finishedIn = QThread::currentThread(); },
            Qt::DirectConnection);
        if (execElsewhere)
            std::thread([&] { task->exec(); }).join();
        else
            task->exec();
        QVERIFY(gate.waitForArrival());
        QVERIFY(gate.thread() != thread());
        QCOMPARE(gate.thread()->thread(), task->thread());
        drainEvents();
        QVERIFY(task->isRunning());

        gate.open();
        QTRY_VERIFY(task->isFinished());
        QCOMPARE(task->error(), Error(GeneralError, u"x"_s));
        QCOMPARE(finishedIn, task->thread());
        QTRY_VERIFY(!gate.thread());
    }

    void cancelStopsTheThreadOrLetsGo_data()
    {
        QTest::addColumn<QString>("work");
        QTest::addColumn<int>("waitTime");
        QTest::addColumn<bool>("mayTerminate");
        QTest::addColumn<int>("waits"); // how many waits run out
        QTest::newRow("obeys the interruption") << u"obeys"_s << 20'000 << true << 0;
        QTest::newRow("runs an event loop") << u"loops"_s << 300 << true << 1;
        QTest::newRow("sleeps, is terminated") << u"sleeps"_s << 300 << true << 2;
        QTest::newRow("computes, ignores termination") << u"computes"_s << 10 << true << 3;
        QTest::newRow("computes, termination off") << u"computes"_s << 10 << false << 2;
        QTest::newRow("sleeps, termination off") << u"sleeps"_s << 10 << false << 2;
        QTest::newRow("computes, no wait") << u"computes"_s << 0 << true << 0;
    }

    void cancelStopsTheThreadOrLetsGo()
    {
        QFETCH(QString, work);
        QFETCH(int, waitTime);
        QFETCH(bool, mayTerminate);
        QFETCH(int, waits);
        const bool isStopped = waitTime >= 300;

        Gate gate;
        std::atomic<bool> released = false;
        Task task(
            [&] {
                gate.arrive();
                if (work == u"obeys") {
                    while (!isInterrupted())
                        QThread::yieldCurrentThread();
                } else if (work == u"loops") {
                    QEventLoop().exec();
                } else if (work == u"sleeps") {
                    while (!released)
                        QThread::msleep(1);
                } else {
                    while (!released) { }
                }
                return Error(GeneralError, u"dropped"_s);
            },
            Task::WorkingThread);
        task.setName(u"t"_s);
        task.setThreadWaitTime(waitTime);
        task.setThreadTerminationEnabled(mayTerminate);
        EventLog events(&task);
        LogCapture log;
        task.exec();
        QVERIFY(gate.waitForArrival());

        QElapsedTimer timer;
        timer.start();
        task.cancel();
        const qint64 elapsed = timer.elapsed();
        QCOMPARE_GE(elapsed, qint64(waits) * waitTime);
        QCOMPARE_LT(elapsed, qint64(waits) * waitTime + 5000);
        QVERIFY(task.error().equals(Canceled));
        QCOMPARE(log.takeWarnings(), isStopped ? QStringList() : QStringList{couldNotKill});
        QCOMPARE(!gate.thread() || gate.thread()->isFinished(), isStopped);

        // The work returns when it likes; nothing comes of it.
        released = true;
        QTRY_VERIFY(!gate.thread());
        drainEvents();
        QVERIFY(task.error().equals(Canceled));
        QCOMPARE(events.take().count(u" finished"), 1);
    }

    void negativeWaitTimeIsNoLimit()
    {
        Gate gate;
        Task task(
            [&] {
                gate.arrive();
                while (!isInterrupted())
                    QThread::yieldCurrentThread();
                QThread::msleep(200);
                return Error();
            },
            Task::WorkingThread);
        task.setThreadWaitTime(-1);
        LogCapture log;
        task.exec();
        QVERIFY(gate.waitForArrival());
        QElapsedTimer timer;
        timer.start();
        task.cancel();
        QCOMPARE_GE(timer.elapsed(), 200);
        QCOMPARE_LT(timer.elapsed(), 10'000);
        QCOMPARE(log.takeWarnings(), QStringList());
    }

    void threadIsFreedWithoutAnEventLoop()
    {
        Gate gate;
        LogCapture log;
        std::thread([&] {
            const auto task = stubbornTask(&gate);
            task->exec();
            gate.waitForArrival();
            task->cancel();
        }).join();
        QCOMPARE(log.takeWarnings(), QStringList{couldNotKill});
        QVERIFY(gate.thread()->isRunning());
        gate.open();
        QVERIFY(pollUntil([&] { return !gate.thread(); }));
    }

    void secondExecStopsTheFirstThread()
    {
        Gate first;
        const auto task = stubbornTask(&first, Error(GeneralError, u"first"_s));
        task->exec();
        QVERIFY(first.waitForArrival());

        EventLog events(task.get());
        LogCapture log;
        task->setFunction([] { return Error(GeneralError, u"second"_s); });
        task->exec();
        QTRY_VERIFY(task->isFinished());
        QCOMPARE(log.takeWarnings(), QStringList{couldNotKill});
        QCOMPARE(task->error().text(), u"second"_s);
        QCOMPARE(events.take(),
                 u"stateChanged(Running) errorChanged(GeneralError) stateChanged(Finalizing) finalizing "
                 "stateChanged(Finished) finished"_s);

        Gate third;
        task->setFunction([&] {
            third.arriveAndWait();
            return Error(GeneralError, u"third"_s);
        });
        task->exec();
        QVERIFY(third.waitForArrival());
        first.open();
        QTRY_VERIFY(!first.thread());
        drainEvents();
        QVERIFY(task->isRunning());
        third.open();
        QTRY_VERIFY(task->isFinished());
        QCOMPARE(task->error().text(), u"third"_s);
    }

    void endThatIsStillQueuedDoesNotFinishALaterRun_data()
    {
        QTest::addColumn<bool>("cancelFirst");
        QTest::newRow("exec() while running") << false;
        QTest::newRow("canceled and run again") << true;
    }

    void endThatIsStillQueuedDoesNotFinishALaterRun()
    {
        QFETCH(bool, cancelFirst);
        Task task([] { return Error(GeneralError, u"first"_s); }, Task::WorkingThread);
        const qsizetype threads = liveThreads();
        task.exec();
        QVERIFY(pollUntil([&] { return liveThreads() == threads; }));
        if (cancelFirst)
            task.cancel();

        Gate gate;
        task.setFunction([&] {
            gate.arriveAndWait();
            return Error(GeneralError, u"second"_s);
        });
        task.exec();
        QVERIFY(gate.waitForArrival());
        drainEvents();
        QVERIFY(task.isRunning());
        gate.open();
        QTRY_VERIFY(task.isFinished());
        QCOMPARE(task.error().text(), u"second"_s);
    }

    void destructionDoesNotWaitForWorkThatDoesNotKnowTheTask()
    {
        Gate gate;
        auto task = stubbornTask(&gate);
        EventLog events(task.get());
        LogCapture log;
        task->exec();
        QVERIFY(gate.waitForArrival());
        events.take();
        task.reset(); // the work stands at the gate until below
        QCOMPARE(events.take(), u"aboutToDestroy"_s);
        QCOMPARE(log.takeWarnings(), QStringList{couldNotKill});
        QVERIFY(gate.thread()->isRunning());
        gate.open();
        QTRY_VERIFY(!gate.thread());
    }

    void destructionWaitsForWorkThatUsesTheTask_data()
    {
        QTest::addColumn<bool>("subclass");
        QTest::newRow("work that was handed the task") << false;
        QTest::newRow("override that uses members") << true;
    }

    void destructionWaitsForWorkThatUsesTheTask()
    {
        QFETCH(bool, subclass);
        std::atomic<bool> returned = false;
        Gate gate;
        Gate *met = &gate;
        std::unique_ptr<Task> task;
        if (subclass) {
            auto subclassed = std::make_unique<SubclassedTask>();
            subclassed->returned = &returned;
            met = &subclassed->gate;
            task = std::move(subclassed);
        } else {
            task = std::make_unique<Task>(
                [&](Task *self) {
                    gate.arrive();
                    while (!isInterrupted())
                        QThread::msleep(1);
                    QThread::msleep(50);
                    returned = self->threadWaitTime() == 1ms;
                    return Error();
                },
                Task::WorkingThread);
        }
        task->setThreadWaitTime(1);
        task->setThreadTerminationEnabled(false);
        task->exec();
        QVERIFY(met->waitForArrival());
        task.reset();
        QVERIFY(returned);
    }

    void workMayEndItsTaskFromItsOwnThread_data()
    {
        QTest::addColumn<bool>("cancels");
        QTest::newRow("finish()") << false;
        QTest::newRow("cancel()") << true;
    }

    void workMayEndItsTaskFromItsOwnThread()
    {
        QFETCH(bool, cancels);
        Gate gate;
        Task task(
            [&](Task *self) {
                cancels ? self->cancel() : self->finish(Error(Timeout));
                gate.arriveAndWait();
                return Error(GeneralError);
            },
            Task::WorkingThread);
        task.setThreadWaitTime(-1);
        EventLog events(&task);
        LogCapture log;
        task.exec();
        QVERIFY(gate.waitForArrival());
        drainEvents();
        QVERIFY(task.isFinished());
        QVERIFY(gate.thread());
        gate.open();
        QTRY_VERIFY(!gate.thread());
        drainEvents();
        QVERIFY(task.error().equals(cancels ? Canceled : Timeout));
        QCOMPARE(events.take().count(u" finished"), 1);
        QCOMPARE(log.takeWarnings(), QStringList());
    }

    void workMayEndItsTaskBeforeExecReturns_data()
    {
        QTest::addColumn<bool>("waits");
        QTest::newRow("then wait") << true;
        QTest::newRow("then destroy the task at once") << false;
    }

    void workMayEndItsTaskBeforeExecReturns()
    {
        QFETCH(bool, waits);
        for (int round = 0; round < 1000; ++round) {
            Task task(
                [](Task *self) {
                    self->finish();
                    return Error();
                },
                Task::WorkingThread);
            task.exec();
            QVERIFY(!waits || pollUntil([&] { return task.isFinished(); }));
        }
    }

    void pausedTaskIsFinishedByItsThread()
    {
        Gate gate;
        const auto task = stubbornTask(&gate, Error(Timeout));
        task->exec();
        QVERIFY(gate.waitForArrival());
        task->pause();
        gate.open();
        QTRY_VERIFY(task->isFinished());
        QVERIFY(task->error().equals(Timeout));
    }

    void functionMayBeReplacedWhileTheThreadStarts()
    {
        Task task(Task::WorkingThread);
        task.setThreadWaitTime(-1);
        for (int round = 0; round < 200; ++round) {
            task.setFunction([text = QString(round, u'x')] { return Error(Timeout, text); });
            task.exec();
            task.setFunction([](Task *) { return Error(GeneralError); });
            QVERIFY(pollUntil([&] {
                QCoreApplication::processEvents();
                return task.isFinished();
            }));
            QVERIFY(task.error() == Error(Timeout, QString(round, u'x')) || task.error() == Error(GeneralError));
        }
    }

    void stopRequestsTellWhetherAThreadIsLeft()
    {
        LogCapture log;
        OpenTask task;
        QVERIFY(task.interruptWorkingThread() && task.quitWorkingThread() && task.terminateWorkingThread());
        task.setThreadTerminationEnabled(false);
        QVERIFY(!task.terminateWorkingThread());

        // Made, never started: a stop has nothing to do, and neither has the destructor.
        task.createWorkingThread([] { return Error(); });
        QVERIFY(task.interruptWorkingThread() && task.quitWorkingThread());
        task.deleteWorkingThread();
        task.createWorkingThread([] { return Error(); });

        Gate gate;
        OpenTask running;
        running.setName(u"t"_s);
        running.createWorkingThread([&] {
            gate.arriveAndWait();
            return Error();
        });
        running.startWorkingThread();
        QVERIFY(gate.waitForArrival());
        QVERIFY(!running.interruptWorkingThread() && !running.quitWorkingThread());
        QCOMPARE(log.takeWarnings(), QStringList());
        gate.open();
    }

    void threadThatCannotBeStartedEndsItsTask()
    {
#if defined(Q_OS_LINUX) && !defined(__SANITIZE_ADDRESS__)
        pthread_attr_t attributes;
        pthread_attr_t tooLarge;
        QCOMPARE(pthread_getattr_default_np(&attributes), 0);
        QCOMPARE(pthread_getattr_default_np(&tooLarge), 0);
        pthread_attr_setstacksize(&tooLarge, size_t(1) << 60);
        QCOMPARE(pthread_setattr_default_np(&tooLarge), 0);
        const auto restore = qScopeGuard([&] { pthread_setattr_default_np(&attributes); });

        QTest::ignoreMessage(QtCriticalMsg, QRegularExpression(u"Thread creation error"_s));
        bool ran = false;
        Task task(
            [&] {
                ran = true;
                return Error();
            },
            Task::WorkingThread);
        EventLog events(&task);
        task.exec();
        QTRY_VERIFY(task.isFinished());
        drainEvents();
        QVERIFY(task.error().equals(GeneralError));
        QVERIFY(!task.error().text().isEmpty());
        QVERIFY(!ran);
        QCOMPARE(events.take().count(u" finished"), 1);

        pthread_setattr_default_np(&attributes);
        task.exec();
        QTRY_VERIFY(task.isSuccessful());
        QVERIFY(ran);
#else
        QSKIP("no way to keep threads from starting here");
#endif
    }

private:
    qsizetype m_threads = 0;
};

QTEST_GUILESS_MAIN(WorkingThreadTest)
#include "tst_workingthread.moc"
