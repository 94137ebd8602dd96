#include "Skeleton.h"
#include "workloads.h"

#include <zel/tasks/GroupTask.h>
#include <zel/tasks/Task.h>

#include <QCoreApplication>

using namespace zel;

namespace {

/// Children are deleted by their group, or here: not while the clock runs.
template <typename TaskClass>
void deleteChildren(std::vector<std::unique_ptr<TaskClass>> &children, GroupTask::CleanupPolicy policy)
{
    for (auto &child : children)
        policy == GroupTask::SelfDelete ? child.reset() : void(child.release());
    handleEvents();
}

/// Children are dealt out to the groups one by one, so that memory is walked in the same order for many small groups as
/// for a large one.
template <GroupTask::CleanupPolicy policy, bool reportsProgress = false>
void runGroup(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        auto children = make<Task>(sizeOf(state) * containersOf(state), Task::Asynchronous);
        auto groups = make<GroupTask>(containersOf(state));
        for (const auto &group : groups)
            group->setCleanupPolicy(policy);
        state.ResumeTiming();
        auto child = children.begin();
        while (child != children.end()) {
            for (const auto &group : groups) {
                Task *task = (child++)->get();
                group->append(task);
                task->exec();
                if (reportsProgress)
                    task->setProgress(1, 2);
                task->finish();
            }
        }
        QCoreApplication::sendPostedEvents();
        state.PauseTiming();
        if (!groups.back()->isFinished())
            state.SkipWithError("the group has not ended");
        deleteChildren(children, policy);
        groups.clear();
        state.ResumeTiming();
    }
}

template <GroupTask::CleanupPolicy policy, bool reportsProgress = false>
void runGroupSkeleton(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        auto children = make<Skeleton>(sizeOf(state));
        auto group = std::make_unique<SkeletonGroup>();
        group->deletesChildren = policy == GroupTask::DeleteWhenFinished;
        state.ResumeTiming();
        for (const auto &child : children) {
            group->append(child.get());
            child->start();
            if (reportsProgress)
                child->setProgress(1, 2);
            child->end();
        }
        QCoreApplication::sendPostedEvents();
        if (policy == GroupTask::DeleteWithGroup) {
            for (const auto &child : children)
                child->deleteLater();
        }
        state.PauseTiming();
        deleteChildren(children, policy);
        group.reset();
        state.ResumeTiming();
    }
}

template <GroupTask::CleanupPolicy policy>
Workload cleanup(const char *name)
{
    return {.name = name,
            .ours = runGroup<policy>,
            .baseline = runGroupSkeleton<policy>,
            .size = 1'000,
            .ratioGoal = 1.2,
            .largeSize = 1'000'000,
            .growthGoal = 1.5};
}

} // namespace

std::vector<Workload> groupWorkloads()
{
    constexpr auto whenFinished = GroupTask::DeleteWhenFinished;
    return {
        cleanup<GroupTask::DeleteWithGroup>("group, DeleteWithGroup"),
        cleanup<whenFinished>("group, DeleteWhenFinished"),
        cleanup<GroupTask::SelfDelete>("group, SelfDelete"),
        {.name = "group, with progress",
         .ours = runGroup<whenFinished, true>,
         .baseline = runGroupSkeleton<whenFinished, true>,
         .size = 1'000,
         .ratioGoal = 1.25},
    };
}
