#include "support/EventLog.h"
#include "support/LogCapture.h"
#include "support/Waiting.h"

#include <zel/tasks/Task.h>

#include <QCoreApplication>
#include <QPointer>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <atomic>
#include <coroutine>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>

using namespace Qt::StringLiterals;
using namespace zel;
using QCoro::detail::ZelTaskWaitForFinishedOperation;

namespace {

/// Suspends whoever awaits stop() until the test says go on.
class Suspension {
public:
    struct Stop {
        bool await_ready() const { return false; }
        void await_suspend(std::coroutine_handle<> handle) const { *awaiting = handle; }
        void await_resume() const { }
        std::coroutine_handle<> *awaiting;
    };
    Stop stop() { return {&m_awaiting}; }
    void goOn() { std::exchange(m_awaiting, {}).resume(); }

private:
    std::coroutine_handle<> m_awaiting;
};

/// Counts the coroutine frames that are alive: a member of each of them.
class FrameCount {
public:
    FrameCount() { ++alive; }
    ~FrameCount() { --alive; }
    Q_DISABLE_COPY_MOVE(FrameCount)
    static inline std::atomic<int> alive = 0;
};

/// A coroutine whose frame the test destroys.
struct Owned {
    struct promise_type {
        Owned get_return_object() { return {std::coroutine_handle<promise_type>::from_promise(*this)}; }
        std::suspend_never initial_suspend() { return {}; }
        std::suspend_always final_suspend() noexcept { return {}; }
        void return_void() { }
        void unhandled_exception() { std::terminate(); }
    };
    std::coroutine_handle<promise_type> handle;
};

Owned awaitOwned(const BaseTask *task, EventLog *log)
{
    const FrameCount frame;
    const Error error = co_await ZelTaskWaitForFinishedOperation(task);
    log->add(u"resumed:"_s + Error::codeName(error.code()));
}

template <typename AwaitedTask>
QCoro::Task<> await(AwaitedTask *task, EventLog *log, QThread **thread = nullptr)
{
    const FrameCount frame;
    const Error error = co_await task;
    if (thread)
        *thread = QThread::currentThread();
    log->add(u"resumed:"_s + Error::codeName(error.code()) + error.text());
}

QCoro::Task<Error> completeLater(Suspension *suspension, Error result)
{
    const FrameCount frame;
    co_await suspension->stop();
    co_return result;
}

QCoro::Task<Error> completeNow(Error result)
{
    const FrameCount frame;
    co_return result;
}

template <typename Exception>
QCoro::Task<Error> throwing(Suspension *suspension, Exception exception)
{
    const FrameCount frame;
    if (suspension)
        co_await suspension->stop();
    throw exception;
}

std::unique_ptr<Task> runningTask()
{
    auto task = std::make_unique<Task>(Task::Asynchronous);
    task->exec();
    return task;
}

} // namespace

class tst_coroutine : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void everyPointerTypeIsAwaitable();
    void awaitedEndResumesOnce_data();
    void awaitedEndResumesOnce();
    void goneBeforeSuspensionIsNoError();
    void destroyedFrameIsNotResumed_data();
    void destroyedFrameIsNotResumed();
    void resumesInTheThreadOfTheTask_data();
    void resumesInTheThreadOfTheTask();
    void restartBeforeResumptionKeepsOutcome();
    void deleteOnFinishedWaitsForAwaiters();
    void finishElsewhereRacesWithAwait();

    void coroutineEndsItsTask_data();
    void coroutineEndsItsTask();
    void factoryGetsItsTask();
    void escapingExceptionFailsTask_data();
    void escapingExceptionFailsTask();
    void throwingFactoryFailsTask();
    void nullCoroutineLeavesTaskRunning();
    void lateCompletionTouchesNothing_data();
    void lateCompletionTouchesNothing();
    void readyMadeCoroutineIsUsedUp();
    void endInStartedHandlerStartsNoCoroutine();
    void pauseBeforeExecDoesNotStopCoroutine();
};

void tst_coroutine::init()
{
    failOnQtWarnings();
    QCOMPARE(FrameCount::alive.load(), 0);
}

void tst_coroutine::cleanup()
{
    drainEvents();
    QCOMPARE(FrameCount::alive.load(), 0);
}

