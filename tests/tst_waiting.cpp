#include "support/EventLog.h"
#include "support/Gate.h"
#include "support/Waiting.h"

#include <zel/tasks/Task.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <functional>
#include <limits>
#include <memory>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace zel;

namespace {

constexpr int longEnough = 30'000;

using Wait = std::function<Error(const BaseTask *)>;

/// A task that somebody else ends.
std::unique_ptr<Task> runningTask()
{
    auto task = std::make_unique<Task>(Task::Asynchronous);
    task->exec();
    return task;
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

    void waitEndsWithOutcome_data();
    void waitEndsWithOutcome();
    void timeOutLeavesTaskAlone_data();
    void timeOutLeavesTaskAlone();
    void longDurationsSaturate();
    void negativeTimeOutIsNone();
    void waitForAllHandlesEarlierEventsFirst();
    void quietEndComesAfterHandlers_data();
    void quietEndComesAfterHandlers();
    void quietlyFinishedTaskMayGoAtOnce();
    void nestedWaitsEndEachWithTheirTask();
    void boundTaskIsWaitedForLikeItsSource();
    void restartInsideTheEndKeepsWaiting();
    void applicationQuitEndsWait();
    void waitsAreCallableByName();
    void racingEndsNeitherHangNorTouchTheWait_data();
    void racingEndsNeitherHangNorTouchTheWait();
};

void tst_waiting::waitEndsWithOutcome_data()
{
    QTest::addColumn<Wait>("wait");
    QTest::addColumn<std::function<void(Task *)>>("end");
    QTest::addColumn<Error>("outcome");

    const QList<std::pair<const char *, Wait>> waits{
        {"direct", [](const BaseTask *task) { return task->waitForFinished(longEnough); }},
        {"direct, chrono", [](const BaseTask *task) { return task->waitForFinished(30s); }},
        {"all", [](const BaseTask *task) { return task->waitForAllFinished(); }},
        {"all, chrono", [](const BaseTask *task) { return task->waitForAllFinished(-1ms); }},
    };
    using End = std::function<void(Task *)>;
    const Error failure(GeneralError, u"failed"_s);
    const QList<std::tuple<const char *, End, Error>> ends{
        {"finishes", [](Task *task) { task->finish(); }, Error()},
        {"fails", [failure](Task *task) { task->finish(failure); }, failure},
        {"is canceled", [](Task *task) { task->cancel(); }, Error(Canceled, u"Canceled"_s)},
        {"is destroyed", [](Task *task) { delete task; },
         Error(GeneralError, u"The task was destroyed before it finished."_s)},
        {"fails and is destroyed",
         [failure](Task *task) {
             task->finish(failure);
             delete task;
         },
         failure},
        {"is set finished",
         [failure](Task *task) {
             task->setError(failure);
             task->setFinished();
         },
         failure},
    };
    for (const auto &[waitName, wait] : waits) {
        for (const auto &[endName, end, outcome] : ends)
            QTest::addRow("%s, task %s", waitName, endName) << wait << end << outcome;
    }
}

void tst_waiting::waitEndsWithOutcome()
{
    QFETCH(const Wait, wait);
    QFETCH(const std::function<void(Task *)>, end);
    QFETCH(const Error, outcome);

    QPointer<Task> task = runningTask().release();
    duringWait([&] { end(task); });
    QCOMPARE(wait(task), outcome);
    if (task)
        QCOMPARE(wait(task), outcome); // a finished task: at once
    delete task;

    // The same from the thread in which the task lives, while this thread waits.
    Helper helper;
    task = runningTask().release();
    task->moveToThread(helper.thread());
    duringWait([&] { helper.post([&] { end(task); }); });
    QCOMPARE(wait(task), outcome);
    helper.post([&] { delete task; });
}

void tst_waiting::timeOutLeavesTaskAlone_data()
{
    QTest::addColumn<int>("msec");
    QTest::addRow("0 ms") << 0;
    QTest::addRow("60 ms") << 60;
}

void tst_waiting::timeOutLeavesTaskAlone()
{
    QFETCH(const int, msec);
    for (const bool all : {false, true}) {
        const auto task = runningTask();
        QElapsedTimer clock;
        clock.start();
        const Error error = all ? task->waitForAllFinished(msec) : task->waitForFinished(msec);
        QVERIFY(clock.elapsed() >= msec);
        QVERIFY(clock.elapsed() < longEnough);
        QCOMPARE(error, Error(Timeout));
        QCOMPARE(task->state(), BaseTask::Running);
        task->finish();
        QVERIFY(task->isSuccessful());
    }
}

void tst_waiting::longDurationsSaturate()
{
    const auto task = runningTask();
    duringWait([&] { task->finish(); });
    QVERIFY(!task->waitForFinished(std::chrono::milliseconds::max()).hasError());

    const auto second = runningTask();
    duringWait([&] { second->finish(); });
    QVERIFY(
        !second->waitForAllFinished(std::chrono::milliseconds(qint64(std::numeric_limits<int>::max()) + 2)).hasError());
}

void tst_waiting::negativeTimeOutIsNone()
{
    const auto task = runningTask();
    QTimer::singleShot(20, task.get(), [&] { task->finish(); });
    QVERIFY(!task->waitForFinished(-5).hasError());
    QVERIFY(task->isFinished());
}

void tst_waiting::waitForAllHandlesEarlierEventsFirst()
{
    for (const bool all : {false, true}) {
        const auto task = runningTask();
        EventLog log;
        duringWait([&] {
            QMetaObject::invokeMethod(
                this, [&] { log.add(u"posted"_s); }, Qt::QueuedConnection);
            task->finish();
        });
        if (all)
            task->waitForAllFinished();
        else
            task->waitForFinished();
        log.add(u"returned"_s);
        QCOMPARE(log.take(), all ? u"posted returned"_s : u"returned"_s);
        drainEvents(); // what is posted outlives neither task nor log
    }
}

// A task that is set finished quietly must not end the wait ahead of a regular end, or of handlers of stateChanged().
void tst_waiting::quietEndComesAfterHandlers_data()
{
    QTest::addColumn<bool>("all");
    QTest::addRow("direct") << false;
    QTest::addRow("all") << true;
}

void tst_waiting::quietEndComesAfterHandlers()
{
    QFETCH(const bool, all);
    const auto task = runningTask();
    EventLog log;
    connect(
        task.get(), &BaseTask::stateChanged, this, [&] { log.add(u"handler"_s); }, Qt::QueuedConnection);
    duringWait([&] { task->setFinished(); });
    all ? task->waitForAllFinished() : task->waitForFinished();
    log.add(u"returned"_s);
    QCOMPARE(log.take(), u"handler returned"_s);
}

void tst_waiting::quietlyFinishedTaskMayGoAtOnce()
{
    Task *task = runningTask().release();
    const Error failure(GeneralError, u"failed"_s);
    duringWait([&] {
        task->setError(failure);
        task->setFinished();
        delete task;
    });
    QCOMPARE(task->waitForFinished(), failure);
}

void tst_waiting::nestedWaitsEndEachWithTheirTask()
{
    const auto outer = runningTask();
    const auto inner = runningTask();
    EventLog log;
    duringWait([&] {
        duringWait([&] {
            outer->finish(Error(GeneralError, u"outer"_s));
            inner->finish(Error(GeneralError, u"inner"_s));
        });
        log.add(inner->waitForFinished().text());
    });
    log.add(outer->waitForFinished().text());
    QCOMPARE(log.take(), u"inner outer"_s);
}

void tst_waiting::boundTaskIsWaitedForLikeItsSource()
{
    for (const bool all : {false, true}) {
        const auto source = runningTask();
        Task follower;
        follower.bind(source.get());
        duringWait([&] { source->finish(Error(GeneralError, u"source"_s)); });
        QCOMPARE((all ? follower.waitForAllFinished() : follower.waitForFinished()).text(), u"source"_s);
    }
}

void tst_waiting::restartInsideTheEndKeepsWaiting()
{
    const auto task = runningTask();
    EventLog log(task.get());
    log.on(u"stateChanged(Finished)"_s, [&] {
        task->exec();
        duringWait([&] { task->finish(Error(GeneralError, u"second run"_s)); });
    });
    duringWait([&] { task->finish(Error(GeneralError, u"first run"_s)); });
    QCOMPARE(task->waitForFinished().text(), u"second run"_s);
}

void tst_waiting::applicationQuitEndsWait()
{
    const auto task = runningTask();
    duringWait([&] {
        duringWait([] { QCoreApplication::quit(); });
        QCOMPARE(task->waitForFinished(), Error());
        QVERIFY(!task->isFinished());
    });
    QCoreApplication::exec();
}

void tst_waiting::waitsAreCallableByName()
{
    Task task;
    task.exec();
    task.setError(Error(GeneralError, u"by name"_s));
    Err error;
    QVERIFY(QMetaObject::invokeMethod(&task, "waitForFinished", Q_RETURN_ARG(Err, error), Q_ARG(int, 10)));
    QCOMPARE(error.text(), u"by name"_s);
    error = Err();
    QVERIFY(QMetaObject::invokeMethod(&task, "waitForAllFinished", Q_RETURN_ARG(Err, error),
                                      Q_ARG(std::chrono::milliseconds, 10ms)));
    QCOMPARE(error.text(), u"by name"_s);
}

void tst_waiting::racingEndsNeitherHangNorTouchTheWait_data()
{
    QTest::addColumn<bool>("destroy");
    QTest::addColumn<bool>("quit");
    QTest::addRow("finish against time-out") << false << false;
    QTest::addRow("destruction against time-out") << true << false;
    QTest::addRow("finish against time-out and quit") << false << true;
    QTest::addRow("destruction against time-out and quit") << true << true;
}

// The wait of this thread, which times out within a millisecond, against the end of the task on another thread.
void tst_waiting::racingEndsNeitherHangNorTouchTheWait()
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
        const bool all = random.bounded(2);
        QSemaphore over;
        const auto endElsewhere = [&, spins] {
            for (const QDeadlineTimer spin(std::chrono::nanoseconds(spins), Qt::PreciseTimer); !spin.hasExpired();) { }
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
            const int msec = random.bounded(2);
            const Error error = all ? task->waitForAllFinished(msec) : task->waitForFinished(msec);
            timeOuts += error.equals(Timeout);
            QVERIFY(error.equals(Timeout) || error.equals(GeneralError) || quit);
        };
        if (quit) {
            QTimer::singleShot(0, this, wait);
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

QTEST_GUILESS_MAIN(tst_waiting)
#include "tst_waiting.moc"
