#include "Skeleton.h"
#include "workloads.h"

#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>
#include <QEventLoop>

using namespace zel;

namespace {

/// Queues and the tasks for them, which are made and destroyed while the clock stands. The tasks are dealt out one by
/// one, so that memory is walked in the same order for many small queues as for a large one.
class Queues {
public:
    explicit Queues(benchmark::State &state)
        : m_state(state)
        , m_queues(make<TasksQueue>(containersOf(state)))
        , m_tasks(make<Task>(sizeOf(state) * containersOf(state), noWork))
    {
        for (const auto &queue : m_queues) {
            queue->setMaxRunningTasksCount(1);
            QObject::connect(queue.get(), &TasksQueue::stateChanged, &m_loop, [this](TasksQueue::State reached) {
                if (reached == TasksQueue::Idle && ++m_idleCount == m_queues.size())
                    m_loop.quit();
            });
        }
    }

    void pause()
    {
        for (const auto &queue : m_queues)
            queue->pause();
    }
    void setPriorities(int first, int count)
    {
        int number = 0;
        for (const auto &task : m_tasks)
            task->setPriority(first + number++ % count);
    }
    void append()
    {
        auto task = m_tasks.begin();
        while (task != m_tasks.end()) {
            for (const auto &queue : m_queues)
                queue->append((task++)->get());
        }
    }
    void resume()
    {
        for (const auto &queue : m_queues)
            queue->resume();
    }
    void runToIdle()
    {
        m_loop.exec();
        if (!m_tasks.back()->isSuccessful())
            m_state.SkipWithError("not all tasks were run");
    }

private:
    benchmark::State &m_state;
    QEventLoop m_loop;
    size_t m_idleCount = 0;
    std::vector<std::unique_ptr<TasksQueue>> m_queues;
    std::vector<std::unique_ptr<Task>> m_tasks;
};

class SkeletonQueues {
public:
    explicit SkeletonQueues(benchmark::State &state) : m_tasks(make<Skeleton>(sizeOf(state)))
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

constexpr int priorities = 11;

/// Times one step on what another one has prepared.
template <typename Made>
void time(benchmark::State &state, void (*prepare)(Made &queues), void (*step)(Made &queues))
{
    for (auto _ : state) {
        state.PauseTiming();
        {
            Made queues(state);
            prepare(queues);
            state.ResumeTiming();
            step(queues);
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
}

void runQueue(benchmark::State &state)
{
    time<Queues>(
        state, [](Queues &) {},
        [](Queues &queues) {
            queues.append();
            queues.runToIdle();
        });
}

void runQueueSkeleton(benchmark::State &state)
{
    time<SkeletonQueues>(
        state, [](SkeletonQueues &) {},
        [](SkeletonQueues &queues) {
            queues.append();
            queues.resume();
            queues.runToIdle();
        });
}

template <typename Made>
void enqueue(benchmark::State &state)
{
    time<Made>(
        state,
        [](Made &queues) {
            queues.pause();
            queues.setPriorities(0, priorities);
        },
        [](Made &queues) { queues.append(); });
}

template <typename Made>
void enqueueAll(Made &queues)
{
    queues.pause();
    queues.setPriorities(0, priorities);
    queues.append();
}

template <typename Made>
void drain(benchmark::State &state)
{
    time<Made>(state, enqueueAll<Made>, [](Made &queues) {
        queues.resume();
        queues.runToIdle();
    });
}

void changePriorities(benchmark::State &state)
{
    time<Queues>(
        state,
        [](Queues &queues) {
            queues.pause();
            queues.append();
        },
        [](Queues &queues) {
            queues.setPriorities(2, 8);
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
         .baseline = runQueueSkeleton,
         .size = small,
         .ratioGoal = 1.15,
         .largeSize = large,
         .growthGoal = 1.3},
        {.name = "backlog, enqueue",
         .ours = enqueue<Queues>,
         .baseline = enqueue<SkeletonQueues>,
         .size = small,
         .ratioGoal = 1.5,
         .largeSize = large,
         .growthGoal = 1.5},
        {.name = "backlog, drain",
         .ours = drain<Queues>,
         .baseline = drain<SkeletonQueues>,
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
