#include "support/EventLog.h"
#include "support/Gate.h"
#include "support/LogCapture.h"
#include "support/Rows.h"
#include "support/Waiting.h"

#include <zel/tasks/Task.h>

#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QPointer>
#include <QThread>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace zel;

namespace {

/// How many threads this process has; not positive where that cannot be told.
qsizetype liveThreads()
{
    return QDir(u"/proc/self/task"_s).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size();
}

void waitForInterruption()
{
    while (!QThread::currentThread()->isInterruptionRequested())
        QThread::msleep(1);
}

/// Work that stays at the gate, whatever it is asked to do.
auto workAt(Gate *gate, const Error &result = Error())
{
    return [gate, result] { return gate->arriveAndWait(), result; };
}

std::unique_ptr<Task> stubbornTask(Gate *gate, const Error &result = Error())
{
    auto task = std::make_unique<Task>(workAt(gate, result), Task::WorkingThread);
    task->setName(u"t"_s);
    task->setThreadTerminationEnabled(false);
    task->setThreadWaitTime(0);
    return task;
}

const QStringList couldNotKill{u"Could not kill working thread for task \"t\""_s};

Error named(const QString &text)
{
    return Error(GeneralError, text);
}

struct Stop {
    std::function<void(const std::atomic<bool> &released)> work;
    int waitTime;
    bool mayTerminate;
    int waits; // how many waits run out
    bool isStopped;
};

/// A subclass whose work uses its own members.
class SubclassedTask : public Task {
public:
    explicit SubclassedTask(std::function<Error(Task *)> work) : Task(WorkingThread), m_work(std::move(work)) { }
    ~SubclassedTask() override { stopWorkingThread(); }

protected:
    Error doExec() override { return m_work(this); }

private:
    std::function<Error(Task *)> m_work;
};

/// A subclass that starts threads by itself.
class OwnThreadTask : public Task {
public:
    explicit OwnThreadTask(std::function<Error()> work) { createWorkingThread(std::move(work)); }
    ~OwnThreadTask() override { stopWorkingThread(); }
    using Task::startWorkingThread;
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