void tst_coroutine::everyPointerTypeIsAwaitable()
{
    const auto task = runningTask();
    EventLog log;
    await<Task>(task.get(), &log);
    await<const Task>(task.get(), &log);
    await<BaseTask>(task.get(), &log);
    await<const BaseTask>(task.get(), &log);
    task->finish();
    drainEvents();
    QCOMPARE(log.take(), u"resumed:NoError resumed:NoError resumed:NoError resumed:NoError"_s);

    std::optional<Error> result;
    task->co_waitForFinished().then([&](const Error &error) { result = error; });
    QVERIFY(result && !result->hasError());
}

void tst_coroutine::awaitedEndResumesOnce_data()
{
    using End = std::function<void(Task *)>;
    QTest::addColumn<End>("end");
    QTest::addColumn<QString>("atOnce");
    QTest::addColumn<QString>("later");

    QTest::addRow("has finished") << End() << u"resumed:NoError"_s << QString();
    QTest::addRow("finishes") << End([](Task *task) { task->finish(); }) << u"finished"_s << u"resumed:NoError"_s;
    QTest::addRow("is canceled") << End([](Task *task) { task->cancel(); }) << u"finished"_s
                                 << u"resumed:CanceledCanceled"_s;
    QTest::addRow("is set finished") << End([](Task *task) {
        task->setError(Error(GeneralError, u"-quiet"_s));
        task->setFinished();
    }) << QString() << u"resumed:GeneralError-quiet"_s;
    QTest::addRow("is destroyed") << End([](Task *task) { delete task; }) << QString()
                                  << u"resumed:GeneralErrorThe task was destroyed before it finished."_s;
    QTest::addRow("finishes and is destroyed") << End([](Task *task) {
        task->finish(Error(GeneralError, u"-own"_s));
        delete task;
    }) << u"finished"_s << u"resumed:GeneralError-own"_s;
    QTest::addRow("is set finished and destroyed") << End([](Task *task) {
        task->setError(Error(GeneralError, u"-quiet"_s));
        task->setFinished();
        delete task;
    }) << QString() << u"resumed:GeneralError-quiet"_s;
}

void tst_coroutine::awaitedEndResumesOnce()
{
    QFETCH(const std::function<void(Task *)>, end);
    QFETCH(const QString, atOnce);
    QFETCH(const QString, later);

    QPointer<Task> task = runningTask().release();
    EventLog log;
    if (!end)
        task->finish();
    connect(
        task, &Task::finished, this, [&] { log.add(u"finished"_s); }, Qt::DirectConnection);
    await(task.data(), &log);
    if (end)
        end(task);
    QCOMPARE(log.take(), atOnce);
    drainEvents();
    QCOMPARE(log.take(), later);

    if (task) {
        // A later run is nobody's business here.
        task->exec();
        task->finish();
        drainEvents();
        QCOMPARE(log.take(), u"finished"_s);
    }
    drainEvents();
    delete task;
}

void tst_coroutine::goneBeforeSuspensionIsNoError()
{
    auto task = runningTask();
    ZelTaskWaitForFinishedOperation awaiter(task.get());
    task.reset();
    QVERIFY(!awaiter.await_ready());
    QVERIFY(!awaiter.await_resume().hasError());

    EventLog log;
    task = runningTask();
    const auto suspendOnGone = [](std::unique_ptr<Task> gone, EventLog *events) -> Owned {
        ZelTaskWaitForFinishedOperation operation(*gone);
        gone.reset();
        events->add(u"resumed:"_s + Error::codeName((co_await operation).code()));
    };
    const Owned owned = suspendOnGone(std::move(task), &log);
    QCOMPARE(log.take(), u"resumed:NoError"_s);
    QVERIFY(owned.handle.done());
    owned.handle.destroy();
}

void tst_coroutine::destroyedFrameIsNotResumed_data()
{
    using Step = std::function<void(Task *)>;
    QTest::addColumn<Step>("before");
    QTest::addColumn<Step>("after");
    const Step nothing = [](Task *) {};
    QTest::addRow("then the task finishes") << nothing << Step([](Task *task) { task->finish(); });
    QTest::addRow("then the task goes") << nothing << Step([](Task *task) { delete task; });
    QTest::addRow("after the end was posted") << Step([](Task *task) { task->finish(); }) << nothing;
    QTest::addRow("after a quiet end") << Step([](Task *task) { task->setFinished(); }) << nothing;
}

