#include "support/EventLog.h"
#include "support/Gate.h"
#include "support/Rows.h"
#include "support/Waiting.h"

#include <zel/tasks/CustomComplexTask.h>
#include <zel/tasks/GroupTask.h>
#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QPointer>
#include <QTest>
#include <QThread>

#include <array>
#include <atomic>
#include <memory>

using namespace Qt::StringLiterals;
using namespace zel;

namespace {

const auto endOfRun = u"stateChanged(Finalizing) finalizing stateChanged(Finished)"_s;

/// Starts its subtasks.
class Batch : public CustomComplexTask {
public:
    explicit Batch(const QList<Task *> &tasks) : subtasks(tasks) { }
    using ComplexTask::groupTask;
    const QList<Task *> subtasks;

protected:
    Error doExecSubtasks() override
    {
        execSubtasks(subtasks);
        return Error();
    }
};

/// Work that takes a while, unless it is interrupted.
Error count(int turns)
{
    for (int turn = 0; turn < turns && !QThread::currentThread()->isInterruptionRequested(); ++turn)
        QThread::yieldCurrentThread();
    return Error();
}

/// A thread that calls a function. Ends the process when that does not return.
class Caller {
public:
    explicit Caller(std::function<void()> function) : m_thread(QThread::create(std::move(function)))
    {
        m_thread->start();
    }
    ~Caller()
    {
        if (!waitForReturn())
            qFatal("A call has not returned");
    }
    Q_DISABLE_COPY_MOVE(Caller)

    bool waitForReturn() const { return m_thread->wait(10'000); }

private:
    const std::unique_ptr<QThread> m_thread;
};

/// A thread with an event loop, in which objects live.
class Home {
public:
    Home()
    {
        m_context.moveToThread(&m_thread);
        m_thread.start();
    }
    ~Home()
    {
        m_thread.quit();
        m_thread.wait();
    }
    Q_DISABLE_COPY_MOVE(Home)

    template <typename Function>
    void post(Function function)
    {
        QMetaObject::invokeMethod(&m_context, std::move(function), Qt::QueuedConnection);
    }
    void take(QObject *object) { object->moveToThread(&m_thread); }

private:
    QThread m_thread;
    QObject m_context;
};

/// Working tasks, which their group is to delete.
class Children {
public:
    Task *add(std::function<Error()> work)
    {
        auto *task = new Task(std::move(work), Task::WorkingThread);
        task->setThreadTerminationEnabled(false);
        ++m_alive;
        QObject::connect(
            task, &QObject::destroyed, task, [this] { --m_alive; }, Qt::DirectConnection);
        return task;
    }
    bool waitForDeletion() const
    {
        return pollUntil([this] {
            drainEvents();
            return m_alive == 0;
        });
    }

private:
    std::atomic<int> m_alive = 0;
};

} // namespace

class GroupThreadsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { failOnQtWarnings(); }

    void cancelMeetsClearOfTheQueue()
    {
        TasksQueue queue;
        queue.setConnectionType(Qt::DirectConnection);
        queue.setMaxRunningTasksCount(1);
        Task running(Task::Asynchronous);
        Task pending;
        Batch batch({&running});
        batch.groupTask()->setCleanupPolicy(GroupTask::SelfDelete);
        queue.append(&batch);
        queue.append(&pending);
        Gate gate;
        connect(
            &running, &Task::canceled, &running, [&] { gate.arriveAndWait(); }, Qt::DirectConnection);
        connect(
            &pending, &Task::canceled, &pending, [&] { gate.arrive(); }, Qt::DirectConnection);
        const Caller cancel([&] { batch.cancel(); });
        QVERIFY(gate.waitForArrival());
        const Caller clear([&] { queue.clear(TasksQueue::Cancel); });
        QVERIFY(gate.waitForArrival());
        gate.open();
        QVERIFY(clear.waitForReturn() && cancel.waitForReturn());
        QVERIFY(batch.isCanceled() && running.isCanceled() && pending.isCanceled());
        QCOMPARE(queue.count(), 0);
    }

