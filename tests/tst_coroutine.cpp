#include "support/EventLog.h"
#include "support/LogCapture.h"
#include "support/Rows.h"
#include "support/Waiting.h"

#include <zel/tasks/Task.h>

#include <QDeadlineTimer>
#include <QPointer>
#include <QThread>

#include <atomic>
#include <coroutine>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>

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

QCoro::Task<Error> complete(Suspension *suspension, std::function<Error()> result)
{
    const FrameCount frame;
    if (suspension)
        co_await suspension->stop();
    co_return result();
}

std::unique_ptr<Task> runningTask()
{
    auto task = std::make_unique<Task>(Task::Asynchronous);
    task->exec();
    return task;
}

using Step = std::function<void(QPointer<Task> &)>;
using Steps = std::pair<Step, Step>;

struct AwaitedEnd {
    Step end;
    QString atOnce;
    QString later;
};

struct Completion {
    std::function<Error()> result;
    Error outcome;
};

} // namespace

class tst_coroutine : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { failOnQtWarnings(); }

    void cleanup()
    {
        drainEvents();
        QCOMPARE(FrameCount::alive.load(), 0);
    }

    void everyPointerTypeIsAwaitable()
    {
        const auto task = runningTask();
        EventLog log;
        await<const Task>(task.get(), &log);
        await<BaseTask>(task.get(), &log);
        await<const BaseTask>(task.get(), &log);
        task->co_waitForFinished().then([&](const Error &) { log.add(u"then"_s); });
        task->finish();
        drainEvents();
        QCOMPARE(log.take(), u"resumed:NoError resumed:NoError resumed:NoError then"_s);
    }

    void awaitedEndResumesOnce_data()
    {
        const Step quietly = [](auto &task) { task->setError(Error(GeneralError, u"-quiet"_s)), task->setFinished(); };
        const Step fail = [](auto &task) { task->finish(Error(GeneralError, u"-own"_s)); };
        const Step again = [=](auto &task) { fail(task), task->exec(), task->clearError(); };
        const QString own = u"resumed:GeneralError-own"_s;
        const QString quiet = u"resumed:GeneralError-quiet"_s;
        const QString destroyed = u"resumed:GeneralErrorThe task was destroyed before it finished."_s;
        addRows<AwaitedEnd>({
            {"has finished", {nullptr, u"resumed:NoError"_s, QString()}},
            {"finishes", {[](auto &task) { task->finish(); }, u"finished"_s, u"resumed:NoError"_s}},
            {"is canceled", {[](auto &task) { task->cancel(); }, u"finished"_s, u"resumed:CanceledCanceled"_s}},
            {"finishes and gets another error",
             {[=](auto &task) { fail(task), task->clearError(); }, u"finished"_s, u"resumed:NoError"_s}},
            {"is set finished", {quietly, QString(), quiet}},
            {"is destroyed", {[](auto &task) { delete task; }, QString(), destroyed}},
            {"finishes and is destroyed", {[=](auto &task) { fail(task), delete task; }, u"finished"_s, own}},
            {"is deleted as it finishes",
             {[=](auto &task) { task->setDeleteOnFinished(true), fail(task); }, u"finished"_s, own}},
            {"finishes and runs again", {again, u"finished"_s, own}},
            {"is set finished and destroyed", {[=](auto &task) { quietly(task), delete task; }, QString(), quiet}},
        });
    }

    void awaitedEndResumesOnce()
    {
        QFETCH(const AwaitedEnd, row);
        QPointer<Task> task = runningTask().release();
        EventLog log;
        if (!row.end)
            task->finish();
        const auto note = [&] { log.add(u"finished"_s); };
        connect(task, &Task::finished, this, note, Qt::DirectConnection);
        await(task.data(), &log);
        if (row.end)
            row.end(task);
        QCOMPARE(log.take(), row.atOnce);
        drainEvents();
        QCOMPARE(log.take(), row.later);

        if (task) {
            // A later run is nobody's business here.
            task->exec();
            task->finish();
            drainEvents();
            QCOMPARE(log.take(), u"finished"_s);
        }
        delete task;
    }

    void goneBeforeSuspensionIsNoError()
    {
        EventLog log;
        const auto suspendOnGone = [](std::unique_ptr<Task> gone, EventLog *events) -> Owned {
            ZelTaskWaitForFinishedOperation operation(*gone);
            gone.reset();
            events->add(Error::codeName((co_await operation).code()));
        };
        const Owned owned = suspendOnGone(runningTask(), &log);
        QCOMPARE(log.take(), u"NoError"_s);
        owned.handle.destroy();
    }

    void destroyedFrameIsNotResumed_data()
    {
        const Step nothing = [](auto &) {};
        const Step finish = [](auto &task) { task->finish(); };
        addRows<Steps>({
            {"then the task finishes", {nothing, finish}},
            {"then the task goes", {nothing, [](auto &task) { delete task; }}},
            {"after the end was posted", {finish, nothing}},
            {"after a quiet end", {[](auto &task) { task->setFinished(); }, nothing}},
        });
    }

    void destroyedFrameIsNotResumed()
    {
        QFETCH(const Steps, row);
        const auto &[before, after] = row;
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

    void resumesInTheThreadOfTheTask()
    {
        enum {
            Finish,
            Destroy,
            DestroyWithoutThread
        };
        for (const int end : {Finish, Destroy, DestroyWithoutThread}) {
            QThread home;
            home.start();
            const auto stopHome = [&] { return home.quit(), home.wait(30'000); };
            auto task = runningTask();
            task->moveToThread(&home);
            EventLog log;
            QThread *resumedIn = nullptr;
            await(task.get(), &log, &resumedIn);
            QVERIFY(end != DestroyWithoutThread || stopHome());
            if (end == Finish)
                QMetaObject::invokeMethod(task.get(), "finish", Q_ARG(Err, Err()));
            else
                task.reset(); // from this thread: the coroutine resumes in the other one all the same
            QTRY_VERIFY(!log.events().isEmpty());
            QCOMPARE(resumedIn, end == DestroyWithoutThread ? thread() : &home);
            QVERIFY(stopHome());
        }
    }

    void finishElsewhereRacesWithAwait()
    {
        QThread home;
        home.start();
        EventLog log;
        for (int round = 1; round <= 2'000; ++round) {
            Task *task = runningTask().release();
            task->moveToThread(&home);
            QMetaObject::invokeMethod(task, [task] { task->finish(); });
            await(task, &log);
            QMetaObject::invokeMethod(
                task, [task] { delete task; }, Qt::QueuedConnection);
            QVERIFY(round % 100 || pollUntil([&] { return log.events().size() == round; }));
        }
        home.quit();
        QVERIFY(home.wait(30'000));
    }

    // It is awaited itself while it goes on in the other thread.
    void coroutineIsHandedOverBeforeItGoesOnElsewhere()
    {
        QThread home;
        home.start();
        for (int round = 0; round < 2'000; ++round) {
            Task *awaited = runningTask().release();
            awaited->moveToThread(&home);
            Task task([awaited]() -> QCoro::Task<Error> {
                QMetaObject::invokeMethod(awaited, [awaited] { awaited->finish(); });
                co_return co_await awaited;
            });
            task.exec();
            QVERIFY(pollUntil([&] { return task.isFinished(); }));
            QMetaObject::invokeMethod(awaited, &QObject::deleteLater);
        }
        home.quit();
        QVERIFY(home.wait(30'000));
    }

    void coroutineEndsItsTask_data()
    {
        const Error failure(GeneralError, u"failed"_s);
        addRows<Completion>({
            {"fails", {[=] { return failure; }, failure}},
            {"throws", {[]() -> Error { throw std::runtime_error("broken"); }, Error(GeneralError, u"broken"_s)}},
            {"throws an int", {[]() -> Error { throw 1; }, Error(GeneralError, u"unknown exception"_s)}},
        });
    }

    void coroutineEndsItsTask()
    {
        QFETCH(const Completion, row);
        for (int bits = 0; bits < 4; ++bits) {
            const bool suspends = bits & 1;
            const bool readyMade = bits & 2;
            Suspension suspension;
            const auto start = [&] { return complete(suspends ? &suspension : nullptr, row.result); };
            const auto task = readyMade ? std::make_unique<Task>(start()) : std::make_unique<Task>(start);
            if (!readyMade)
                task->exec();
            QCOMPARE(task->isRunning(), suspends);
            if (suspends)
                suspension.goOn();
            QVERIFY(task->isFinished());
            QCOMPARE(task->error(), row.outcome);
        }
    }

    void nullCoroutineLeavesTaskRunning()
    {
        LogCapture log;
        Task readyMade{QCoro::Task<Error>()};
        Task fromFactory([] { return QCoro::Task<Error>(); });
        fromFactory.exec();
        QCOMPARE(log.takeWarnings().filter(u"will never complete"_s).size(), 2);
        QVERIFY(readyMade.isRunning() && fromFactory.isRunning());
    }

    void lateCompletionTouchesNothing_data()
    {
        const Step runAgain = [](auto &task) {
            task->cancel();
            task->setExecutionMode(Task::Asynchronous);
            task->exec();
        };
        addRows<Step>({{"destroyed", [](auto &task) { delete task; }}, {"canceled and run again", runAgain}});
    }

    void lateCompletionTouchesNothing()
    {
        QFETCH(const Step, row);
        Suspension suspension;
        QPointer<Task> task = new Task([&] { return complete(&suspension, [] { return Error(); }); });
        task->exec();
        EventLog log(task);
        row(task);
        log.take();
        suspension.goOn();
        QCOMPARE(log.take(), QString());
        delete task;
    }

    void coroutineMayCompleteElsewhereWhileItsTaskIsDestroyed()
    {
        std::atomic<Suspension *> toResume = nullptr;
        std::atomic<bool> isOver = false;
        std::thread other([&] {
            while (!isOver) {
                if (Suspension *suspension = toResume)
                    suspension->goOn(), toResume = nullptr;
                else
                    std::this_thread::yield();
            }
        });
        int round = 0;
        for (const QDeadlineTimer end(1000); !end.hasExpired();) {
            Suspension suspension;
            auto task = std::make_unique<Task>([&] { return complete(&suspension, [] { return Error(); }); });
            task->exec();
            toResume = &suspension;
            const QDeadlineTimer spin(std::chrono::nanoseconds(round++ % 50 * 100), Qt::PreciseTimer);
            while (!spin.hasExpired()) { }
            task.reset();
            while (toResume)
                std::this_thread::yield();
        }
        isOver = true;
        other.join();
    }

    void capturesMayCompleteTheCoroutineOfADestroyedTask()
    {
        Suspension suspension;
        auto task = std::make_unique<Task>([&] { return complete(&suspension, [] { return Error(); }); });
        const std::shared_ptr<void> captured(nullptr, [&](void *) { suspension.goOn(); });
        task->setFunction([captured = std::move(captured)]() -> Error { return {}; });
        task->setExecutionMode(Task::Coroutine);
        task->exec();
        EventLog log(task.get());
        task.reset();
        QCOMPARE(log.take(), u"aboutToDestroy"_s);
    }
};

QTEST_GUILESS_MAIN(tst_coroutine)
#include "tst_coroutine.moc"
