#include "World.h"

#include "support/Waiting.h"

#include <Interleaving.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QProcess>
#include <QSemaphore>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

using namespace Qt::StringLiterals;
using namespace zel;

thread_local Here here;

namespace {

constexpr int patience = 10'000; // ms

} // namespace

Actor::Actor(World *world, int actorNumber, bool withLoop)
    : number(actorNumber)
    , usesLoop(withLoop)
    , operationsLeft(20 + World::random(60))
    , m_world(world)
{
    m_context.moveToThread(this);
}

void Actor::post(std::function<void()> call)
{
    QMetaObject::invokeMethod(&m_context, std::move(call), Qt::QueuedConnection);
}

void Actor::run()
{
    const InterleavingThread registered(number, usesLoop ? "actor with loop" : "actor without loop");
    here.actor = this;
    m_world->enter();
    m_world->refill();
    while (!usesLoop && m_world->isActing() && operationsLeft > 0) {
        --operationsLeft;
        m_world->act();
    }
    if (usesLoop)
        post([this] { step(); });
    exec();
    m_context.moveToThread(nullptr);
}

// The next one is posted first: a wait in this one handles it.
void Actor::step()
{
    if (!m_world->isActing() || operationsLeft <= 0)
        return;
    post([this] { step(); });
    --operationsLeft;
    m_world->act();
}

World::World(quint64 seed) : m_seed(seed)
{
    here.actor = nullptr;
    here.round = seed;
    here.random = Random(seed);
    const int actors = 3 + random(3);
    for (int number = 0; number < actors; ++number)
        m_actors.push_back(std::make_unique<Actor>(this, number, number == 0 || random(3) > 0));
    m_hasGroups = random(3) > 0 && has("groups");
    m_hasComplex = random(3) == 0 && has("complex");
    m_changesCleanup = random(2);
    tasks = std::vector<Place<Task>>(size_t(3 + random(8)));
    m_watches.resize(tasks.size());
    groups = std::vector<Place<GroupTask>>(size_t(m_hasGroups ? 1 + random(2) : 0));
    queues = std::vector<Place<TasksQueue>>(size_t(1 + random(3)));
    const auto settle = [this](auto &places) {
        int number = 0;
        for (auto &place : places) {
            place.number = number++;
            place.home = anyActor();
        }
    };
    settle(tasks);
    settle(groups);
    settle(queues);
}

World::~World()
{
    for (const auto &actor : m_actors) {
        actor->quit();
        if (!actor->wait(patience))
            fail("a thread does not end");
    }
}

bool World::has(const char *feature) const
{
    static const QList<QByteArray> without = qgetenv("ZEL_INTERLEAVE_WITHOUT").split(',');
    return !without.contains(feature);
}

void World::enter()
{
    if (here.round == m_seed)
        return;
    here.round = m_seed;
    here.random = Random(m_seed * 1000 + (here.actor ? quint64(here.actor->number) : quint64(++m_workers) % 900 + 100));
}

// A handler may run under the lock of a group, where no other group's may be wanted and nothing of other threads waited
// for. Work may wait with a limit, and destroys nothing.
bool World::isAllowed(const Operation &operation) const
{
    switch (operation.where) {
    case Operation::Anywhere:
        return true;
    case Operation::Starting:
        return here.handlerDepth == 0 || !m_hasComplex;
    case Operation::Unlocked:
        return here.handlerDepth == 0;
    case Operation::AtTop:
        break;
    }
    return here.actor && here.depth == 0;
}

void World::act()
{
    perform(allOperations.at(size_t(random(int(allOperations.size())))));
    if (random(4) == 0)
        refill();
}

void World::perform(const Operation &operation)
{
    if (!isActing() || !has(operation.name))
        return;
    if (!isAllowed(operation)) {
        anyActor()->post([this, &operation] { perform(operation); });
        return;
    }
    interleavingPoint(operation.name);
    ++here.depth;
    operation.perform(*this);
    --here.depth;
}

void World::react()
{
    enter();
    if (!isActing() || here.depth >= 4 || random(8) != 0 || !has("handlers"))
        return;
    ++here.handlerDepth;
    ++here.depth;
    perform(allOperations.at(size_t(random(int(allOperations.size())))));
    --here.depth;
    --here.handlerDepth;
}

// The lock of the group whose signal is handled is this thread's already.
void World::react(GroupTask *group)
{
    enter();
    if (!isActing() || here.depth >= 4 || random(8) != 0 || !has("handlers"))
        return;
    ++here.handlerDepth;
    ++here.depth;
    const TaskUse task = anyTask();
    switch (random(4)) {
    case 0:
        group->cancel();
        break;
    case 1:
        group->finish(error());
        break;
    case 2:
        if (task)
            group->append(task.get());
        break;
    default:
        group->setProgressText(QString::number(random(10)));
        break;
    }
    --here.depth;
    --here.handlerDepth;
}

