#include "Skeleton.h"
#include "workloads.h"

#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QEventLoop>

#include <malloc.h>

using namespace zel;

namespace {

void createRunDelete(benchmark::State &state)
{
    for (auto _ : state) {
        Task task(noWork);
        task.exec();
    }
}

void createRunDeleteSkeleton(benchmark::State &state)
{
    for (auto _ : state) {
        Skeleton task;
        task.run();
    }
}

void waitForTask(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        auto tasks = make<Task>(sizeOf(state), Task::Asynchronous);
        for (const auto &task : tasks)
            task->exec();
        state.ResumeTiming();
        for (const auto &task : tasks) {
            QMetaObject::invokeMethod(
                task.get(), [ended = task.get()] { ended->finish(); }, Qt::QueuedConnection);
            task->waitForFinished();
        }
        state.PauseTiming();
        tasks.clear();
        state.ResumeTiming();
    }
}

void runEventLoop(benchmark::State &state)
{
    for (auto _ : state) {
        for (int64_t i = 0; i < sizeOf(state); ++i) {
            QEventLoop loop;
            QMetaObject::invokeMethod(&loop, &QEventLoop::quit, Qt::QueuedConnection);
            loop.exec();
        }
    }
}

void runEventLoopToEnd(benchmark::State &state)
{
    Skeleton task;
    for (auto _ : state) {
        for (int64_t i = 0; i < sizeOf(state); ++i) {
            QEventLoop loop;
            const auto end = [&task, &loop] {
                task.end();
                loop.quit();
            };
            QMetaObject::invokeMethod(&task, end, Qt::QueuedConnection);
            loop.exec();
        }
    }
}

/// Sets the counter that the table shows.
void setBytesPerItem(benchmark::State &state, size_t used)
{
    state.counters["bytes"] = double(used) / double(sizeOf(state));
}

template <typename TaskClass, typename... Arguments>
void measureHeap(benchmark::State &state, const Arguments &...arguments)
{
    for (auto _ : state) {
        std::vector<std::unique_ptr<TaskClass>> tasks;
        tasks.reserve(size_t(sizeOf(state)));
        const size_t before = mallinfo2().uordblks;
        for (int64_t i = 0; i < sizeOf(state); ++i)
            tasks.push_back(std::make_unique<TaskClass>(arguments...));
        setBytesPerItem(state, mallinfo2().uordblks - before);
    }
}

template <typename TaskClass, typename Queue, typename... Arguments>
void measureHeapInQueue(benchmark::State &state, const auto &prepare, const Arguments &...arguments)
{
    for (auto _ : state) {
        std::vector<std::unique_ptr<TaskClass>> tasks;
        tasks.reserve(size_t(sizeOf(state)));
        Queue queue;
        prepare(queue);
        const size_t before = mallinfo2().uordblks;
        for (int64_t i = 0; i < sizeOf(state); ++i) {
            tasks.push_back(std::make_unique<TaskClass>(arguments...));
            queue.append(tasks.back().get());
        }
        setBytesPerItem(state, mallinfo2().uordblks - before);
    }
}

void idleHeap(benchmark::State &state)
{
    measureHeap<Task>(state, noWork);
}

void idleHeapSkeleton(benchmark::State &state)
{
    measureHeap<Skeleton>(state);
}

void pendingHeap(benchmark::State &state)
{
    measureHeapInQueue<Task, TasksQueue>(
        state, [](TasksQueue &queue) { queue.pause(); }, noWork);
}

void pendingHeapSkeleton(benchmark::State &state)
{
    measureHeapInQueue<Skeleton, SkeletonQueue>(state, [](SkeletonQueue &) {});
}

} // namespace

std::vector<Workload> taskWorkloads()
{
    return {
        {.name = "create, run, delete", .ours = createRunDelete, .baseline = createRunDeleteSkeleton, .ratioGoal = 1.55},
        {.name = "blocking wait", .ours = waitForTask, .baseline = runEventLoop, .size = 100, .ratioGoal = 1.5},
        // The end of the task is no part of the wait, but of what is measured.
        {.name = "blocking wait, with the end", .ours = waitForTask, .baseline = runEventLoopToEnd, .size = 100},
        {.name = "heap, idle task",
         .ours = idleHeap,
         .baseline = idleHeapSkeleton,
         .size = 100'000,
         .costGoal = 992,
         .quantity = Workload::Bytes},
        {.name = "heap, task in a queue",
         .ours = pendingHeap,
         .baseline = pendingHeapSkeleton,
         .size = 100'000,
         .costGoal = 1'300,
         .quantity = Workload::Bytes},
    };
}
