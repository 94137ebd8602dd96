#include "support/Waiting.h"

#include <zel/tasks/GroupTask.h>
#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QPointer>
#include <QRandomGenerator>
#include <QTest>
#include <QThread>

#include <array>
#include <atomic>
#include <memory>
#include <vector>

using namespace Qt::StringLiterals;
using namespace zel;

namespace {

QCoro::Task<> countAwait(Task *task, std::shared_ptr<int> open)
{
    ++*open;
    co_await task;
    --*open;
}

/**
 * What one thread does with tasks, a group and a queue of its own and with two queues of the main thread.
 *
 * Tasks are shared, which means that they go to the queues of the main thread only, whose other users may start them,
 * or private: with these the thread does what only the thread of a task may do.
 */
class Worker {
public:
    Worker(TasksQueue *queued, TasksQueue *direct, quint32 seed) : m_shared{queued, direct}, m_random(seed) { }

    /// Until the time is over. Returns what went wrong.
    QString work(QDeadlineTimer end);

private:
    using Tasks = std::vector<QPointer<Task>>;

    int random(int bound) { return m_random.bounded(bound); }
    Task *any(Tasks &tasks);
    Task *add(Tasks &tasks, Task *task);
    void useShared();
    void usePrivate();
    QString finish();
    static void handleEvents();