    void endOfAChildMeetsAQuietStop()
    {
        for (const bool stopIsFirst : {false, true}) {
            Task child(Task::Asynchronous);
            GroupTask group;
            group.setCleanupPolicy(GroupTask::SelfDelete);
            group.append(&child);
            child.exec();
            EventLog log(&child);
            Gate gate;
            log.on(u"finalizing"_s, [&] { gate.arriveAndWait(); });
            const auto end = [&] { child.finish(Error(ReadError)); };
            const auto stop = [&] { group.cancel(); };
            {
                const Caller first([&] { stopIsFirst ? stop() : end(); });
                QVERIFY(gate.waitForArrival());
                stopIsFirst ? end() : stop();
                gate.open();
            }
            QCOMPARE(log.take(), stopIsFirst ? endOfRun : u"errorChanged(ReadError) "_s + endOfRun + u" finished"_s);
            QCOMPARE(child.hasError(), !stopIsFirst);
            QVERIFY(group.isCanceled());
        }
    }

    void groupMayBeCanceledWhileAnotherThreadStartsItsChildren()
    {
        TasksQueue queue;
        queue.setMaxRunningTasksCount(50);
        Home home;
        home.take(&queue);
        Children children;
        const QDeadlineTimer end(1000);
        for (int round = 0; !end.hasExpired(); ++round) {
            GroupTask group;
            queue.pause();
            for (int number = 0; number < 50; ++number) {
                Task *task = children.add([turns = round % 5] { return count(turns); });
                group.append(task);
                queue.append(task);
            }
            home.post([&queue] { queue.resume(); });
            count(round % 100);
            group.cancel();
            QVERIFY(group.isCanceled() && children.waitForDeletion());
        }
        QTRY_COMPARE(queue.count(), 0);
    }

    void childrenOfAnotherThreadAreStopped_data() { addRows<bool>({{"one fails", true}, {"cancel", false}}); }

    void childrenOfAnotherThreadAreStopped()
    {
        QFETCH(const bool, row);
        Home home;
        Children children;
        const QDeadlineTimer end(1000);
        for (int round = 0; !end.hasExpired(); ++round) {
            GroupTask group;
            for (int number = 0; number < 50; ++number) {
                const bool fails = row && number == round % 50;
                const QPointer<Task> task = children.add([=] { return fails ? Error(UserError) : count(round % 5); });
                group.append(task);
                home.take(task);
                home.post([task] {
                    if (task)
                        task->exec();
                });
            }
            count(row ? 0 : round % 200);
            if (!row)
                group.cancel();
            QVERIFY(!group.waitForFinished(10'000).equals(Timeout));
            QVERIFY(children.waitForDeletion());
        }
    }

    void complexTaskMayBeDestroyedWhileItIsStopped()
    {
        const QDeadlineTimer end(1000);
        for (int round = 0; !end.hasExpired(); ++round) {
            QObject owner;
            QList<Task *> tasks;
            while (tasks.size() < 10)
                tasks.append(new Task(Task::Asynchronous, &owner));
            auto *batch = new Batch(tasks);
            GroupTask group;
            group.setCancelSubtasksMode(GroupTask::CancelSubtasksMode(round % 2));
            group.setCleanupPolicy(GroupTask::SelfDelete);
            group.append(batch);
            batch->exec();
            std::atomic<int> ready = 0;
            const auto meet = [&ready] {
                for (++ready; ready < 2;) { }
            };
            const Caller stop([&] {
                meet();
                group.cancel();
            });
            meet();
            delete batch;
            QVERIFY(stop.waitForReturn());
            QVERIFY(group.isCanceled());
            drainEvents();
        }
    }
};

QTEST_GUILESS_MAIN(GroupThreadsTest)
#include "tst_groupthreads.moc"
