#include "support/EventLog.h"
#include "support/Gate.h"
#include "support/LogCapture.h"
#include "support/Rows.h"
#include "support/Waiting.h"

#include <zel/tasks/CustomComplexTask.h>
#include <zel/tasks/GroupTask.h>
#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QPointer>
#include <QScopeGuard>
#include <QSemaphore>
#include <QThread>

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

using namespace Qt::StringLiterals;
using namespace zel;

namespace {

constexpr auto connectionTypes = {Qt::DirectConnection, Qt::QueuedConnection};

/// Its first start stops at the gate: the task has been taken, and not been started yet.
class GatedQueue : public TasksQueue {
public:
    Gate gate;

protected:
    void exec(Task *task) override
    {
        if (!m_hasStarted.exchange(true))
            gate.arriveAndWait();
        task->exec();
    }

private:
    std::atomic<bool> m_hasStarted = false;
};

/// What one thread does while another one is about to start a task.
struct Overtaking {
    int runs; // of the work, after all
    std::function<void(TasksQueue &, Task &)> action;
};

/// Starts the subtask that it is given.
class Starter : public CustomComplexTask {
public:
    explicit Starter(Task *subtask) : m_subtask(subtask) { }

protected:
    Error doExecSubtasks() override { return execSubtask(m_subtask), Error(); }

private:
    Task *m_subtask;
};

/// A thread with an event loop, which is joined at the end.
class Home {
public:
    Home() { m_thread.start(); }
    ~Home()
    {
        m_thread.quit();
        m_thread.wait();
    }
    QThread *thread() { return &m_thread; }

private:
    QThread m_thread;
};

/// A few threads that make their calls at the same time, again and again, together with the one that owns them.
class Crew {
public:
    explicit Crew(int size)
    {
        for (int number = 1; number < size; ++number)
            m_threads.emplace_back([this, number] { work(number); });
    }
    ~Crew()
    {
        m_calls.clear();
        ++m_round;
        for (std::thread &thread : m_threads)
            thread.join();
    }
    Q_DISABLE_COPY_MOVE(Crew)

    /// The first call is made on this thread. Returns when all have returned.
    void make(std::vector<std::function<void()>> calls)
    {
        m_calls = std::move(calls);
        m_busy = int(m_threads.size());
        ++m_round;
        m_calls.front()();
        while (m_busy > 0)
            std::this_thread::yield();
    }

private:
    void work(int number)
    {
        for (int round = 1;; ++round) {
            while (m_round < round)
                std::this_thread::yield();
            if (m_calls.empty())
                return;
            m_calls[number]();
            --m_busy;
        }
    }

