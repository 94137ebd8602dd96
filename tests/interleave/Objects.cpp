// What the world is made of, and what its tasks do.
#include "World.h"

#include <Interleaving.h>

#include <QCoreApplication>
#include <QDeadlineTimer>

using namespace zel;

namespace {

/// Its subtasks belong to nobody but the library.
class Complex : public CustomComplexTask {
public:
    Complex(World *world, std::shared_ptr<Watch> watch) : m_world(world), m_watch(std::move(watch)) { }
    // Another thread may be about to call doExecSubtasks(): not after this.
    ~Complex() override
    {
        cancel();
        stopWorkingThread();
    }

    // Another thread may end the run before anybody has heard of it: a handler would not count it.
    void exec() override
    {
        m_watch->restarts += int(isFinished());
        CustomComplexTask::exec();
    }

protected:
    Error doExecSubtasks() override
    {
        ++m_watch->works;
        m_world->enter();
        QList<Task *> subtasks;
        for (int count = World::random(4); count > 0; --count)
            subtasks.append(m_world->makeOwnTask());
        // Once it is listed, a task that lives in another thread may be deleted there.
        if (here.actor && !subtasks.isEmpty() && World::random(2))
            appendSubtask(subtasks.constFirst());
        if (!subtasks.isEmpty() && World::random(2))
            execSubtask(subtasks.takeLast(), [watch = m_watch] { ++watch->callbacks; });
        execSubtasks(subtasks);
        return World::random(8) == 0 ? World::error() : Error();
    }

private:
    World *const m_world;
    const std::shared_ptr<Watch> m_watch;
};

/// Awaits a task that another thread might destroy before the awaiter knows it.
struct Await {
    explicit Await(World::TaskUse awaited) : use(std::move(awaited)), operation(use.get()) { }

    bool await_ready() { return operation.await_ready(); }
    void await_suspend(std::coroutine_handle<> awaiting)
    {
        const World::TaskUse held = std::move(use);
        operation.await_suspend(awaiting);
    }
    Error await_resume() { return operation.await_resume(); }

    World::TaskUse use;
    QCoro::detail::ZelTaskWaitForFinishedOperation operation;
};

/// One call of work.
struct AtWork {
    explicit AtWork(World *enteredWorld) : world(enteredWorld)
    {
        ++world->works;
        world->enter();
        ++here.depth;
    }
    ~AtWork()
    {
        --here.depth;
        --world->works;
    }
    World *const world;
};

} // namespace

void Watch::follow(const BaseTask *task, const std::shared_ptr<Watch> &self)
{
    const auto count = [&](auto signal, std::atomic<int> Watch::*counter) {
        QObject::connect(
            task, signal, task, [self, counter] { ++(self.get()->*counter); }, Qt::DirectConnection);
    };
    count(&BaseTask::started, &Watch::starts);
    count(&BaseTask::paused, &Watch::pauses);
    count(&BaseTask::finished, &Watch::finishes);
    QObject::connect(
        task, &BaseTask::stateChanged, task,
        [self, task](BaseTask::State state) {
            // Another thread may have ended the run already: better one too many.
            const BaseTask::State left = task->previousState();
            self->restarts += int(self->kind != Watch::Complex && state == BaseTask::Running && left != BaseTask::Idle
                                  && left != BaseTask::Paused);
            self->idles += int(state == BaseTask::Idle);
            self->ends += int(state == BaseTask::Finished);
        },
        Qt::DirectConnection);
}

const char *Watch::complaint() const
{
    const int openings = 1 + restarts + idles + pauses;
    if (finishes > openings)
        return "finished() came twice";
    if (starts > openings)
        return "started() came twice";
    if (works > starts + handExecs && pauses == 0)
        return "work was called twice in one run";
    return nullptr;
}

LimitedQueue::LimitedQueue(World *world, int limit) : m_world(world), m_limit(limit), m_number(++lastNumber)
{
    setMaxRunningTasksCount(limit);
}

void LimitedQueue::exec(Task *task)
{
    m_world->checkLimit(this, m_number, task, m_limit);
    TasksQueue::exec(task);
}

