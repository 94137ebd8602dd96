#include "workloads.h"

#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QFutureWatcher>
#include <QThread>
#include <QThreadPool>
#include <QtConcurrentRun>

using namespace zel;

namespace {

// One job at a time.

void runTasks(benchmark::State &state)
{
    for (auto _ : state) {
        for (int64_t i = 0; i < sizeOf(state); ++i) {
            Task task(noWork, Task::WorkingThread);
            QEventLoop loop;
            QObject::connect(&task, &Task::finished, &loop, &QEventLoop::quit);
            task.exec();
            loop.exec();
        }
        handleEvents();
    }
}

/// Starts a thread without work; \a onFinished is called in the thread of \a context.
void startThread(QObject *context, const auto &onFinished)
{
    QThread *thread = QThread::create([] {});
    const auto finish = [thread, onFinished] {
        thread->deleteLater();
        onFinished();
    };
    QObject::connect(thread, &QThread::finished, context, finish, Qt::QueuedConnection);
    thread->start();
}

void runThreads(benchmark::State &state)
{
    for (auto _ : state) {
        for (int64_t i = 0; i < sizeOf(state); ++i) {
            QEventLoop loop;
            startThread(&loop, [&loop] { loop.quit(); });
            loop.exec();
        }
        handleEvents();
    }
}

void runPool(benchmark::State &state)
{
    for (auto _ : state) {
        for (int64_t i = 0; i < sizeOf(state); ++i) {
            QEventLoop loop;
            QThreadPool::globalInstance()->start(
                [&loop] { QMetaObject::invokeMethod(&loop, &QEventLoop::quit, Qt::QueuedConnection); });
            loop.exec();
        }
    }
}

void runFutures(benchmark::State &state)
{
    for (auto _ : state) {
        for (int64_t i = 0; i < sizeOf(state); ++i) {
            QEventLoop loop;
            QFutureWatcher<Error> watcher;
            QObject::connect(&watcher, &QFutureWatcherBase::finished, &loop, &QEventLoop::quit);
            watcher.setFuture(QtConcurrent::run(noWork));
            loop.exec();
        }
    }
}

// Two jobs at a time.

constexpr int limit = 2;

void runQueue(int64_t size)
{
    TasksQueue queue;
    queue.setMaxRunningTasksCount(limit);
    QEventLoop loop;
    QObject::connect(&queue, &TasksQueue::stateChanged, &loop, [&loop](TasksQueue::State reached) {
        if (reached == TasksQueue::Idle)
            loop.quit();
    });
    const auto tasks = make<Task>(size, noWork, Task::WorkingThread);
    for (const auto &task : tasks)
        queue.append(task.get());
    loop.exec();
}

void runTasksInQueues(benchmark::State &state)
{
    for (auto _ : state) {
        for (int64_t i = 0; i < containersOf(state); ++i) {
            runQueue(sizeOf(state));
            handleEvents();
        }
    }
}

/// Starts the threads that are left, each when another one has finished.
class Threads {
public:
    explicit Threads(int64_t count) : m_unfinished(count), m_unstarted(count) { }

    void run()
    {
        for (int i = 0; i < limit; ++i)
            startNext();
        m_loop.exec();
    }

private:
    void startNext()
    {
        if (m_unstarted-- > 0)
            startThread(&m_loop, [this] { onFinished(); });
    }
    void onFinished()
    {
        if (--m_unfinished == 0)
            m_loop.quit();
        else
            startNext();
    }

    QEventLoop m_loop;
    int64_t m_unfinished;
    int64_t m_unstarted;
};

void runThreadsByTwo(benchmark::State &state)
{
    for (auto _ : state) {
        Threads(sizeOf(state)).run();
        handleEvents();
    }
}

} // namespace

std::vector<Workload> threadWorkloads()
{
    constexpr auto wallTime = Workload::WallTime;
    return {
        {.name = "working thread, exec",
         .ours = runTasks,
         .baseline = runThreads,
         .size = 100,
         .ratioGoal = 1.05,
         .quantity = wallTime},
        {.name = "working thread, queue of 2",
         .ours = runTasksInQueues,
         .baseline = runThreadsByTwo,
         .size = 100,
         .ratioGoal = 1.1,
         .largeSize = 10'000,
         .growthGoal = 1.1,
         .quantity = wallTime},
        // The same jobs in other ways: those of "working thread, exec" against what else could run them.
        {.name = "instead: pool, queued call",
         .ours = runTasks,
         .baseline = runPool,
         .size = 100,
         .quantity = wallTime},
        {.name = "instead: QtConcurrent, watcher",
         .ours = runTasks,
         .baseline = runFutures,
         .size = 100,
         .quantity = wallTime},
    };
}