    std::vector<std::thread> m_threads;
    std::vector<std::function<void()>> m_calls;
    std::atomic<int> m_round = 0;
    std::atomic<int> m_busy = 0;
};

/// What only many tries show gets a second.
QDeadlineTimer aSecond()
{
    return QDeadlineTimer(1000);
}

bool handleEventsUntil(const std::function<bool()> &condition)
{
    for (const QDeadlineTimer deadline(10'000); !condition(); QThread::yieldCurrentThread()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return true;
}

} // namespace

class tst_threads : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { failOnQtWarnings(); }

    void startThatWasOvertakenDoesNothing_data()
    {
        const auto appendTo = [](TasksQueue &queue, Task &task) { queue.append(&task); };
        addRows<Overtaking>({
            {"canceled", {0, [](auto &, Task &task) { task.cancel(); }}},
            {"finished", {0, [](auto &, Task &task) { task.finish(); }}},
            {"stopped by its group",
             {0,
              [](auto &, Task &task) {
                  GroupTask group;
                  group.setCleanupPolicy(GroupTask::SelfDelete);
                  group.append(&task);
                  group.cancel();
              }}},
            {"removed", {0, [](auto &queue, Task &task) { queue.removeTask(&task); }}},
            {"cleared", {0, [](auto &queue, auto &) { queue.clear(); }}},
            {"canceled by clear()", {0, [](auto &queue, auto &) { queue.clear(TasksQueue::Cancel); }}},
            {"finished by clear()", {0, [](auto &queue, auto &) { queue.clear(TasksQueue::Finish); }}},
            {"removed and appended again",
             {1, [=](auto &queue, Task &task) { queue.removeTask(&task), appendTo(queue, task); }}},
            {"cleared and appended again", {1, [=](auto &queue, Task &task) { queue.clear(), appendTo(queue, task); }}},
            {"removed and appended to another queue",
             {1,
              [=](auto &queue, Task &task) {
                  TasksQueue other;
                  queue.removeTask(&task);
                  appendTo(other, task);
              }}},
            {"appended to another queue",
             {1,
              [=](auto &, Task &task) {
                  TasksQueue other;
                  appendTo(other, task);
              }}},
            {"started by hand", {1, [](auto &, Task &task) { task.exec(); }}},
        });
    }

    void startThatWasOvertakenDoesNothing()
    {
        QFETCH(const Overtaking, row);
        std::atomic<int> runs = 0;
        Task task([&] { return ++runs, Error(); });
        GatedQueue queue;
        queue.setMaxRunningTasksCount(2);
        std::thread starter([&] { queue.append(&task); });
        const bool hasArrived = queue.gate.waitForArrival();
        row.action(queue, task);
        queue.gate.open();
        starter.join();
        drainEvents();
        QVERIFY(hasArrived);
        QCOMPARE(runs, row.runs);
        QCOMPARE(queue.count(), 0);
    }

    void taskMayBeAppendedBeforeItsLastStartHasReturned()
    {
        for (const auto type : connectionTypes) {
            Gate gate;
            std::atomic<int> runs = 0;
            Task task([&] {
                if (++runs == 1)
                    gate.arriveAndWait();
                return Error();
            });
            TasksQueue queue;
            queue.setConnectionType(type);
            queue.setMaxRunningTasksCount(2);
            std::thread starter([&] { queue.append(&task); });
            const bool hasArrived = gate.waitForArrival();
            task.finish();
            task.setIdle();
            queue.append(&task);
            const int runsByThen = runs;
            gate.open();
            starter.join();
            drainEvents();
            QVERIFY(hasArrived);
            QCOMPARE(runsByThen, 2);
            QCOMPARE(queue.count(), 0);
        }
    }

    void lastStateThatIsAnnouncedIsTheState()
    {
        TasksQueue queue;
        queue.setConnectionType(Qt::DirectConnection);
        Gate gate;
        std::vector<TasksQueue::State> announced;
        connect(
            &queue, &TasksQueue::stateChanged, &queue,
            [&](TasksQueue::State state) {
                if (state == TasksQueue::Working)
                    gate.arriveAndWait();
                announced.push_back(state);
            },
            Qt::DirectConnection);
        Task task;
        std::thread starter([&] { queue.append(&task); });
        const bool hasArrived = gate.waitForArrival();
        queue.tryExec();
        const bool isDone = task.isFinished();
        gate.open();
        starter.join();
        QVERIFY(hasArrived && isDone);
        QCOMPARE(announced, (std::vector{TasksQueue::Working, TasksQueue::Idle}));
    }

    void destructionOfAQueueWaitsForWhoeverAnnouncesForIt()
    {
        QSemaphore destroyed;
        Gate gate;
        bool isDestroyedMeanwhile = false;
        auto *queue = new TasksQueue;
        queue->setConnectionType(Qt::DirectConnection);
        Task task(Task::Asynchronous);
        queue->append(&task);
        connect(
            queue, &TasksQueue::stateChanged, this,
            [&] {
                gate.arrive();
                isDestroyedMeanwhile = destroyed.tryAcquire(1, 50);
            },
            Qt::DirectConnection);
        std::thread ender([&] { task.finish(); });
        const bool hasArrived = gate.waitForArrival();
        delete queue;
        destroyed.release();
        ender.join();
        QVERIFY(hasArrived && !isDestroyedMeanwhile);
    }

    void taskMayBeDestroyedElsewhereWhenAWaitHasReturned()
    {
        QSemaphore destroyed;
        bool isDestroyedMeanwhile = false;
        auto *task = new Task([] { return Error(); }, Task::WorkingThread);
        connect(
            task, &Task::finished, this, [&] { isDestroyedMeanwhile = destroyed.tryAcquire(1, 50); },
            Qt::DirectConnection);
        task->exec();
        const std::unique_ptr<QThread> waiter(QThread::create([&] {
            task->waitForFinished();
            delete task;
            destroyed.release();
        }));
        waiter->start();
        QTRY_VERIFY(waiter->isFinished());
        QVERIFY(!isDestroyedMeanwhile);
    }

    void clearedWorkMayUseTheQueueBeforeItReturns()
    {
        LogCapture log;
        Gate gate;
        TasksQueue queue;
        const auto work = [&] {
            gate.arrive();
            while (!QThread::currentThread()->isInterruptionRequested())
                QThread::yieldCurrentThread();
            return queue.count(), Error();
        };
        Task task(work, Task::WorkingThread);
        task.setThreadTerminationEnabled(false);
        task.setThreadWaitTime(2000);
        queue.append(&task);
        QVERIFY(gate.waitForArrival());
        queue.clear(TasksQueue::Cancel);
        QCOMPARE(log.takeWarnings(), QStringList());
    }

    // All of it is left behind when the two threads wait for each other.
    void complexTaskAndItsQueueMayBeCanceledOnTwoThreads()
    {
        struct Scene {
            Task *subtask = new Task(Task::Asynchronous); // the complex task's
            Task pending{Task::Asynchronous};
            Starter complex{subtask};
            TasksQueue queue;
            Gate inCancel;
            Gate inClear;
            QSemaphore returned;
        };
        auto *scene = new Scene;
        scene->queue.setConnectionType(Qt::DirectConnection);
        scene->queue.setMaxRunningTasksCount(1);
        connect(
            scene->subtask, &Task::canceled, scene->subtask, [=] { scene->inCancel.arriveAndWait(); },
            Qt::DirectConnection);
        connect(
            &scene->pending, &Task::canceled, &scene->pending, [=] { scene->inClear.arrive(); }, Qt::DirectConnection);
        scene->pending.setPriority(2);
        scene->queue.append({&scene->complex, &scene->pending});
        QVERIFY(scene->subtask->isRunning());
        std::thread([=] { scene->complex.cancel(), scene->returned.release(); }).detach();
        QVERIFY(scene->inCancel.waitForArrival());
        std::thread([=] { scene->queue.clear(TasksQueue::Cancel), scene->returned.release(); }).detach();
        QVERIFY(scene->inClear.waitForArrival());
        scene->inCancel.open();
        QVERIFY(scene->returned.tryAcquire(2, 5000));
        drainEvents();
        delete scene;
    }

    void noPassMakesTheQueueIdleBehindAnAppend()
    {
        LogCapture log; // makes the passes longer
        Crew crew(3);
        for (const auto end = aSecond(); !end.hasExpired(); log.take()) {
            TasksQueue queue;
            queue.setConnectionType(Qt::DirectConnection);
            Task tasks[3];
            crew.make(
                {[&] { queue.append(&tasks[0]); }, [&] { queue.append(&tasks[1]); }, [&] { queue.append(&tasks[2]); }});
            QCOMPARE(queue.count(), 0);
            QCOMPARE(queue.state(), TasksQueue::Idle);
        }
    }

    void valuesThatWorkWritesAreReadWhole()
    {
        std::atomic<bool> isOver = false;
        const auto work = [&](Task *self) {
            for (char16_t character = u'a'; !isOver; character = character == u'z' ? u'a' : character + 1) {
                const QString text(50 + character % 7, character);
                self->setProgressText(text);
                self->setVariantResult(text);
                self->setError(Error(GeneralError, text));
            }
            return Error();
        };
        Task task(work, Task::WorkingThread);
        task.exec();
        const auto stop = qScopeGuard([&] { isOver = true; });
        for (const auto end = aSecond(); !end.hasExpired();) {
            for (const QString &text : {task.progressText(), task.variantResult().toString(), task.error().text()})
                QCOMPARE(text, QString(text.size(), text.isEmpty() ? QChar() : text.front()));
        }
    }

    void runThatIsEndedOnTwoThreadsEndsOnce()
    {
        const Error own(GeneralError, u"own"_s);
        for (const auto end = aSecond(); !end.hasExpired();) {
            std::atomic<bool> isStarted = false;
            std::atomic<bool> hasFinished = false;
            const auto work = [&](Task *self) {
                isStarted = true;
                self->finish(own);
                hasFinished = true;
                return Error();
            };
            Task task(work, Task::WorkingThread);
            task.setThreadWaitTime(-1);
            EventLog log(&task);
            task.exec();
            while (!isStarted) { }
            task.cancel();
            QVERIFY(handleEventsUntil([&] { return task.isFinished() && hasFinished; }));
            drainEvents();
            const QString events = log.take();
            QCOMPARE(events.count(u" finished"), 1);
            QCOMPARE(task.isCanceled(), events.contains(u"canceled"));
            QCOMPARE(task.error(), task.isCanceled() ? Error(Canceled, u"Canceled"_s) : own);
        }
    }

    void tasksMayEndAtHomeWhileOthersStopThem_data()
    {
        QTest::addColumn<bool>("clears");
        QTest::newRow("clear()") << true;
        QTest::newRow("cancel() of their group") << false;
    }

    void tasksMayEndAtHomeWhileOthersStopThem()
    {
        QFETCH(const bool, clears);
        Crew crew(2);
        for (const auto end = aSecond(); !end.hasExpired();) {
            TasksQueue queue;
            queue.setMaxRunningTasksCount(4);
            GroupTask group;
            group.setCleanupPolicy(GroupTask::SelfDelete);
            group.setCancelSubtasksMode(GroupTask::CancelSubtasks);
            std::vector<std::unique_ptr<Task>> tasks;
            std::atomic<int> ends = 0;
            for (int number = 0; number < 4; ++number) {
                const auto mode = number % 2 ? Task::WorkingThread : Task::Asynchronous;
                tasks.push_back(std::make_unique<Task>([] { return Error(); }, mode));
                tasks.back()->setThreadTerminationEnabled(false);
                connect(
                    tasks.back().get(), &Task::finished, this, [&] { ++ends; }, Qt::DirectConnection);
                group.append(tasks.back().get());
                queue.append(tasks.back().get());
            }
            crew.make({[&] {
                           for (const auto &task : tasks)
                               task->executionMode() == Task::WorkingThread ? task->cancel() : task->finish();
                       },
                       [&] { clears ? queue.clear(TasksQueue::Cancel) : group.cancel(); }});
            drainEvents();
            QVERIFY(handleEventsUntil([&] { return ends >= 4; }));
            drainEvents();
            QCOMPARE(ends, 4);
        }
    }

    void taskMayBeCanceledAtHomeWhileAQueueStartsItElsewhere()
    {
        Crew crew(2);
        int round = 0;
        for (const auto end = aSecond(); !end.hasExpired(); ++round) {
            std::atomic<bool> isAppending = false;
            std::atomic<int> begun = 0;
            TasksQueue queue;
            Task task([&] { return ++begun, Error(); }, Task::WorkingThread);
            task.setThreadTerminationEnabled(false);
            task.setThreadWaitTime(-1);
            EventLog log(&task);
            int begunByThen = 0;
            const auto cancel = [&] {
                while (!isAppending)
                    std::this_thread::yield();
                const QDeadlineTimer spin(std::chrono::nanoseconds(round % 100 * 200), Qt::PreciseTimer);
                while (!spin.hasExpired()) { }
                task.cancel();
                begunByThen = begun;
            };
            crew.make({cancel, [&] { isAppending = true, queue.append(&task); }});
            drainEvents();
            QVERIFY(task.isFinished());
            QCOMPARE(log.take().count(u" finished"), 1);
            QCOMPARE(begun, begunByThen);
            QCOMPARE(queue.runningTasksCount(), 0);
        }
    }

    void groupMayLiveInAnotherThreadThanItsQueue()
    {
        TasksQueue queue;
        queue.setMaxRunningTasksCount(4);
        std::atomic<int> alive = 0;
        const std::unique_ptr<QThread> thread(QThread::create([&] {
            for (const auto end = aSecond(); !end.hasExpired();) {
                GroupTask all;
                for (int number = 1; number <= 10; ++number) {
                    const auto work = [number] { return QThread::usleep(20 * number), Error(); };
                    auto *task = new Task(work, Task::WorkingThread);
                    ++alive;
                    connect(
                        task, &QObject::destroyed, this, [&] { --alive; }, Qt::DirectConnection);
                    task->setThreadTerminationEnabled(false);
                    task->setProgress(0, 1);
                    connect(task, &Task::finished, task, [task] { task->setProgress(1, 1); });
                    all.append(task);
                    queue.append(task);
                }
                if (all.waitForFinished(1).equals(Timeout))
                    all.cancel();
                QCoreApplication::processEvents(); // ends that the group has still to hear of
            }
        }));
        thread->start();
        QTRY_VERIFY_WITH_TIMEOUT(thread->isFinished(), 30'000);
        thread->wait();
        drainEvents();
        QCOMPARE(queue.count(), 0);
        QCOMPARE(alive, 0);
    }

    void childrenThatAFailureStopsMayLiveElsewhere_data()
    {
        QTest::addColumn<GroupTask::CancelSubtasksMode>("mode");
        QTest::newRow("canceled") << GroupTask::CancelSubtasks;
        QTest::newRow("quietly") << GroupTask::FinishSubtasks;
    }

    void childrenThatAFailureStopsMayLiveElsewhere()
    {
        QFETCH(const GroupTask::CancelSubtasksMode, mode);
        Home home;
        TasksQueue queue;
        queue.setMaxRunningTasksCount(4);
        for (const auto end = aSecond(); !end.hasExpired();) {
            std::atomic<int> alive = 4;
            GroupTask group;
            group.setCancelSubtasksMode(mode);
            for (int number = 0; number < 4; ++number) {
                auto *task = new Task([number] { return Error(number == 1 ? GeneralError : NoError); },
                                      Task::WorkingThread);
                task->setThreadTerminationEnabled(false);
                task->moveToThread(home.thread());
                connect(
                    task, &QObject::destroyed, this, [&] { --alive; }, Qt::DirectConnection);
                group.append(task);
                queue.append(task);
            }
            QVERIFY(handleEventsUntil([&] { return group.isFinished() && alive == 0; }));
        }
        QVERIFY(handleEventsUntil([&] { return queue.count() == 0; }));
    }

    void queueMayBeDestroyedWhileATaskOfItChangesElsewhere_data()
    {
        QTest::addColumn<bool>("resumes");
        QTest::newRow("ends, in a direct queue") << false;
        QTest::newRow("is parked and resumes") << true;
    }

    // By a handler inside clear(), when the other thread is on its way to the queue.
    void queueMayBeDestroyedWhileATaskOfItChangesElsewhere()
    {
        QFETCH(const bool, resumes);
        const QString change = resumes ? u"stateChanged(Idle)"_s : u"finished"_s;
        Task task(Task::Asynchronous);
        Task cleared(Task::Asynchronous);
        cleared.setPriority(0);
        auto *queue = new TasksQueue;
        queue->setConnectionType(resumes ? Qt::QueuedConnection : Qt::DirectConnection);
        queue->setMaxRunningTasksCount(1);
        Gate before;
        Gate behind;
        EventLog logBefore(&task);
        logBefore.on(change, [&] { before.arrive(); });
        if (resumes)
            queue->pause();
        queue->append(&task);
        queue->append(&cleared);
        if (resumes) {
            task.pause();
            cleared.pause();
            queue->resume(); // passes both over
        }
        EventLog logBehind(&task);
        logBehind.on(change, [&] { behind.arrive(); });
        Home home;
        task.moveToThread(home.thread());
        bool hasArrived = false;
        connect(&cleared, &Task::canceled, this, [&] {
            QMetaObject::invokeMethod(&task, [&] { resumes ? task.resume() : task.finish(); });
            hasArrived = before.waitForArrival();
            behind.waitForArrival(50);
            delete queue;
        });
        queue->clear(TasksQueue::Cancel);
        QVERIFY(hasArrived);
    }

    void queueMayBeDestroyedWhileItsTasksEndElsewhere()
    {
        Crew crew(2);
        for (const auto end = aSecond(); !end.hasExpired();) {
            auto queue = std::make_unique<TasksQueue>();
            queue->setConnectionType(Qt::DirectConnection);
            queue->setMaxRunningTasksCount(1);
            Task running(Task::Asynchronous);
            Task pending;
            queue->append({&running, &pending});
            crew.make({[&] { running.finish(); }, [&] { queue.reset(); }});
        }
    }

    void queueMayBeMovedAndDestroyedWithItsThread()
    {
        for (const auto end = aSecond(); !end.hasExpired();) {
            Home home;
            auto *queue = new TasksQueue;
            queue->setMaxRunningTasksCount(2);
            queue->moveToThread(home.thread());
            connect(home.thread(), &QThread::finished, queue, &QObject::deleteLater);
            std::vector<std::unique_ptr<Task>> tasks;
            for (int number = 0; number < 20; ++number) {
                tasks.push_back(std::make_unique<Task>(Task::Asynchronous));
                queue->append(tasks.back().get());
            }
            for (const auto &task : tasks) {
                QCoreApplication::processEvents();
                if (task == tasks[10])
                    home.thread()->quit();
                task->finish();
            }
            QVERIFY(handleEventsUntil([&] { return home.thread()->isFinished(); }));
        }
    }
};

QTEST_GUILESS_MAIN(tst_threads)
#include "tst_threads.moc"