    void cleanup()
    {
        // No thread stays behind.
        QTRY_VERIFY_WITH_TIMEOUT(liveThreads() <= m_threads, 30'000);
        drainEvents();
    }

    void resultArrivesInTheThreadOfTheTask()
    {
        for (const bool execElsewhere : {false, true}) {
            Gate gate;
            const auto task = stubbornTask(&gate, named(u"x"_s));
            QThread *finishedIn = nullptr;
            const auto note = [&] { finishedIn = QThread::currentThread(); };
            connect(task.get(), &BaseTask::finished, this, note, Qt::DirectConnection);
            execElsewhere ? std::thread([&] { task->exec(); }).join() : task->exec();
            QVERIFY(gate.waitForArrival());
            QCOMPARE(gate.thread()->thread(), thread());
            if (execElsewhere)
                task->pause();
            gate.open();
            QTRY_VERIFY(task->isFinished());
            QVERIFY(finishedIn == thread() && task->error() == named(u"x"_s));
            QTRY_VERIFY(!gate.thread());
        }
    }

    void cancelStopsTheThreadOrLetsGo_data()
    {
        const auto obeys = [](const auto &) { waitForInterruption(); };
        const auto loops = [](const auto &) { QEventLoop().exec(); };
        const auto sleeps = [](const auto &released) {
            while (!released)
                QThread::msleep(1);
        };
        const auto computes = [](const auto &released) {
            while (!released) { }
        };
        addRows<Stop>({
            {"obeys the interruption", {obeys, 20'000, true, 0, true}},
            {"runs an event loop", {loops, 300, true, 1, true}},
            {"sleeps, is terminated", {sleeps, 300, true, 2, true}},
            {"computes, ignores termination", {computes, 10, true, 3, false}},
            {"computes, no wait", {computes, 0, true, 0, false}},
        });
    }

    void cancelStopsTheThreadOrLetsGo()
    {
        QFETCH(const Stop, row);
#ifdef __SANITIZE_THREAD__
        if (row.mayTerminate && row.waits > 1)
            QSKIP("ThreadSanitizer does not follow a thread that is terminated.");
#endif
        Gate gate;
        std::atomic<bool> released = false;
        Task task([&] { return gate.arrive(), row.work(released), named(u"dropped"_s); }, Task::WorkingThread);
        task.setName(u"t"_s);
        task.setThreadWaitTime(row.waitTime);
        task.setThreadTerminationEnabled(row.mayTerminate);
        EventLog events(&task);
        LogCapture log;
        task.exec();
        QVERIFY(gate.waitForArrival());

        QElapsedTimer timer;
        timer.start();
        task.cancel();
        QCOMPARE_GE(timer.elapsed(), row.waits * row.waitTime);
        QCOMPARE_LT(timer.elapsed(), row.waits * row.waitTime + 5000);
        QVERIFY(task.error().equals(Canceled));
        QCOMPARE(log.takeWarnings(), row.isStopped ? QStringList() : couldNotKill);
        QCOMPARE(!gate.thread() || gate.thread()->isFinished(), row.isStopped);

        // The work returns when it likes; nothing comes of it.
        released = true;
        QTRY_VERIFY(!gate.thread());
        drainEvents();
        QCOMPARE(events.take().count(u" finished"), 1);
    }

    void secondExecStopsTheFirstThread()
    {
        Gate first;
        const auto task = stubbornTask(&first, named(u"first"_s));
        task->exec();
        QVERIFY(first.waitForArrival());
        LogCapture log;
        Gate second;
        task->setFunction(workAt(&second, named(u"second"_s)));
        task->exec();
        QVERIFY(second.waitForArrival());
        QCOMPARE(log.takeWarnings(), couldNotKill);
        first.open();
        QTRY_VERIFY(!first.thread());
        drainEvents();
        QVERIFY(task->isRunning());
        second.open();
        QTRY_VERIFY(task->isFinished());
        QCOMPARE(task->error(), named(u"second"_s));
    }

    void endThatIsStillQueuedDoesNotFinishALaterRun()
    {
        for (const bool cancelFirst : {false, true}) {
            Gate gate;
            Task task([] { return named(u"first"_s); }, Task::WorkingThread);
            task.exec();
            QVERIFY(pollUntil([&] { return liveThreads() <= m_threads; }));
            if (cancelFirst)
                task.cancel();
            task.setFunction(workAt(&gate, named(u"second"_s)));
            task.exec();
            QVERIFY(gate.waitForArrival());
            drainEvents();
            gate.open();
            QTRY_COMPARE(task.error(), named(u"second"_s));
        }
    }

    // Nor does anybody run an event loop that would free the thread.
    void destructionDoesNotWaitForWorkThatDoesNotKnowTheTask()
    {
        Gate gate;
        LogCapture log;
        std::thread([&] {
            const auto task = stubbornTask(&gate);
            task->exec();
            gate.waitForArrival();
        }).join();
        QCOMPARE(log.takeWarnings(), couldNotKill);
        gate.open();
        QVERIFY(pollUntil([&] { return !gate.thread(); }));
    }

    void destructionWaitsForWorkThatUsesTheTask()
    {
        for (const bool subclass : {false, true}) {
            std::atomic<bool> returned = false;
            Gate gate;
            const std::function<Error(Task *)> work = [&](Task *self) {
                gate.arrive();
                waitForInterruption();
                QThread::msleep(50);
                returned = self->threadWaitTime() == 1ms;
                return Error();
            };
            std::unique_ptr<Task> task(subclass ? new SubclassedTask(work) : new Task(work, Task::WorkingThread));
            task->setThreadWaitTime(1);
            task->setThreadTerminationEnabled(false);
            task->exec();
            QVERIFY(gate.waitForArrival());
            task.reset();
            QVERIFY(returned);
        }
    }

    void stoppingWaitsForThreadsThatASubclassMade()
    {
        std::atomic<bool> returned = false;
        Gate gate;
        auto task = std::make_unique<OwnThreadTask>([&] {
            gate.arrive();
            waitForInterruption();
            QThread::msleep(50);
            return returned = true, Error();
        });
        task->setThreadWaitTime(1);
        task->setThreadTerminationEnabled(false);
        task->startWorkingThread();
        QVERIFY(gate.waitForArrival());
        task.reset();
        const bool hasWaited = returned;
        QTRY_VERIFY(returned);
        QVERIFY(hasWaited);
    }

    void waitTimeBeyondTheClockIsNotZero()
    {
        std::atomic<bool> returned = false;
        Gate gate;
        const auto work = [&] {
            gate.arrive();
            waitForInterruption();
            QThread::msleep(50);
            return returned = true, Error();
        };
        Task task(work, Task::WorkingThread);
        task.setThreadWaitTime(10'000'000'000'000); // more nanoseconds than 64 bits hold
        task.setThreadTerminationEnabled(false);
        task.exec();
        QVERIFY(gate.waitForArrival());
        task.cancel();
        const bool hasWaited = returned;
        QTRY_VERIFY(returned);
        QVERIFY(hasWaited);
    }

    void exceptionOfWorkEndsTheTask()
    {
        LogCapture log;
        Task task([]() -> Error { throw std::runtime_error("broken"); }, Task::WorkingThread);
        task.exec();
        QTRY_COMPARE(task.error(), named(u"broken"_s));
        QVERIFY(task.isFinished());
        QCOMPARE(log.take(u"critical"_s).size(), 1);
    }

    void workMayEndItsTaskFromItsOwnThread()
    {
        for (const auto code : {Canceled, Timeout}) {
            Gate gate;
            const auto work = [&](Task *self) {
                code == Canceled ? self->cancel() : self->finish(Error(code));
                gate.arriveAndWait();
                return Error(GeneralError);
            };
            Task task(work, Task::WorkingThread);
            task.setThreadWaitTime(-1);
            EventLog events(&task);
            task.exec();
            QVERIFY(gate.waitForArrival());
            QVERIFY(task.isFinished() && gate.thread());
            gate.open();
            QTRY_VERIFY(!gate.thread());
            drainEvents();
            QVERIFY(task.error().equals(code));
            QCOMPARE(events.take().count(u" finished"), 1);
        }
    }

    void workMayEndItsTaskBeforeExecReturns()
    {
        for (int round = 0; round < 2000; ++round) {
            Task task([](Task *self) { return self->finish(), Error(); }, Task::WorkingThread);
            task.exec();
            // Every other task is destroyed at once.
            QVERIFY(round % 2 || pollUntil([&] { return task.isFinished(); }));
        }
        std::atomic<int> destroyed = 0;
        for (int round = 0; round < 300; ++round) {
            auto *task = new Task([](Task *self) { return delete self, Error(); }, Task::WorkingThread);
            connect(
                task, &QObject::destroyed, this, [&] { ++destroyed; }, Qt::DirectConnection);
            task->exec();
        }
        QVERIFY(pollUntil([&] { return destroyed == 300; }));
    }

private:
    qsizetype m_threads = 0;
};

QTEST_GUILESS_MAIN(WorkingThreadTest)
#include "tst_workingthread.moc"
