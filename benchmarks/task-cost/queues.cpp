#include "Skeleton.h"
#include "workloads.h"

#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>
#include <QEventLoop>

using namespace zel;

namespace {

/// A queue that is idle and its tasks.
class Queue {
public:
    explicit Queue(int64_t size) : m_tasks(make<Task>(size, noWork))
    {
        m_queue.setMaxRunningTasksCount(1);
        QObject::connect(&m_queue, &TasksQueue::stateChanged, &m_loop, [this](TasksQueue::State reached) {
            if (reached == TasksQueue::Idle)
                m_loop.quit();
        });
    }

    void pause() { m_queue.pause(); }
    void setPriorities(int first, int count)
    {
        int number = 0;
        for (const auto &task : m_tasks)
            task->setPriority(first + number++ % count);
    }
    void append()
    {
        for (const auto &task : m_tasks)
            m_queue.append(task.get());
    }
    void resume() { m_queue.resume(); }
    void runToIdle() { m_loop.exec(); }

private:
    QEventLoop m_loop;
    TasksQueue m_queue;
    std::vector<std::unique_ptr<Task>> m_tasks;
};

/// The same without logic: it starts when it is told to.
class BareQueue {
public:
    explicit BareQueue(int64_t size) : m_tasks(make<Skeleton>(size))
    {
        QObject::connect(&m_queue, &SkeletonQueue::idle, &m_loop, &QEventLoop::quit);
    }

    void pause() { }
    void setPriorities(int first, int count)
    {
        int number = 0;
        for (const auto &task : m_tasks)
            task->priority = first + number++ % count;
    }
    void append()
    {
        for (const auto &task : m_tasks)
            m_queue.append(task.get());
    }
    void resume() { m_queue.start(); }
    void runToIdle() { m_loop.exec(); }

private:
    QEventLoop m_loop;
    SkeletonQueue m_queue;
    std::vector<std::unique_ptr<Skeleton>> m_tasks;
};

/// Times one step on what another one has prepared, each for all queues before the next one.
template <typename Made>
void time(benchmark::State &state, void (*prepare)(Made &queue), void (*step)(Made &queue))
{
    for (auto _ : state) {
        state.PauseTiming();
        auto queues = make<Made>(containersOf(state), sizeOf(state));
        for (const auto &queue : queues)
            prepare(*queue);
        state.ResumeTiming();
        for (const auto &queue : queues)
            step(*queue);
        state.PauseTiming();
        queues.clear();
        state.ResumeTiming();
    }
}

template <typename Made>
void doNothing(Made &)
{
}

template <typename Made>
void pauseAndSetPriorities(Made &queue)
{
    constexpr int priorities = 11;
    queue.pause();
    queue.setPriorities(0, priorities);
}

template <typename Made>
void fillBacklog(Made &queue)
{
    pauseAndSetPriorities(queue);
    queue.append();
}

void runQueue(benchmark::State &state)
{
    time<Queue>(state, doNothing, [](Queue &queue) {
        queue.append();
        queue.runToIdle();
    });
}

void runBareQueue(benchmark::State &state)
{
    time<BareQueue>(state, doNothing, [](BareQueue &queue) {
        queue.append();
        queue.resume();
        queue.runToIdle();
    });
}

template <typename Made>
void enqueue(benchmark::State &state)
{
    time<Made>(state, pauseAndSetPriorities, [](Made &queue) { queue.append(); });
}

template <typename Made>
void drain(benchmark::State &state)
{
    time<Made>(state, fillBacklog, [](Made &queue) {
        queue.resume();
        queue.runToIdle();
    });
}

void changePriorities(benchmark::State &state)
{
    const auto pauseAndAppend = [](Queue &queue) {
        queue.pause();
        queue.append();
    };
    time<Queue>(state, pauseAndAppend, [](Queue &queue) {
        queue.setPriorities(2, 8);
        QCoreApplication::sendPostedEvents();
    });
}

constexpr int small = 1'000;
constexpr int large = 1'000'000;

} // namespace

std::vector<Workload> queueWorkloads()
{
    return {
        {.name = "queue, append to idle",
         .ours = runQueue,
         .baseline = runBareQueue,
         .size = small,
         .ratioGoal = 1.15,
         .largeSize = large,
         .growthGoal = 1.3},
        {.name = "backlog, enqueue",
         .ours = enqueue<Queue>,
         .baseline = enqueue<BareQueue>,
         .size = small,
         .ratioGoal = 1.5,
         .largeSize = large,
         .growthGoal = 1.5},
        {.name = "backlog, drain",
         .ours = drain<Queue>,
         .baseline = drain<BareQueue>,
         .size = small,
         .ratioGoal = 1.15,
         .largeSize = large,
         .growthGoal = 1.5},
        {.name = "backlog, priority change",
         .ours = changePriorities,
         .size = small,
         .costGoal = 2'000,
         .largeSize = large,
         .growthGoal = 1.5},
    };
}