// Tasks that were all running at one time, while the new one had its slot: a task that was seen twice in the same run
// was running between.
void World::checkLimit(const TasksQueue *queue, int queueNumber, const Task *started, int limit)
{
    std::vector<std::pair<const Watch *, int>> running;
    std::vector<TaskUse> uses;
    const Watch *own = nullptr;
    for (auto &place : tasks) {
        TaskUse task(&place);
        if (!task)
            continue;
        const auto watch = watchOf(task);
        if (task.get() == started)
            own = watch.get();
        else if (watch->starter == queueNumber && watch->handExecs == 0 && !watch->isOdd && task->isRunning()
                 && task->queue() == queue && task->countAsRunning())
            running.emplace_back(watch.get(), watch->ends + watch->idles);
        if (task.get() == started || task->isRunning())
            uses.push_back(std::move(task));
    }
    if (!own || own->isOdd)
        return;
    const int ownEnds = own->ends + own->idles;
    const auto isSame = [](const auto &seen) { return seen.first->ends + seen.first->idles == seen.second; };
    const bool isBeyond = int(std::count_if(running.cbegin(), running.cend(), isSame)) >= limit;
    const bool areRunning = std::all_of(uses.cbegin(), uses.cend(), [&](const TaskUse &use) {
        return use.get() == started ? use->isIdle() : use->isRunning();
    });
    if (isBeyond && areRunning && own->ends + own->idles == ownEnds && started->countAsRunning())
        fail("more tasks run than the limit allows");
    const_cast<Watch *>(own)->starter = queueNumber;
}

Error World::error()
{
    return Error(GeneralError, QString::number(random(3)));
}

World::TaskUse World::anyTask()
{
    TaskUse use(any(tasks));
    return use && here.handlerDepth > 0 && watchOf(use)->kind == Watch::Complex ? TaskUse() : std::move(use);
}

World::TaskUse World::homeTask()
{
    TaskUse use = anyTask();
    return use && use.place()->home == here.actor ? std::move(use) : TaskUse();
}

World::GroupUse World::anyGroup()
{
    return groups.empty() ? GroupUse() : GroupUse(any(groups));
}

World::GroupUse World::homeGroup()
{
    GroupUse use = anyGroup();
    return use && use.place()->home == here.actor ? std::move(use) : GroupUse();
}

World::QueueUse World::anyQueue()
{
    return QueueUse(any(queues));
}

// Each thread makes what lives with it.
void World::refill()
{
    if (!here.actor || here.depth > 0)
        return;
    const auto refillAll = [this](auto &places, void (World::*put)(std::remove_reference_t<decltype(places[0])> *)) {
        for (auto &place : places) {
            if (place.home == here.actor && place.isEmpty())
                (this->*put)(&place);
        }
    };
    refillAll(queues, &World::putQueue);
    refillAll(groups, &World::putGroup);
    refillAll(tasks, &World::putTask);
}

void World::putQueue(Place<TasksQueue> *place)
{
    const int limit = 1 + random(2);
    auto *queue = random(3) == 0 ? new LimitedQueue(this, limit) : new TasksQueue;
    queue->setMaxRunningTasksCount(limit);
    queue->setConnectionType(random(2) ? Qt::DirectConnection : Qt::QueuedConnection);
    // It may be destroyed on any thread, and nothing of ours may be posted to it then.
    QObject::connect(
        queue, &TasksQueue::stateChanged, queue, [this] { react(); }, Qt::DirectConnection);
    place->put(queue);
}

void World::putGroup(Place<GroupTask> *place)
{
    auto *group = new GroupTask;
    group->setConnectionType(random(2) ? Qt::DirectConnection : Qt::QueuedConnection);
    group->setCleanupPolicy(GroupTask::CleanupPolicy(random(3)));
    const auto reactOn = [&](auto... signal) {
        (QObject::connect(
             group, signal, group, [this, group] { react(group); }, Qt::DirectConnection),
         ...);
    };
    reactOn(&ErrorCancelable::canceled, &BaseTask::started, &BaseTask::finalizing, &BaseTask::stateChanged,
            &BaseTask::finished, &BaseTask::progress, &GroupTask::taskAppended);
    new Farewell(group, place);
    place->put(group);
}

std::shared_ptr<Watch> World::makeWatch(Watch::Kind kind)
{
    auto watch = std::make_shared<Watch>();
    watch->kind = kind;
    const QMutexLocker locker(&m_mutex);
    m_allWatches.push_back(watch);
    watch->number = int(m_allWatches.size());
    return watch;
}

