// What a thread may do at random. The contract decides where: what only the thread of an object may do takes homeTask()
// or homeGroup(), and the second column says what a handler must leave alone.
#include "World.h"

#include <QPointer>

using namespace zel;

namespace {

constexpr auto Anywhere = Operation::Anywhere;
constexpr auto Starting = Operation::Starting;
constexpr auto Unlocked = Operation::Unlocked;
constexpr auto AtTop = Operation::AtTop;

int random(int bound)
{
    return World::random(bound);
}

void withTask(World &world, auto &&call)
{
    if (const World::TaskUse task = world.anyTask())
        call(task.get());
}

void withHomeTask(World &world, auto &&call)
{
    if (const World::TaskUse task = world.homeTask())
        call(task.get());
}

void withQueue(World &world, auto &&call)
{
    if (const World::QueueUse queue = world.anyQueue())
        call(queue.get());
}

// One that keeps its limit and its running tasks is left alone.
void withFreeQueue(World &world, auto &&call)
{
    const World::QueueUse queue = world.anyQueue();
    if (queue && !dynamic_cast<LimitedQueue *>(queue.get()))
        call(queue.get());
}

void withGroup(World &world, auto &&call)
{
    if (const World::GroupUse group = world.anyGroup())
        call(group.get());
}

void withHomeGroup(World &world, auto &&call)
{
    if (const World::GroupUse group = world.homeGroup())
        call(group.get());
}

// Mostly once; or for as long as it takes that another thread writes meanwhile.
void repeat(auto &&call)
{
    for (int count = random(2) ? 1 : 100; count > 0; --count)
        call();
}

void readTask(World &world)
{
    const auto read = [](Task *task) {
        const QString text = task->stateString() + task->progressText() + task->error().text();
        const QVariant result = task->variantResult();
        static_cast<void>(text.size() + result.toString().size() + task->currentProgress() + task->totalProgress());
        static_cast<void>(task->isCanceled() || task->hasError() || task->previousState() == BaseTask::Idle);
    };
    withTask(world, [&](Task *task) { repeat([&] { read(task); }); });
}

void writeTask(World &world, auto &&write)
{
    withTask(world, [&](Task *task) { repeat([&] { write(task); }); });
}

// Not one that runs: that would have it work again. Another thread may be faster.
void execTask(World &world)
{
    const World::TaskUse task = world.anyTask();
    if (!task || (!task->isIdle() && !task->isFinished()))
        return;
    ++world.watchOf(task)->handExecs;
    task->exec();
}

void setError(World &world)
{
    if (const World::TaskUse task = world.homeTask()) {
        world.watchOf(task)->isOdd = true;
        task->setError(random(2) ? World::error() : Error());
    }
}

void setCountAsRunning(World &world)
{
    // Complex tasks that count would keep their subtasks from a slot.
    if (const World::TaskUse task = world.anyTask(); task && world.watchOf(task)->kind != Watch::Complex) {
        world.watchOf(task)->isOdd = true;
        task->setCountAsRunning(random(2));
    }
    withQueue(world, [](TasksQueue *queue) { queue->tryExec(); });
}

// A task that follows another in its thread; nobody else knows it.
void bindTask(World &world)
{
    withHomeTask(world, [](Task *task) {
        auto *follower = new Task;
        follower->bind(task);
        follower->deleteLater();
    });
}

void destroy(auto *place)
{
    if (place && place->home == here.actor)
        delete place->tryTake();
}

// A task of another thread may be destroyed as soon as the loop of the wait runs.
void waitForTask(World &world, bool forAll)
{
    World::TaskUse task = here.waits == 0 ? world.anyTask() : World::TaskUse();
    if (!task)
        return;
    const auto watch = world.watchOf(task);
    const Task *const awaited = task.get();
    const bool isAtHome = task.place()->home == here.actor;
    const auto held = std::make_shared<World::TaskUse>(isAtHome ? World::TaskUse() : std::move(task));
    task = World::TaskUse();
    here.actor->post([held] { *held = World::TaskUse(); });
    ++watch->waiters;
    const int depth = std::exchange(here.depth, 0);
    ++here.waits;
    here.actor->isWaiting = true;
    const int msec = random(3) == 0 ? random(10) : -1;
    forAll ? awaited->waitForAllFinished(msec) : awaited->waitForFinished(msec);
    here.actor->isWaiting = false;
    --here.waits;
    here.depth = depth;
    *held = World::TaskUse();
    --watch->waiters;
}

bool isLimited(Place<TasksQueue> *place)
{
    const World::QueueUse queue(place);
    return dynamic_cast<LimitedQueue *>(queue.get());
}

// On any thread, when nobody else calls it.
void destroyQueue(World &world)
{
    auto *place = World::any(world.queues);
    if (isLimited(place))
        return;
    world.losesTasks = true;
    delete place->tryTake();
}

// To be destroyed there, perhaps.
void moveQueue(World &world)
{
    auto *place = World::any(world.queues);
    Actor *const target = world.anyActor();
    TasksQueue *queue = place->home == here.actor && !isLimited(place) ? place->tryTake() : nullptr;
    if (!queue)
        return;
    queue->moveToThread(target);
    if (random(2)) {
        world.losesTasks = true;
        ++world.leavingQueues;
        QObject::connect(
            queue, &QObject::destroyed, queue, [&world] { --world.leavingQueues; }, Qt::DirectConnection);
        queue->deleteLater();
        return;
    }
    place->put(queue);
    place->home = target;
}

// Some tasks through a queue, and a group that follows them.
void runBatch(World &world)
{
    const World::GroupUse group = world.anyGroup();
    const World::QueueUse queue = world.anyQueue();
    if (!here.actor || !group || !queue)
        return;
    for (int count = 1 + random(4); count > 0; --count) {
        Task *task = world.makeOwnTask();
        group->append(task);
        queue->append(task);
    }
}

void appendToGroup(World &world)
{
    const World::TaskUse task = world.anyTask();
    const World::TaskUse other = world.anyTask();
    withGroup(world, [&](GroupTask *group) {
        if (random(3) == 0)
            group->append({task.get(), other.get()});
        else
            group->append(task.get());
    });
}

// Later ones into earlier ones: two that contain each other could wait for each other.
void nestGroups(World &world)
{
    if (world.groups.size() < 2)
        return;
    const World::GroupUse outer(&world.groups.front());
    const World::GroupUse inner(&world.groups.back());
    if (outer && inner)
        outer->append(inner.get());
}

void setPolicies(World &world)
{
    withHomeGroup(world, [&](GroupTask *group) {
        if (world.changesCleanup())
            group->setCleanupPolicy(GroupTask::CleanupPolicy(random(3)));
        group->setWaitMode(GroupTask::WaitMode(random(4) != 0));
        group->setCancelSubtasksMode(GroupTask::CancelSubtasksMode(random(2)));
        group->setChildFailurePolicy(GroupTask::ChildFailurePolicy(random(3)));
    });
}

// What is dropped may be what a complex task waits for.
void clearQueue(World &world)
{
    withFreeQueue(world, [&](TasksQueue *queue) {
        const auto policy = TasksQueue::ClearPolicy(random(3));
        if (policy == TasksQueue::Remove)
            world.losesTasks = true;
        queue->clear(policy, World::error());
    });
}

void setErrorPolicy(World &world)
{
    withFreeQueue(world, [&](TasksQueue *queue) {
        const bool clears = random(4) == 0;
        if (clears)
            world.losesTasks = true;
        queue->setTaskErrorPolicy(clears ? TasksQueue::ClearOnError : TasksQueue::ContinueOnError);
    });
}

void appendToQueue(World &world)
{
    const World::TaskUse task = world.anyTask();
    withQueue(world, [&](TasksQueue *queue) { random(3) ? queue->append(task.get()) : queue->prepend(task.get()); });
}

void appendList(World &world)
{
    const std::array uses{world.anyTask(), world.anyTask(), world.anyTask()};
    withQueue(world, [&](TasksQueue *queue) { queue->append({uses[0].get(), uses[1].get(), uses[2].get()}); });
}

} // namespace

