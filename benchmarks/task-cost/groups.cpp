#include "Skeleton.h"
#include "workloads.h"

#include <zel/tasks/GroupTask.h>
#include <zel/tasks/Task.h>

#include <QCoreApplication>

#include <malloc.h>

using namespace zel;

namespace {

using Policy = GroupTask::CleanupPolicy;

/// A group and its children, which are deleted by the group or here: by events, so not before they are handled.
template <typename Group, typename Child>
class Family {
public:
    Family(int64_t size, Policy policy, const auto &...arguments)
        : m_policy(policy)
        , m_children(make<Child>(size, arguments...))
    {
    }
    ~Family()
    {
        for (auto &child : m_children)
            m_policy == GroupTask::SelfDelete ? child.reset() : void(child.release());
        handleEvents();
    }
    Q_DISABLE_COPY_MOVE(Family)

    void run(bool reportsProgress, void (*start)(Child &child), void (*end)(Child &child))
    {
        for (const auto &child : m_children) {
            group.append(child.get());
            start(*child);
            if (reportsProgress)
                child->setProgress(1, 2);
            end(*child);
        }
    }
    const auto &children() const { return m_children; }

    Group group;

private:
    const Policy m_policy;
    std::vector<std::unique_ptr<Child>> m_children;
};

template <Policy policy, bool reportsProgress = false>
void runGroup(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        auto families = make<Family<GroupTask, Task>>(containersOf(state), sizeOf(state), policy, Task::Asynchronous);
        for (const auto &family : families)
            family->group.setCleanupPolicy(policy);
        state.ResumeTiming();
        for (const auto &family : families) {
            family->run(
                reportsProgress, [](Task &task) { task.exec(); }, [](Task &task) { task.finish(); });
        }
        QCoreApplication::sendPostedEvents();
        state.PauseTiming();
        if (!families.back()->group.isFinished())
            state.SkipWithError("the group has not ended");
        families.clear();
        state.ResumeTiming();
    }
}

template <Policy policy, bool reportsProgress = false>
void runGroupSkeleton(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        auto family = std::make_unique<Family<SkeletonGroup, Skeleton>>(sizeOf(state), policy);
        family->group.deletesChildren = policy == GroupTask::DeleteWhenFinished;
        state.ResumeTiming();
        family->run(
            reportsProgress, [](Skeleton &task) { task.start(); }, [](Skeleton &task) { task.end(); });
        QCoreApplication::sendPostedEvents();
        if (policy == GroupTask::DeleteWithGroup) {
            for (const auto &child : family->children())
                child->deleteLater();
        }
        state.PauseTiming();
        family.reset();
        state.ResumeTiming();
    }
}

/// Bytes for each child, its own and the group's.
template <typename Group, typename Child, typename... Arguments>
void measureHeapInGroup(benchmark::State &state, const Arguments &...arguments)
{
    for (auto _ : state) {
        std::vector<std::unique_ptr<Child>> children;
        children.reserve(size_t(sizeOf(state)));
        Group group;
        const size_t before = mallinfo2().uordblks;
        for (int64_t i = 0; i < sizeOf(state); ++i) {
            children.push_back(std::make_unique<Child>(arguments...));
            group.append(children.back().get());
        }
        state.counters["bytes"] = double(mallinfo2().uordblks - before) / double(sizeOf(state));
    }
}

void childHeap(benchmark::State &state)
{
    measureHeapInGroup<GroupTask, Task>(state, noWork);
}

void childHeapSkeleton(benchmark::State &state)
{
    measureHeapInGroup<SkeletonGroup, Skeleton>(state);
}

template <Policy policy>
Workload cleanup(const char *name, double ratioGoal)
{
    return {.name = name,
            .ours = runGroup<policy>,
            .baseline = runGroupSkeleton<policy>,
            .size = 1'000,
            .ratioGoal = ratioGoal,
            .largeSize = 1'000'000,
            .growthGoal = 1.5};
}

} // namespace

std::vector<Workload> groupWorkloads()
{
    constexpr auto whenFinished = GroupTask::DeleteWhenFinished;
    return {
        {.name = "heap, child of a group",
         .ours = childHeap,
         .baseline = childHeapSkeleton,
         .size = 100'000,
         .costGoal = 1'950,
         .quantity = Workload::Bytes},
        cleanup<GroupTask::DeleteWithGroup>("group, DeleteWithGroup", 1.4),
        cleanup<whenFinished>("group, DeleteWhenFinished", 1.2),
        cleanup<GroupTask::SelfDelete>("group, SelfDelete", 1.4),
        {.name = "group, with progress",
         .ours = runGroup<whenFinished, true>,
         .baseline = runGroupSkeleton<whenFinished, true>,
         .size = 1'000,
         .ratioGoal = 1.25},
    };
}