void World::fail(const char *what)
{
    std::fprintf(stderr, "FAILED: %s\n", what);
    if (m_isStuck)
        showStacks();
    else
        describe();
    std::abort();
}

// Where gdb is installed.
void World::showStacks()
{
    QProcess gdb;
    gdb.setProcessChannelMode(QProcess::ForwardedChannels);
    gdb.start(u"gdb"_s, {u"--batch"_s, u"-p"_s, QString::number(QCoreApplication::applicationPid()), u"-ex"_s,
                         u"thread apply all backtrace 25"_s});
    gdb.waitForFinished(60'000);
}

// That of a complex task.
void World::describeGroup(const GroupTask *group)
{
    if (!group)
        return;
    std::fprintf(stderr, "  its group: state %d, wait mode %d, policies %d and %d\n", group->state(), group->waitMode(),
                 group->cleanupPolicy(), group->cancelSubtasksMode());
    const QList<BaseTask *> subtasks = group->subtasks();
    for (const BaseTask *subtask : subtasks) {
        if (subtask)
            std::fprintf(stderr, "  subtask: state %d, previous %d, queue %d\n", subtask->state(),
                         subtask->previousState(), subtask->queue() != nullptr);
    }
}

void World::describe()
{
    for (auto &place : queues) {
        if (const QueueUse queue{&place})
            std::fprintf(stderr, "queue %d of actor %d: state %d, type %d, limit %d, %d pending, %d running\n",
                         place.number, place.home.load()->number, queue->state(), queue->connectionType(),
                         queue->maxRunningTasksCount(), queue->pendingTasksCount(), queue->runningTasksCount());
    }
    for (auto &place : tasks) {
        const TaskUse task(&place);
        if (!task)
            continue;
        const Watch &watch = *watchOf(task);
        const auto holder = std::find_if(queues.begin(), queues.end(), [&](auto &queuePlace) {
            const QueueUse queue(&queuePlace);
            return queue && task->queue() == queue.get();
        });
        std::fprintf(stderr,
                     "task %d of actor %d: kind %d, state %d, queue %d; works %d, execs by hand %d, started %d, "
                     "restarted %d, idle %d, paused %d, ended %d, finished() %d, waiters %d\n",
                     watch.number, place.home.load()->number, watch.kind, task->state(),
                     holder == queues.end() ? -1 : holder->number, watch.works.load(), watch.handExecs.load(),
                     watch.starts.load(), watch.restarts.load(), watch.idles.load(), watch.pauses.load(),
                     watch.ends.load(), watch.finishes.load(), watch.waiters.load());
        describeGroup(task->findChild<GroupTask *>(QString(), Qt::FindDirectChildrenOnly));
    }
    for (const auto &actor : m_actors)
        std::fprintf(stderr, "actor %d: %d operations left\n", actor->number, actor->operationsLeft.load());
}

// Has each thread do something from its event loop, behind what is posted to it already.
void World::everywhere(const std::function<void(Actor *)> &call)
{
    const auto done = std::make_shared<QSemaphore>();
    for (const auto &actor : m_actors) {
        actor->post([call, done, target = actor.get()] {
            call(target);
            done->release();
        });
    }
    m_isStuck = !done->tryAcquire(int(m_actors.size()), patience);
    if (m_isStuck)
        fail("a thread stands still");
}

void World::until(const std::function<const char *()> &complaint, const std::function<void(Actor *)> &lap)
{
    const QDeadlineTimer deadline(patience);
    for (const char *present = complaint(); present; present = complaint()) {
        if (deadline.hasExpired()) {
            std::fprintf(stderr, "step %d\n", m_step);
            fail(present);
        }
        everywhere(lap);
    }
}

template <typename T>
auto World::usesAt(std::vector<Place<T>> &places, Actor *actor)
{
    std::vector<typename Place<T>::Use> uses;
    for (auto &place : places) {
        typename Place<T>::Use use(&place);
        if (use && place.home == actor)
            uses.push_back(std::move(use));
    }
    return uses;
}

// Who waits for a task may wait for ever, unless somebody ends it.
void World::endWaited(Actor *actor)
{
    for (const TaskUse &task : usesAt(tasks, actor)) {
        if (watchOf(task)->waiters > 0 && !task->isFinished())
            task->cancel();
    }
}

void World::goOn(Actor *actor)
{
    endWaited(actor);
    for (const TaskUse &task : usesAt(tasks, actor)) {
        task->resume();
        if (task->isRunning() && watchOf(task)->kind == Watch::Asynchronous)
            task->finish();
    }
}

// The last of the steps is that everything was canceled.
const char *World::unsettled(Step step)
{
    m_step = step;
    if (works > 0)
        return "work does not return";
    if (awaits > 0)
        return "a coroutine is not resumed";
    for (auto &place : tasks) {
        const TaskUse task(&place);
        if (!task)
            continue;
        const bool mayRun = watchOf(task)->kind == Watch::Complex && (step == ByItself || losesTasks);
        if (task->isFinalizing())
            return "a task stays Finalizing";
        if (step == Canceled ? !task->isFinished() : task->isRunning() && !mayRun)
            return "a task does not end";
    }
    for (auto &place : queues) {
        const QueueUse queue(&place);
        if (!queue)
            continue;
        if (queue->runningTasksCount() > 0)
            return "a slot is not freed";
        const bool startsNothing = queue->state() == TasksQueue::Paused || queue->maxRunningTasksCount() <= 0;
        if (queue->pendingTasksCount() > 0 && !startsNothing)
            return "a pending task is not started";
        if (step != ByItself && queue->state() != TasksQueue::Idle)
            return "an empty queue is not idle";
    }
    return nullptr;
}

void World::settle()
{
    m_phase = Settling;
    std::atomic<bool> isBusy = true;
    until([&] { return isBusy.exchange(false) ? "an operation does not return" : nullptr; },
          [&](Actor *actor) {
              if (here.depth > 0 || here.waits > 0)
                  isBusy = true;
              endWaited(actor);
          });
    until([&] { return unsettled(ByItself); }, [&](Actor *actor) { goOn(actor); });
    everywhere([&](Actor *actor) {
        for (const QueueUse &queue : usesAt(queues, actor)) {
            queue->setMaxRunningTasksCount(qMax(queue->maxRunningTasksCount(), 1));
            queue->resume();
        }
    });
    until([&] { return unsettled(Resumed); }, [&](Actor *actor) { goOn(actor); });
    checkOutcomes();
    const auto cancel = [&](Actor *actor) {
        for (const GroupUse &group : usesAt(groups, actor))
            group->cancel();
        for (const TaskUse &task : usesAt(tasks, actor))
            task->cancel();
    };
    everywhere(cancel);
    until([&] { return unsettled(Canceled); }, cancel);
    checkOutcomes();
}

// A group may have ended its children quietly: without finished(), and with what they had for an error.
void World::checkOutcomes()
{
    // Whoever ends a task has changed its state before the signals come.
    std::vector<bool> haveFinished;
    for (auto &place : tasks) {
        const TaskUse task(&place);
        haveFinished.push_back(task && task->isFinished());
    }
    everywhere([](Actor *) {});
    for (const auto &watch : m_allWatches) {
        if (const char *complaint = watch->complaint()) {
            std::fprintf(stderr, "task %d, kind %d\n", watch->number, watch->kind);
            fail(complaint);
        }
    }
    for (auto &place : tasks) {
        const TaskUse task(&place);
        if (!task || !haveFinished.at(size_t(place.number)) || m_hasGroups)
            continue;
        const auto watch = watchOf(task);
        if (watch->finishes == 0)
            fail("finished() never came");
        if (!watch->isOdd && watch->pauses == 0 && task->isCanceled() != task->error().equals(zel::Canceled))
            fail("error and canceled status are those of different ends");
    }
}

void World::run()
{
    startInterleaving(m_seed);
    for (const auto &actor : m_actors)
        actor->start();
    const QDeadlineTimer end(300);
    const auto isThrough = [](const auto &actor) { return actor->isThrough(); };
    pollUntil([&] { return end.hasExpired() || std::all_of(m_actors.cbegin(), m_actors.cend(), isThrough); });
    settle();
    everywhere([this](Actor *actor) {
        for (auto &place : queues)
            delete (place.home == actor ? place.tryTake() : nullptr);
        for (auto &place : groups)
            delete (place.home == actor ? place.tryTake() : nullptr);
        for (auto &place : tasks)
            delete (place.home == actor ? place.tryTake() : nullptr);
    });
    until([this] { return leavingQueues > 0 ? "a queue is not destroyed" : nullptr; }, [](Actor *) {});
    for (int lap = 0; lap < 3; ++lap)
        everywhere([](Actor *) {});
    everywhere([](Actor *actor) {
        for (const QPointer<QObject> &leftover : actor->leftovers)
            delete leftover;
    });
    for (int lap = 0; lap < 3; ++lap)
        everywhere([](Actor *) {});
    stopInterleaving();
}
