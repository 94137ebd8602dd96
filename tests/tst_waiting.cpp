#include "support/EventLog.h"
#include "support/Rows.h"
#include "support/Waiting.h"

#include <zel/tasks/Task.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QPointer>
#include <QRandomGenerator>
#include <QSemaphore>
#include <QThread>
#include <QTimer>

#include <functional>
#include <limits>
#include <memory>

using namespace Qt::StringLiterals;
using namespace zel;

namespace {

const Error failure(GeneralError, u"failed"_s);

struct End {
    std::function<void(Task *)> end;
    Error outcome;
};

/// A task that somebody else ends.
std::unique_ptr<Task> runningTask()
{
    auto task = std::make_unique<Task>(Task::Asynchronous);
    task->exec();
    return task;
}

Error waitFor(const BaseTask &task, bool all, int msec = -1)
{
    return all ? task.waitForAllFinished(msec) : task.waitForFinished(msec);
}

/// Posted to the waiting thread: runs in the local loop of the wait that is called next.
void duringWait(std::function<void()> action)
{
    QTimer::singleShot(0, qApp, std::move(action));
}

/// A thread that runs calls one after another while the test waits, and is joined at the end.
class Helper {
public:
    Helper()
    {
        m_thread.start();
        m_context.moveToThread(&m_thread);
    }
    ~Helper()
    {
        post([this] { m_thread.quit(); });
        m_thread.wait();
    }
    void post(std::function<void()> call) { QMetaObject::invokeMethod(&m_context, std::move(call)); }
    QThread *thread() { return &m_thread; }

private:
    QThread m_thread;
    QObject m_context;
};

} // namespace

class tst_waiting : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { failOnQtWarnings(); }

    void waitEndsWithOutcome_data()
    {
        addRows<End>({
            {"finishes", {[](Task *task) { task->finish(); }, Error()}},
            {"fails", {[](Task *task) { task->finish(failure); }, failure}},
            {"is canceled", {[](Task *task) { task->cancel(); }, Error(Canceled, u"Canceled"_s)}},
            {"is destroyed",
             {[](Task *task) { delete task; }, Error(GeneralError, u"The task was destroyed before it finished."_s)}},
            {"fails and is destroyed", {[](Task *task) { task->finish(failure), delete task; }, failure}},
            {"is set finished", {[](Task *task) { task->setError(failure), task->setFinished(); }, failure}},
            {"is set finished and destroyed",
             {[](Task *task) { task->setError(failure), task->setFinished(), delete task; }, failure}},
        });
    }

    void waitEndsWithOutcome()
    {
        QFETCH(const End, row);
        for (const bool all : {false, true}) {
            QPointer<Task> task = runningTask().release();
            duringWait([&] { row.end(task); });
            QCOMPARE(waitFor(*task, all), row.outcome);
            delete task;

            // The same from the thread in which the task lives, while this thread waits.
            Helper helper;
            task = runningTask().release();
            task->moveToThread(helper.thread());
            duringWait([&] { helper.post([&] { row.end(task); }); });
            QCOMPARE(waitFor(*task, all), row.outcome);
            helper.post([&] { delete task; });
        }
    }

    void timeOutLeavesTaskAlone()
    {
        for (const bool all : {false, true}) {
            const auto task = runningTask();
            QElapsedTimer clock;
            clock.start();
            QCOMPARE(waitFor(*task, all, 0), Error(Timeout));
            QCOMPARE(waitFor(*task, all, 60), Error(Timeout));
            QVERIFY(clock.elapsed() >= 60 && task->isRunning());
        }
    }

    void negativeAndHugeTimeOutsAreNone()
    {
        using Milliseconds = std::chrono::milliseconds;
        const qint64 justTooMuch = qint64(std::numeric_limits<int>::max()) + 2;
        for (const auto msec : {Milliseconds(-5), Milliseconds(justTooMuch), Milliseconds::max()}) {
            const auto task = runningTask();
            QTimer::singleShot(20, task.get(), [&] { task->finish(failure); });
            QCOMPARE(task->waitForFinished(msec), failure);
        }
    }

    void waitReturnsBehindEarlierEvents()
    {
        for (const bool all : {false, true}) {
            for (const bool quietly : {false, true}) {
                const auto task = runningTask();
                EventLog log;
                const auto note = [&] { log.add(u"posted"_s); };
                connect(task.get(), &BaseTask::stateChanged, this, note, Qt::QueuedConnection);
                duringWait([&] { quietly ? task->setFinished() : task->finish(); });
                waitFor(*task, all);
                QCOMPARE(!log.take().isEmpty(), all || quietly);
                drainEvents(); // what is posted outlives neither task nor log
            }
        }
    }

    void restartInsideTheEndKeepsWaiting()
    {
        const auto task = runningTask();
        EventLog log(task.get());
        log.on(u"stateChanged(Finished)"_s, [&] {
            task->exec();
            duringWait([&] { task->finish(failure); });
        });
        duringWait([&] { task->finish(); });
        QCOMPARE(task->waitForFinished(), failure);
        QCOMPARE(task->waitForFinished(), failure); // at once
    }

    void racingEndsNeitherHangNorTouchTheWait_data()
    {
        QTest::addColumn<bool>("destroy");
        QTest::addColumn<bool>("quit");
        QTest::newRow("finish against time-out") << false << false;
        QTest::newRow("destruction against time-out") << true << false;
        QTest::newRow("finish against time-out and quit") << false << true;
        QTest::newRow("destruction against time-out and quit") << true << true;
    }

    // The wait of this thread, which times out within a millisecond, against the end of the task on another thread.
    void racingEndsNeitherHangNorTouchTheWait()
    {
        QFETCH(const bool, destroy);
        QFETCH(const bool, quit);
        Helper helper;
        QRandomGenerator random(20'26);
        constexpr int rounds = 2'000;
        int timeOuts = 0;
        for (int round = 0; round < rounds; ++round) {
            Task *task = runningTask().release();
            task->moveToThread(helper.thread());
            const int spins = random.bounded(40'000);
            QSemaphore over;
            const auto endElsewhere = [&, spins] {
                const QDeadlineTimer spin(std::chrono::nanoseconds(spins), Qt::PreciseTimer);
                while (!spin.hasExpired()) { }
                if (quit)
                    QCoreApplication::quit();
                if (!destroy)
                    task->finish(Error(GeneralError));
                delete task;
                over.release();
            };
            const auto wait = [&] {
                // From inside the wait: before it, the task may not go.
                duringWait([&] { helper.post(endElsewhere); });
                const Error error = waitFor(*task, random.bounded(2), random.bounded(2));
                timeOuts += error.equals(Timeout);
                QVERIFY(error.equals(Timeout) || error.equals(GeneralError) || quit);
            };
            if (quit) {
                duringWait(wait);
                QCoreApplication::exec();
            } else {
                wait();
            }
            // The wait may have ended before it started the other side.
            while (!over.tryAcquire(1, 1))
                QCoreApplication::processEvents();
        }
        QVERIFY2(timeOuts > 0 && timeOuts < rounds, "the race never went both ways");
    }
};

QTEST_GUILESS_MAIN(tst_waiting)
#include "tst_waiting.moc"