const std::vector<Operation> allOperations{
    {"task.read", Anywhere, readTask},
    {"task.cancel", Anywhere, [](World &world) { withTask(world, [](Task *task) { task->cancel(); }); }},
    {"task.finish", Anywhere, [](World &world) { withTask(world, [](Task *task) { task->finish(World::error()); }); }},
    {"task.setProgress", Anywhere,
     [](World &world) { withTask(world, [](Task *task) { task->setProgress(random(10), random(10)); }); }},
    {"task.setProgressText", Anywhere,
     [](World &world) { writeTask(world, [](Task *task) { task->setProgressText(QString::number(random(99))); }); }},
    {"task.setVariantResult", Anywhere,
     [](World &world) { writeTask(world, [](Task *task) { task->setVariantResult(QString::number(random(99))); }); }},
    {"task.setPriority", Anywhere,
     [](World &world) { withTask(world, [](Task *task) { task->setPriority(random(8)); }); }},
    {"task.setCountAsRunning", Starting, setCountAsRunning},
    {"task.exec", Starting, execTask},
    {"task.setIdle", Anywhere, [](World &world) { withHomeTask(world, [](Task *task) { task->setIdle(); }); }},
    {"task.setIdle", Anywhere, [](World &world) { withHomeTask(world, [](Task *task) { task->setIdle(); }); }},
    {"task.pause", Anywhere,
     [](World &world) {
         withHomeTask(world, [](Task *task) { task->isFinished() ? task->setIdle() : task->pause(); });
     }},
    {"task.resume", Anywhere, [](World &world) { withHomeTask(world, [](Task *task) { task->resume(); }); }},
    {"task.setError", Anywhere, setError},
    {"task.setDeleteOnFinished", Anywhere,
     [](World &world) { withHomeTask(world, [](Task *task) { task->setDeleteOnFinished(random(2)); }); }},
    {"task.deleteLater", Anywhere, [](World &world) { withHomeTask(world, [](Task *task) { task->deleteLater(); }); }},
    {"task.delete", AtTop, [](World &world) { destroy(World::any(world.tasks)); }},
    {"task.bind", Anywhere, bindTask},
    {"task.await", Anywhere, [](World &world) { static_cast<void>(world.await(world.anyTask())); }},
    {"task.wait", AtTop, [](World &world) { waitForTask(world, false); }},
    {"task.waitForAll", AtTop, [](World &world) { waitForTask(world, true); }},
    {"queue.append", Starting, appendToQueue},
    {"queue.append", Starting, appendToQueue},
    {"queue.append", Starting, appendToQueue},
    {"queue.append", Starting, appendToQueue},
    {"queue.appendList", Starting, appendList},
    {"queue.removeTask", Starting,
     [](World &world) {
         withTask(world,
                  [&](Task *task) { withFreeQueue(world, [&](TasksQueue *queue) { queue->removeTask(task); }); });
     }},
    {"queue.clear", Starting, clearQueue},
    {"queue.pause", Anywhere, [](World &world) { withQueue(world, [](TasksQueue *queue) { queue->pause(); }); }},
    {"queue.resume", Starting, [](World &world) { withQueue(world, [](TasksQueue *queue) { queue->resume(); }); }},
    {"queue.resume", Starting, [](World &world) { withQueue(world, [](TasksQueue *queue) { queue->resume(); }); }},
    {"queue.setMaxRunningTasksCount", Starting,
     [](World &world) {
         withFreeQueue(world, [](TasksQueue *queue) {
             queue->setMaxRunningTasksCount(random(4));
             queue->tryExec();
         });
     }},
    {"queue.setCleanupMode", Anywhere,
     [](World &world) {
         withQueue(world, [](TasksQueue *queue) { queue->setCleanupMode(TasksQueue::CleanupMode(random(2))); });
     }},
    {"queue.setTaskErrorPolicy", Anywhere, setErrorPolicy},
    {"queue.delete", AtTop, destroyQueue},
    {"queue.move", AtTop, moveQueue},
    {"group.append", Unlocked, appendToGroup},
    {"group.append", Unlocked, appendToGroup},
    {"group.appendCoroutine", Unlocked,
     [](World &world) {
         if (here.actor && !world.changesCleanup())
             // It must not go on in another thread while it is handed over.
             withGroup(world, [&](GroupTask *group) { group->append(world.await(world.homeTask())); });
     }},
    {"group.nest", Unlocked, nestGroups},
    {"group.batch", Unlocked, runBatch},
    {"group.batch", Unlocked, runBatch},
    {"group.cancel", Unlocked, [](World &world) { withGroup(world, [](GroupTask *group) { group->cancel(); }); }},
    {"group.read", Unlocked,
     [](World &world) {
         withGroup(world, [](GroupTask *group) {
             static_cast<void>(group->subtasks(GroupTask::Recursive).size() + group->pendingChildrenCount());
             static_cast<void>(group->isEmpty() || group->currentProgress() > group->totalProgress());
         });
     }},
    {"group.setIdle", Unlocked, [](World &world) { withHomeGroup(world, [](GroupTask *group) { group->setIdle(); }); }},
    {"group.finish", Unlocked, [](World &world) { withGroup(world, [](GroupTask *group) { group->finish(); }); }},
    {"group.setPolicies", Unlocked, setPolicies},
    {"group.deleteLater", Anywhere,
     [](World &world) { withHomeGroup(world, [](GroupTask *group) { group->deleteLater(); }); }},
    {"group.delete", AtTop, [](World &world) { destroy(World::any(world.groups)); }},
};