    TasksQueue *const m_shared[2];
    QRandomGenerator m_random;
    Tasks m_sharedTasks;
    Tasks m_privateTasks;
    std::unique_ptr<TasksQueue> m_queue;
    std::unique_ptr<GroupTask> m_group;
    std::shared_ptr<int> m_awaits = std::make_shared<int>(0);
    /// Tasks that have started and neither ended nor been destroyed; those of the shared queues start anywhere.
    std::shared_ptr<std::atomic<int>> m_atWork = std::make_shared<std::atomic<int>>(0);
};

void Worker::handleEvents()
{
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

// Null when that one is gone.
Task *Worker::any(Tasks &tasks)
{
    return tasks.at(size_t(random(int(tasks.size()))));
}

Task *Worker::add(Tasks &tasks, Task *task)
{
    // Another thread may start it when its destruction has begun already.
    enum {
        Waits,
        Works,
        IsGone
    };
    const auto phase = std::make_shared<std::atomic<int>>(Waits);
    const auto onStarted = [phase, count = m_atWork] {
        int expected = Waits;
        *count += int(phase->compare_exchange_strong(expected, Works));
    };
    const auto onFinished = [phase, count = m_atWork] {
        int expected = Works;
        *count -= int(phase->compare_exchange_strong(expected, Waits));
    };
    const auto onDestroyed = [phase, count = m_atWork] { *count -= int(phase->exchange(IsGone) == Works); };
    QObject::connect(task, &BaseTask::started, task, onStarted, Qt::DirectConnection);
    QObject::connect(task, &BaseTask::finished, task, onFinished, Qt::DirectConnection);
    QObject::connect(task, &Task::aboutToDestroy, task, onDestroyed, Qt::DirectConnection);
    std::erase_if(tasks, [](const QPointer<Task> &listed) { return !listed; });
    if (tasks.size() > 50)
        delete tasks.at(size_t(random(50)));
    tasks.emplace_back(task);
    return task;
}

void Worker::useShared()
{
    TasksQueue *queue = m_shared[random(4) == 0];
    const auto mode = random(30) == 0 ? Task::WorkingThread : Task::Synchronous;
    const Error result = random(10) == 0 ? Error(GeneralError, u"shared"_s) : Error();
    Task *added = add(m_sharedTasks, new Task([result] { return result; }, mode));
    added->setThreadTerminationEnabled(false);
    queue->append(added);
    Task *task = any(m_sharedTasks);
    switch (task ? random(9) : -1) {
    case 0:
        delete task;
        return;
    case 1:
        return task->setPriority(random(11));
    case 2:
        return m_shared[0]->removeTask(task);
    case 3:
        return task->setCountAsRunning(random(2));
    case 4:
        return queue->prepend(task);
    case 5:
        countAwait(task, m_awaits);
        return;
    case 6:
        queue->pause();
        queue->append({any(m_sharedTasks), task});
        return queue->resume();
    case 7:
        return random(30) == 0 ? queue->clear() : void(queue->count());
    case 8:
        task->waitForFinished(random(2));
        return;
    }
}

void Worker::usePrivate()
{
    if (!m_queue || random(100) == 0) {
        m_queue = std::make_unique<TasksQueue>();
        m_queue->setMaxRunningTasksCount(1 + random(3));
        m_queue->setCleanupMode(TasksQueue::CleanupMode(random(2)));
    }
    if (!m_group || random(50) == 0) {
        m_group = std::make_unique<GroupTask>();
        m_group->setConnectionType(random(2) ? Qt::DirectConnection : Qt::QueuedConnection);
        m_group->setCancelSubtasksMode(GroupTask::CancelSubtasks);
        m_group->setCleanupPolicy(GroupTask::CleanupPolicy(random(3)));
    }
    const auto mode = Task::ExecutionMode(std::array{0, 0, 1, 3, 3}.at(size_t(random(5))));
    Task *task = add(m_privateTasks, new Task([] { return Error(); }, mode));
    task->setThreadTerminationEnabled(false);
    if (random(2))
        m_queue->append(task);
    else
        task->exec();
    task = any(m_privateTasks);
    switch (task ? random(12) : -1) {
    case 0:
        delete task;
        return;
    case 1:
        return task->cancel();
    case 2:
        return task->isFinished() ? task->exec() : task->pause();
    case 3:
        return task->resume();
    case 4:
        return task->finish();
    case 5:
        task->waitForFinished(random(3));
        return;
    case 6:
        countAwait(task, m_awaits);
        return;
    case 7:
        return task->setPriority(random(11));
    case 8:
        return m_queue->append(task);
    case 9:
        return m_group->append(task);
    case 10:
        return m_queue->clear(TasksQueue::ClearPolicy(random(3)));
    case 11:
        return m_group->cancel();
    }
}

QString Worker::finish()
{
    for (const auto &task : m_privateTasks) {
        if (task)
            task->cancel();
    }
    const QDeadlineTimer patience(60'000);
    for (; *m_atWork > 0 && !patience.hasExpired(); QThread::yieldCurrentThread())
        handleEvents();
    const int atWork = *m_atWork;
    m_queue.reset();
    m_group.reset();
    for (Tasks *tasks : {&m_privateTasks, &m_sharedTasks}) {
        for (const auto &task : *tasks)
            delete task;
    }
    for (; *m_awaits > 0 && !patience.hasExpired(); QThread::yieldCurrentThread())
        handleEvents();
    return atWork == 0 && *m_awaits == 0
        ? QString()
        : u"%1 tasks did not end, %2 coroutines were not resumed"_s.arg(atWork).arg(*m_awaits);
}

QString Worker::work(QDeadlineTimer end)
{
    while (!end.hasExpired()) {
        random(2) ? useShared() : usePrivate();
        if (random(6) == 0)
            handleEvents();
    }
    return finish();
}

} // namespace

class tst_load : public QObject {
    Q_OBJECT

public:
    // As long as it was asked for, not the five minutes that a function may take.
    static void initMain() { qputenv("QTEST_FUNCTION_TIMEOUT", "2000000000"); }

private Q_SLOTS:
    void threadsMayDoAnythingAtAnyTime();
    void deletionByTaskAndQueueCostsNoMore();
};

// Under the address sanitizer it shows that nothing touches a task that is gone, and here that no slot is lost.
// ZEL_SOAK_SECONDS says how long it goes on.
void tst_load::threadsMayDoAnythingAtAnyTime()
{
    const QDeadlineTimer end(std::chrono::seconds(qEnvironmentVariable("ZEL_SOAK_SECONDS", u"3"_s).toInt()));
    const quint32 seed = QRandomGenerator::global()->generate();
    qInfo() << "seed" << seed;
    TasksQueue queued;
    queued.setCleanupMode(TasksQueue::DeleteFinished);
    TasksQueue direct;
    direct.setConnectionType(Qt::DirectConnection);
    std::array<QString, 4> failures;
    std::vector<std::unique_ptr<QThread>> threads;
    for (quint32 number = 0; number < failures.size(); ++number) {
        threads.emplace_back(
            QThread::create([&, number] { failures.at(number) = Worker(&queued, &direct, seed + number).work(end); }));
        threads.back()->start();
    }
    QTRY_VERIFY_WITH_TIMEOUT(end.hasExpired(), int(end.remainingTime()) + 1000);
    for (const auto &thread : threads) {
        QTRY_VERIFY_WITH_TIMEOUT(thread->isFinished(), 120'000);
        thread->wait();
    }
    for (const QString &failure : failures)
        QCOMPARE(failure, QString());
    for (const TasksQueue *queue : {&queued, &direct}) {
        QTRY_COMPARE_WITH_TIMEOUT(queue->state(), TasksQueue::Idle, 10'000);
        QCOMPARE(queue->count(), 0);
    }
}

// Qt searches what is posted when a receiver is destroyed.
void tst_load::deletionByTaskAndQueueCostsNoMore()
{
    const auto drainTime = [](bool deletesItself) {
        TasksQueue queue;
        queue.setConnectionType(Qt::DirectConnection);
        queue.setCleanupMode(TasksQueue::DeleteFinished);
        QEventLoop loop;
        const auto appendAll = [&] {
            for (int left = 40'000; left > 0; --left) {
                auto *task = new Task;
                task->setDeleteOnFinished(deletesItself);
                if (left == 1)
                    connect(task, &QObject::destroyed, &loop, &QEventLoop::quit);
                queue.append(task);
            }
        };
        QElapsedTimer timer;
        timer.start();
        QMetaObject::invokeMethod(&loop, appendAll, Qt::QueuedConnection);
        loop.exec();
        return timer.elapsed();
    };
    QCOMPARE_LT(drainTime(true), 3 * drainTime(false) + 300);
}

QTEST_GUILESS_MAIN(tst_load)
#include "tst_load.moc"
