// task-cost: what the library costs beyond what its design cannot avoid. Ours and a skeleton without logic take turns.

#include "Skeleton.h"
#include "Table.h"

#include <zel/tasks/GroupTask.h>
#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QThread>

#include <string>
#include <vector>

using namespace zel;

namespace {

void drain()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCoreApplication::sendPostedEvents();
}

template <typename TaskClass, typename... Arguments>
std::vector<std::unique_ptr<TaskClass>> make(int64_t count, Arguments... arguments)
{
    std::vector<std::unique_ptr<TaskClass>> tasks;
    for (int64_t i = 0; i < count; ++i)
        tasks.push_back(std::make_unique<TaskClass>(arguments...));
    return tasks;
}

const auto noWork = [] { return Error(); };

/// How many items an iteration handles: registered as the argument.
int64_t itemsOf(const benchmark::State &state)
{
    return state.range(0);
}

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

void runQueue(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        auto tasks = make<Task>(itemsOf(state), noWork);
        TasksQueue queue;
        queue.setMaxRunningTasksCount(1);
        QEventLoop loop;
        QObject::connect(&queue, &TasksQueue::stateChanged, &loop,
                         [&loop](TasksQueue::State reached) { reached == TasksQueue::Idle ? loop.quit() : void(); });
        state.ResumeTiming();
        for (const auto &task : tasks)
            queue.append(task.get());
        loop.exec();
        state.PauseTiming();
        tasks.clear();
        state.ResumeTiming();
    }
}

void runQueueSkeleton(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        auto tasks = make<Skeleton>(itemsOf(state));
        SkeletonQueue queue;
        QEventLoop loop;
        QObject::connect(&queue, &SkeletonQueue::idle, &loop, &QEventLoop::quit);
        state.ResumeTiming();
        for (const auto &task : tasks)
            queue.append(task.get());
        queue.start();
        loop.exec();
        state.PauseTiming();
        tasks.clear();
        state.ResumeTiming();
    }
}

template <GroupTask::CleanupPolicy policy, bool reportsProgress>
void runGroup(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        auto tasks = make<Task>(itemsOf(state), Task::Asynchronous);
        GroupTask group;
        group.setCleanupPolicy(policy);
        state.ResumeTiming();
        for (const auto &task : tasks) {
            group.append(task.get());
            task->exec();
            if (reportsProgress)
                task->setProgress(1, 2);
            task->finish();
        }
        QCoreApplication::sendPostedEvents();
        if (!group.isFinished())
            state.SkipWithError("the group has not ended");
        state.PauseTiming();
        for (auto &task : tasks)
            policy == GroupTask::SelfDelete ? task.reset() : void(task.release());
        drain();
        state.ResumeTiming();
    }
}

template <GroupTask::CleanupPolicy policy, bool reportsProgress>
void runGroupSkeleton(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        auto tasks = make<Skeleton>(itemsOf(state));
        SkeletonGroup group;
        group.deletesChildren = policy == GroupTask::DeleteWhenFinished;
        state.ResumeTiming();
        for (const auto &task : tasks) {
            group.append(task.get());
            task->start();
            if (reportsProgress)
                task->setProgress(1, 2);
            task->end();
        }
        QCoreApplication::sendPostedEvents();
        if (policy == GroupTask::DeleteWithGroup) {
            for (const auto &task : tasks)
                task->deleteLater();
        }
        state.PauseTiming();
        for (auto &task : tasks)
            policy == GroupTask::SelfDelete ? task.reset() : void(task.release());
        drain();
        state.ResumeTiming();
    }
}

void runThreads(benchmark::State &state)
{
    for (auto _ : state) {
        for (int64_t i = 0; i < itemsOf(state); ++i) {
            Task task(noWork, Task::WorkingThread);
            QEventLoop loop;
            QObject::connect(&task, &Task::finished, &loop, &QEventLoop::quit);
            task.exec();
            loop.exec();
        }
        drain();
    }
}

void runThreadsBaseline(benchmark::State &state)
{
    for (auto _ : state) {
        for (int64_t i = 0; i < itemsOf(state); ++i) {
            QThread *thread = QThread::create([] {});
            QEventLoop loop;
            QObject::connect(thread, &QThread::finished, &loop, &QEventLoop::quit, Qt::QueuedConnection);
            QObject::connect(thread, &QThread::finished, thread, &QObject::deleteLater);
            thread->start();
            loop.exec();
        }
        drain();
    }
}

const std::vector<int> small{1'000, 10'000, 100'000};

const std::vector<Workload> workloads{
    {"create, run, delete", createRunDelete, createRunDeleteSkeleton, {1}, 1.8, 0, false},
    {"queue, append to idle", runQueue, runQueueSkeleton, small, 1.15, 1.3, false},
    {"group, DeleteWithGroup", runGroup<GroupTask::DeleteWithGroup, false>,
     runGroupSkeleton<GroupTask::DeleteWithGroup, false>, small, 1.2, 1.5, false},
    {"group, DeleteWhenFinished", runGroup<GroupTask::DeleteWhenFinished, false>,
     runGroupSkeleton<GroupTask::DeleteWhenFinished, false>, small, 1.2, 1.5, false},
    {"group, SelfDelete", runGroup<GroupTask::SelfDelete, false>, runGroupSkeleton<GroupTask::SelfDelete, false>, small,
     1.2, 1.5, false},
    {"group with progress", runGroup<GroupTask::DeleteWhenFinished, true>,
     runGroupSkeleton<GroupTask::DeleteWhenFinished, true>, small, 1.25, 1.5, false},
    {"working thread", runThreads, runThreadsBaseline, {100}, 1.05, 0, true},
};

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    for (const Workload &workload : workloads) {
        for (const int size : workload.sizes) {
            const std::string name = std::string(workload.name) + '/' + std::to_string(size);
            for (const auto &[side, function] :
                 {std::pair("/ours", workload.ours), std::pair("/baseline", workload.baseline)})
                benchmark::RegisterBenchmark((name + side).c_str(), function)->Arg(size);
        }
    }
    std::vector<char *> arguments(argv, argv + argc);
    std::string interleaving = "--benchmark_enable_random_interleaving=true";
    std::string repetitions = "--benchmark_repetitions=9";
    std::string duration = "--benchmark_min_time=0.05";
    arguments.insert(arguments.begin() + 1, {interleaving.data(), repetitions.data(), duration.data()});
    int count = int(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    Table table(workloads);
    benchmark::RunSpecifiedBenchmarks(&table);
}