void tst_coroutine::destroyedFrameIsNotResumed()
{
    QFETCH(const std::function<void(Task *)>, before);
    QFETCH(const std::function<void(Task *)>, after);
    EventLog log;
    QPointer<Task> task = runningTask().release();
    const Owned owned = awaitOwned(task, &log);
    before(task);
    owned.handle.destroy();
    after(task);
    drainEvents();
    QCOMPARE(log.take(), QString());
    delete task;
}

void tst_coroutine::resumesInTheThreadOfTheTask_data()
{
    QTest::addColumn<bool>("destroy");
    QTest::addRow("finished elsewhere") << false;
    QTest::addRow("destroyed elsewhere") << true;
}

void tst_coroutine::resumesInTheThreadOfTheTask()
{
    QFETCH(const bool, destroy);
    QThread home;
    home.start();
    Task *task = runningTask().release();
    task->moveToThread(&home);
    EventLog log;
    QThread *resumedIn = nullptr;
    await(task, &log, &resumedIn);
    if (destroy)
        delete task; // from this thread: the coroutine resumes in the other one all the same
    else
        QMetaObject::invokeMethod(task, "finish", Q_ARG(Err, Err()));
    QVERIFY(pollUntil([&] { return !log.events().isEmpty(); }));
    QCOMPARE(resumedIn, &home);
    if (!destroy)
        task->deleteLater();
    home.quit();
    QVERIFY(home.wait(30'000));
}

void tst_coroutine::restartBeforeResumptionKeepsOutcome()
{
    const auto task = runningTask();
    EventLog log;
    await(task.get(), &log);
    task->finish(Error(GeneralError, u"-first"_s));
    task->exec();
    task->clearError();
    drainEvents();
    QCOMPARE(log.take(), u"resumed:GeneralError-first"_s);
}

void tst_coroutine::deleteOnFinishedWaitsForAwaiters()
{
    const QPointer<Task> task = runningTask().release();
    task->setDeleteOnFinished(true);
    EventLog log;
    await(task.data(), &log);
    task->finish(Error(GeneralError, u"-own"_s));
    drainEvents();
    QCOMPARE(log.take(), u"resumed:GeneralError-own"_s);
    QVERIFY(!task);
}

void tst_coroutine::finishElsewhereRacesWithAwait()
{
    QThread home;
    home.start();
    EventLog log;
    for (int round = 0; round < 2'000; ++round) {
        Task *task = runningTask().release();
        task->moveToThread(&home);
        QMetaObject::invokeMethod(task, [task] { task->finish(); });
        await(task, &log);
        task->deleteLater();
        if (round % 100 == 99)
            QVERIFY(pollUntil([&] { return log.events().size() == round + 1; }));
    }
    home.quit();
    QVERIFY(home.wait(30'000));
    QCOMPARE(FrameCount::alive.load(), 0);
}

void tst_coroutine::coroutineEndsItsTask_data()
{
    QTest::addColumn<bool>("suspends");
    QTest::addColumn<bool>("readyMade");
    QTest::addRow("factory, completes at once") << false << false;
    QTest::addRow("factory, suspends") << true << false;
    QTest::addRow("ready-made, complete") << false << true;
    QTest::addRow("ready-made, suspended") << true << true;
}

void tst_coroutine::coroutineEndsItsTask()
{
    QFETCH(const bool, suspends);
    QFETCH(const bool, readyMade);
    const Error failure(GeneralError, u"from the coroutine"_s);
    Suspension suspension;
    const auto start = [&] { return suspends ? completeLater(&suspension, failure) : completeNow(failure); };

    const auto task = readyMade ? std::make_unique<Task>(start())
                                : std::make_unique<Task>(std::function<QCoro::Task<Error>()>(start));
    if (!readyMade)
        task->exec();
    QCOMPARE(task->isRunning(), suspends);
    if (suspends)
        suspension.goOn();
    QVERIFY(task->isFinished());
    QCOMPARE(task->error(), failure);
    QCOMPARE(FrameCount::alive.load(), 0);
}

void tst_coroutine::factoryGetsItsTask()
{
    Task *given = nullptr;
    Task task([&](Task *self) -> QCoro::Task<Error> {
        given = self;
        co_return Error();
    });
    task.exec();
    QCOMPARE(given, &task);
    QVERIFY(task.isSuccessful());
}

void tst_coroutine::escapingExceptionFailsTask_data()
{
    QTest::addColumn<bool>("standard");
    QTest::addColumn<bool>("suspends");
    QTest::addColumn<QString>("text");
    QTest::addRow("std::exception, at once") << true << false << u"broken"_s;
    QTest::addRow("std::exception, after a suspension") << true << true << u"broken"_s;
    QTest::addRow("int, at once") << false << false << u"unknown exception"_s;
    QTest::addRow("int, after a suspension") << false << true << u"unknown exception"_s;
}

void tst_coroutine::escapingExceptionFailsTask()
{
    QFETCH(const bool, standard);
    QFETCH(const bool, suspends);
    QFETCH(const QString, text);
    LogCapture log;
    Suspension suspension;
    Suspension *at = suspends ? &suspension : nullptr;
    const auto start = [&] { return standard ? throwing(at, std::runtime_error("broken")) : throwing(at, 1); };

    Task fromFactory(std::function<QCoro::Task<Error>()>{start});
    fromFactory.exec();
    if (suspends)
        suspension.goOn();
    Task readyMade(start());
    if (suspends)
        suspension.goOn();

    for (const Task *task : {&fromFactory, &readyMade}) {
        QVERIFY(task->isFinished());
        QCOMPARE(task->error(), Error(GeneralError, text));
    }
    QCOMPARE(log.take().filter(u"critical"_s), QStringList(2, u"critical Unhandled exception: %1"_s.arg(text)));
}

void tst_coroutine::throwingFactoryFailsTask()
{
    Task task([]() -> QCoro::Task<Error> { throw std::runtime_error("no coroutine"); });
    task.exec();
    QCOMPARE(task.error(), Error(GeneralError, u"no coroutine"_s));
}

void tst_coroutine::nullCoroutineLeavesTaskRunning()
{
    LogCapture log;
    Task readyMade{QCoro::Task<Error>()};
    Task fromFactory([] { return QCoro::Task<Error>(); });
    fromFactory.exec();
    QCOMPARE(log.takeWarnings().filter(u"will never complete"_s).size(), 2);
    for (Task *task : {&readyMade, &fromFactory}) {
        QVERIFY(task->isRunning());
        task->cancel();
        QVERIFY(task->isFinished());
    }
}

void tst_coroutine::lateCompletionTouchesNothing_data()
{
    using Step = std::function<void(QPointer<Task> &)>;
    QTest::addColumn<Step>("meanwhile");
    QTest::addColumn<QString>("events");
    QTest::addRow("canceled") << Step([](auto &task) { task->cancel(); }) << QString();
    QTest::addRow("destroyed") << Step([](auto &task) { delete task; }) << QString();
    QTest::addRow("canceled and run again") << Step([](auto &task) {
        task->cancel();
        task->setExecutionMode(Task::Asynchronous);
        task->exec();
    }) << QString();
    QTest::addRow("paused") << Step([](auto &task) { task->pause(); })
                            << u"errorChanged(NoError) stateChanged(Finalizing) finalizing "
                               "stateChanged(Finished) finished"_s;
}

void tst_coroutine::lateCompletionTouchesNothing()
{
    QFETCH(const std::function<void(QPointer<Task> &)>, meanwhile);
    QFETCH(const QString, events);
    Suspension suspension;
    QPointer<Task> task = new Task([&] { return completeLater(&suspension, Error()); });
    task->exec();
    EventLog log(task);
    meanwhile(task);
    log.take();
    suspension.goOn();
    QCOMPARE(log.take(), events);
    delete task;
}

void tst_coroutine::readyMadeCoroutineIsUsedUp()
{
    Task task(completeNow(Error()));
    QVERIFY(task.isSuccessful());
    EventLog log(&task);
    task.exec();
    QCOMPARE(log.take(), u"stateChanged(Running) started restarted"_s);
    QVERIFY(task.isRunning());
}

void tst_coroutine::endInStartedHandlerStartsNoCoroutine()
{
    int calls = 0;
    Task task([&] {
        ++calls;
        return completeNow(Error());
    });
    EventLog log(&task);
    log.on(u"started"_s, [&] { task.cancel(); });
    task.exec();
    QCOMPARE(calls, 0);
    QVERIFY(task.error().equals(Canceled));
}

void tst_coroutine::pauseBeforeExecDoesNotStopCoroutine()
{
    Task task([] { return completeNow(Error(GeneralError, u"ran"_s)); });
    task.pause();
    task.exec();
    QCOMPARE(task.error().text(), u"ran"_s);
}

QTEST_GUILESS_MAIN(tst_coroutine)
#include "tst_coroutine.moc"