void World::putTask(Place<Task> *place)
{
    auto kind = Watch::Kind(random(m_hasComplex ? 5 : 4));
    if ((kind == Watch::WorkingThread && !has("threads")) || (kind == Watch::Coroutine && !has("coroutines")))
        kind = Watch::Synchronous;
    const auto watch = makeWatch(kind);
    Task *task = makeTask(watch);
    reactTo(task, &BaseTask::started, &ErrorCancelable::canceled, &ErrorCancelable::errorChanged, &BaseTask::finalizing,
            &BaseTask::stateChanged, &BaseTask::finished, &BaseTask::progress, &Task::priorityChanged,
            &Task::aboutToDestroy);
    new Farewell(task, place);
    m_watches[size_t(place->number)] = watch;
    place->put(task);
}

Task *World::makeTask(const std::shared_ptr<Watch> &watch)
{
    Task *task = nullptr;
    if (watch->kind == Watch::Complex) {
        task = new Complex(this, watch);
    } else if (watch->kind == Watch::Coroutine) {
        task = new Task([this, watch] {
            ++watch->works;
            enter();
            return await(anyTask());
        });
    } else {
        const std::array modes{Task::Synchronous, Task::Asynchronous, Task::WorkingThread};
        const Task::ExecutionMode mode = modes[size_t(watch->kind)];
        if (random(3) == 0)
            task = new Task([this, watch] { return work(watch, nullptr); }, mode);
        else
            task = new Task([this, watch](Task *self) { return work(watch, self); }, mode);
    }
    task->setThreadTerminationEnabled(false);
    task->setThreadWaitTime(2);
    watch->follow(task, watch);
    return task;
}

Task *World::makeOwnTask()
{
    auto *task = makeTask(makeWatch(random(3) == 0 && has("threads") ? Watch::WorkingThread : Watch::Synchronous));
    Actor *const actor = here.actor ? here.actor : anyActor();
    if (!here.actor)
        task->moveToThread(actor);
    actor->post([actor, leftover = QPointer<QObject>(task)] { actor->leftovers.push_back(leftover); });
    return task;
}

// A handler runs on the thread that emits, or in that of the task.
void World::reactTo(auto *sender, auto... signal)
{
    (QObject::connect(
         sender, signal, sender, [this] { react(); }, random(3) ? Qt::DirectConnection : Qt::AutoConnection),
     ...);
}

Error World::work(const std::shared_ptr<Watch> &watch, Task *task)
{
    const AtWork atWork(this);
    ++watch->works;
    for (int count = random(4); count > 0 && isActing(); --count) {
        interleavingPoint("work");
        switch (random(12)) {
        case 0:
            for (const QDeadlineTimer end(5); !end.hasExpired() && isActing();) {
                if (QThread::currentThread()->isInterruptionRequested())
                    break;
                QThread::usleep(100);
            }
            break;
        case 1:
        case 2:
            if (task)
                task->setProgress(random(10), 10);
            break;
        case 3:
            if (task)
                task->setVariantResult(QString::number(random(100)));
            break;
        case 4:
            if (task)
                task->finish(random(2) ? error() : Error());
            break;
        case 5:
            if (task)
                task->cancel();
            break;
        case 6:
            if (task && random(4) == 0 && has("task.setIdle"))
                task->setIdle();
            break;
        case 7:
            if (const TaskUse other = here.actor ? TaskUse() : anyTask())
                other->waitForFinished(random(5));
            break;
        default:
            perform(allOperations.at(size_t(random(int(allOperations.size())))));
        }
    }
    if (task && watch->kind == Watch::Asynchronous && random(2))
        QMetaObject::invokeMethod(
            task, [task] { task->finish(); }, Qt::QueuedConnection);
    return random(4) == 0 ? error() : Error();
}

QCoro::Task<Error> World::await(TaskUse task)
{
    enter();
    if (!task)
        co_return Error();
    const auto watch = watchOf(task);
    ++awaits;
    ++watch->waiters;
    Await await(std::move(task));
    const Error outcome = co_await std::move(await);
    --watch->waiters;
    --awaits;
    co_return random(2) ? outcome : Error();
}
