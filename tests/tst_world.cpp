#include "support/Waiting.h"

#include <zel/tasks/CustomComplexTask.h>
#include <zel/tasks/GroupTask.h>
#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QPointer>
#include <QRandomGenerator>
#include <QTest>

#include <algorithm>
#include <array>
#include <functional>
#include <memory>
#include <vector>

using namespace Qt::StringLiterals;
using namespace zel;

namespace {

class Queue : public TasksQueue {
public:
    std::function<void(Task *)> onStart;

protected:
    void exec(Task *task) override
    {
        onStart(task);
        TasksQueue::exec(task);
    }
};

class Complex : public CustomComplexTask {
public:
    std::function<QList<Task *>()> choose;

protected:
    Error doExecSubtasks() override
    {
        execSubtasks(choose());
        return Error();
    }
};

QCoro::Task<Error> awaitTask(QPointer<Task> task, std::shared_ptr<int> open)
{
    ++*open;
    co_await task.data();
    --*open;
    co_return Error();
}

/// What must be known of a task beside the task.
struct Watched {
    bool isOpen = false;      ///< started() came, and no end of it
    bool isAnnounced = false; ///< finished() came since it entered Finished
    bool isChild = false;     ///< of a group, which may stop it without finished()
    QStringList shares;       ///< names of the groups that count its figures
};

/// A few tasks, groups and queues in one thread, to which random things are done, also from handlers of their signals.
/// A seed that is even uses no working thread, and does the same each time.
class World {
public:
    explicit World(quint32 seed) : m_seed(seed), m_random(seed) { replenish(); }
    ~World();
    Q_DISABLE_COPY_MOVE(World)

    void step();
    void drain();

    QString failure; ///< empty as long as everything is as it must be

private:
    int random(int bound) { return m_random.bounded(bound); }
    auto any(const auto &from) { return from.at(size_t(random(int(from.size())))).data(); }
    Error error() { return Error(GeneralError, QString::number(random(3))); }
    void note(const QString &operation);
    void require(bool holds, const char *what);
    void perform(const QString &who, const std::vector<std::function<void()>> &operations);

    void replenish();
    Task *makeTask();
    GroupTask *makeGroup();
    TasksQueue *makeQueue(Qt::ConnectionType type);
    void watch(Task *task);
    void reactTo(auto *sender, auto... signal);
    void act();
    void moveProgress(GroupTask *group, Task *task);
    void wait(Task *task);
    void check();

    const quint32 m_seed;
    QRandomGenerator m_random;
    std::array<QPointer<Task>, 12> m_tasks;
    std::array<QPointer<GroupTask>, 2> m_groups;
    std::array<QPointer<TasksQueue>, 2> m_queues;
    QHash<const QObject *, std::shared_ptr<Watched>> m_watched;
    QObject m_wrappers; ///< parent of the tasks that groups make of coroutines
    std::shared_ptr<int> m_awaits = std::make_shared<int>(0);
    QStringList m_operations;
    int m_step = 0;
    int m_depth = 0;
    int m_lastName = 0;
    bool m_isQuiet = false; ///< handlers do nothing, and what can end by itself does
};

World::~World()
{
    m_isQuiet = true;
    for (const auto &queue : m_queues)
        delete queue;
    for (const auto &group : m_groups)
        delete group;
    for (const auto &task : m_tasks)
        delete task;
    qDeleteAll(m_wrappers.children());
    drainEvents();
}

void World::note(const QString &operation)
{
    m_operations.append(u"%1%2 %3"_s.arg(QString(m_depth * 2, u' ')).arg(m_step).arg(operation));
    if (qEnvironmentVariableIsSet("ZEL_WORLD_VERBOSE"))
        qInfo().noquote() << m_operations.constLast();
    if (m_operations.size() > 20)
        m_operations.removeFirst();
}

void World::require(bool holds, const char *what)
{
    if (!holds && failure.isEmpty())
        failure = u"%1; seed %2, step %3:\n%4"_s.arg(QString::fromLatin1(what))
                      .arg(m_seed)
                      .arg(m_step)
                      .arg(m_operations.join(u'\n'));
}

void World::perform(const QString &who, const std::vector<std::function<void()>> &operations)
{
    const int number = random(int(operations.size()));
    note(u"%1: operation %2"_s.arg(who).arg(number));
    operations.at(size_t(number))();
}

void World::replenish()
{
    const std::array types{Qt::DirectConnection, Qt::QueuedConnection};
    for (size_t number = 0; number < m_queues.size(); ++number)
        m_queues[number] = m_queues[number] ? m_queues[number].data() : makeQueue(types[number]);
    for (auto &group : m_groups)
        group = group ? group.data() : makeGroup();
    for (auto &task : m_tasks)
        task = task ? task.data() : makeTask();
}

Task *World::makeTask()
{
    const Error result = random(4) == 0 ? error() : Error();
    const int kind = random(8);
    Task *task = nullptr;
    if (kind == 0) {
        auto *complex = new Complex;
        complex->choose = [this, complex] {
            QList<Task *> chosen{any(m_tasks), any(m_tasks)};
            chosen.removeIf([&](Task *one) { return !one || one == complex || !one->isIdle() || one->queue(); });
            for (Task *one : std::as_const(chosen))
                m_watched.value(one)->isChild = true;
            return chosen;
        };
        task = complex;
    } else if (kind <= 2) {
        task = new Task([this](Task *) { return awaitTask(any(m_tasks), m_awaits); });
    } else if (kind <= 4) {
        const auto begin = [this](Task *begun) {
            if (m_isQuiet || random(2))
                QMetaObject::invokeMethod(
                    begun, [begun] { begun->finish(); }, Qt::QueuedConnection);
            return Error();
        };
        task = new Task(begin, Task::Asynchronous);
    } else {
        const bool usesThread = kind == 5 && m_seed % 2 == 1;
        task = new Task([result] { return result; }, usesThread ? Task::WorkingThread : Task::Synchronous);
    }
    watch(task);
    return task;
}

void World::watch(Task *task)
{
    const auto watched = std::make_shared<Watched>();
    task->setName(QString::number(++m_lastName));
    m_watched.insert(task, watched);
    QObject::connect(task, &BaseTask::started, task, [watched] { watched->isOpen = true; });
    QObject::connect(task, &BaseTask::stateChanged, task, [watched](BaseTask::State state) {
        watched->isOpen = watched->isOpen && state != BaseTask::Idle;
        watched->isAnnounced = watched->isAnnounced && state == BaseTask::Finished;
    });
    QObject::connect(task, &BaseTask::finished, task, [this, task, watched] {
        require(task->isFinished() && !watched->isAnnounced, "finished() came twice");
        watched->isAnnounced = true;
        watched->isOpen = false;
    });
    // What is on its way out is none of ours any more, and not to be deleted by events that a handler processes.
    QObject::connect(task, &Task::aboutToDestroy, task, [this, task] {
        std::replace(m_tasks.begin(), m_tasks.end(), QPointer<Task>(task), QPointer<Task>());
        m_watched.remove(task);
        QCoreApplication::removePostedEvents(task, QEvent::DeferredDelete);
    });
    reactTo(task, &BaseTask::started);
    reactTo(task, &ErrorCancelable::errorChanged, &ErrorCancelable::canceled, &BaseTask::restarted,
            &BaseTask::finalizing, &BaseTask::stateChanged, &BaseTask::finished, &BaseTask::paused, &BaseTask::resumed,
            &Task::priorityChanged, &Task::aboutToDestroy);
}

GroupTask *World::makeGroup()
{
    auto *group = new GroupTask;
    group->setName(QString::number(++m_lastName));
    group->setConnectionType(random(2) ? Qt::DirectConnection : Qt::QueuedConnection);
    QObject::connect(group, &GroupTask::taskAppended, group, [this](BaseTask *child) {
        if (const auto watched = m_watched.value(child))
            watched->isChild = true;
        else if (!qobject_cast<GroupTask *>(child))
            child->setParent(&m_wrappers);
    });
    reactTo(group, &ErrorCancelable::canceled, &BaseTask::started, &BaseTask::finalizing, &BaseTask::stateChanged,
            &BaseTask::finished, &BaseTask::progress, &GroupTask::taskAppended);
    QObject::connect(group, &GroupTask::taskAppended, group, [this, group](BaseTask *child) {
        const auto watched = m_watched.value(child);
        if (!watched)
            return;
        // One that comes finished has no share in the figures.
        watched->shares.removeAll(group->name());
        if (!child->isFinished())
            watched->shares.append(group->name());
    });
    return group;
}

TasksQueue *World::makeQueue(Qt::ConnectionType type)
{
    auto *queue = new Queue;
    queue->onStart = [this, queue](Task *task) {
        const int others = queue->runningTasksCount() - int(task->countAsRunning());
        require(others < queue->maxRunningTasksCount(), "started beyond the limit");
        require(task->isIdle() && task->queue() == queue, "started what is not idle, or not its own");
        require(queue->state() == TasksQueue::Working, "started while the queue does not work");
    };
    queue->setConnectionType(type);
    queue->setMaxRunningTasksCount(random(4));
    reactTo(queue, &TasksQueue::stateChanged);
    return queue;
}

void World::reactTo(auto *sender, auto... signal)
{
    const auto react = [this] {
        if (m_isQuiet || m_depth >= 3 || random(8) != 0)
            return;
        ++m_depth;
        act();
        --m_depth;
    };
    (QObject::connect(sender, signal, sender, react), ...);
}

void World::act()
{
    Task *const task = any(m_tasks);
    Task *const other = any(m_tasks);
    TasksQueue *const queue = any(m_queues);
    GroupTask *const group = any(m_groups);
    const int kind = random(20);
    if (!task || !queue || !group)
        return;
    if (kind < 10) {
        perform(u"task %1, %2"_s.arg(task->name(), task->stateString()),
                {
                    [&] { task->exec(); },
                    [&] { task->exec(); },
                    [&] { task->finish(); },
                    [&] { task->finish(error()); },
                    [&] { task->cancel(); },
                    [&] { task->setError(error()); },
                    [&] { task->setIdle(); },
                    // A finished one could be finished again, and resumed it would have its end unheard.
                    [&] { task->isFinished() ? task->setIdle() : task->pause(); },
                    [&] { task->resume(); },
                    [&] { task->setPriority(random(11)); },
                    [&] { task->setCountAsRunning(random(2)); },
                    [&] { task->setTriggersNext(random(2)); },
                    [&] { task->setDeleteOnFinished(random(2)); },
                    [&] { awaitTask(task, m_awaits); },
                });
    } else if (kind < 15) {
        const bool isDirect = queue->connectionType() == Qt::DirectConnection;
        perform(u"%1 queue, task %2"_s.arg(isDirect ? u"direct"_s : u"queued"_s, task->name()),
                {
                    [&] { queue->append(task); },
                    [&] { queue->append(task); },
                    [&] {
                        queue->append({task, other});
                    },
                    [&] { queue->prepend(task); },
                    // Another queue than its own would only take queue() from it.
                    [&] { task->queue() ? task->queue()->removeTask(task) : queue->tryExec(); },
                    [&] { queue->pause(); },
                    [&] { queue->resume(); },
                    [&] { queue->resume(); },
                    [&] { queue->clear(TasksQueue::ClearPolicy(random(3)), error()); },
                    [&] { queue->setMaxRunningTasksCount(random(4)); },
                    [&] { queue->setCleanupMode(TasksQueue::CleanupMode(random(4) != 0)); },
                    [&] { queue->setTaskErrorPolicy(TasksQueue::TaskErrorPolicy(random(4) == 0)); },
                });
    } else if (kind < 18) {
        perform(u"group %1, %2, task %3"_s.arg(group->name(), group->stateString(), task->name()),
                {
                    [&] { group->append(task); },
                    [&] { group->append(task); },
                    [&] {
                        group->append({task, any(m_groups), other});
                    },
                    [&] { group->append(awaitTask(task, m_awaits)); },
                    [&] { random(2) ? group->cancel() : group->finish(); },
                    [&] { group->setIdle(); },
                    [&] { group->setIdle(); },
                    [&] { group->setWaitMode(GroupTask::WaitMode(random(3) != 0)); },
                    [&] { group->setCleanupPolicy(GroupTask::CleanupPolicy(random(3))); },
                    [&] { group->setCancelSubtasksMode(GroupTask::CancelSubtasksMode(random(2))); },
                    [&] { group->setChildFailurePolicy(GroupTask::ChildFailurePolicy(random(3))); },
                    [&] { m_depth == 0 ? moveProgress(group, task) : group->setIdle(); },
                });
    } else if (m_depth == 0 || random(2)) {
        perform(
            u"events, task %1, queue, group %2"_s.arg(task->name(), group->name()),
            {
                [&] { QCoreApplication::processEvents(); },
                [&] { m_depth == 0 ? QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete) : void(); },
                [&] { m_depth == 0 ? wait(task) : void(); },
                [&] { delete task; },
                [&] { delete queue; },
                [&] { delete group; },
            });
    }
}

void World::moveProgress(GroupTask *group, Task *task)
{
    m_isQuiet = true;
    const QPointer<Task> guardedTask(task);
    const QPointer<GroupTask> guardedGroup(group);
    QCoreApplication::sendPostedEvents(group, QEvent::MetaCall);
    const bool isCounted = guardedTask && guardedGroup && !task->isFinished() && group->subtasks().contains(task)
        && group->subtasks(GroupTask::Recursive).count(task) == 1
        && m_watched.value(task)->shares.contains(group->name());
    const int value = isCounted ? group->currentProgress() - task->currentProgress() : 0;
    const int total = isCounted ? group->totalProgress() - task->totalProgress() : 0;
    if (guardedTask)
        task->setProgress(random(1000), random(1000));
    if (isCounted) {
        QCoreApplication::sendPostedEvents(group, QEvent::MetaCall);
        require(group->currentProgress() == value + task->currentProgress()
                    && group->totalProgress() == total + task->totalProgress(),
                "the figures of a group are not the sums of those of its children");
    }
    m_isQuiet = false;
}

void World::wait(Task *task)
{
    m_isQuiet = true;
    QMetaObject::invokeMethod(
        task, [task] { task->finish(); }, Qt::QueuedConnection);
    require(!task->waitForFinished(30'000).equals(Timeout), "a wait did not end");
    m_isQuiet = false;
}

void World::step()
{
    ++m_step;
    act();
    check();
    replenish();
}

void World::check()
{
    for (const auto &queue : m_queues) {
        if (!queue)
            continue;
        // Complex tasks that a complex task starts get its queue, even when another one holds them.
        const auto own = std::count_if(m_tasks.cbegin(), m_tasks.cend(), [&](const auto &task) {
            return task && (task->queue() == queue || (task->queue() && qobject_cast<ComplexTask *>(task.data())));
        });
        const int pending = queue->pendingTasksCount();
        require(queue->count() <= own, "a queue holds tasks that are in another place");
        require(pending >= 0 && queue->runningTasksCount() >= 0 && queue->isEmpty() == (pending == 0)
                    && queue->count() == pending + queue->runningTasksCount(),
                "the counts of a queue do not add up");
    }
    for (const auto &task : m_tasks) {
        const auto watched = m_watched.value(task);
        if (!watched)
            continue;
        require(!task->isFinalizing(), "a task stays Finalizing");
        require(!task->isRunning() || task->executionMode() != Task::Synchronous, "a synchronous task stays Running");
        require(!task->isFinished() || !watched->isOpen || watched->isChild, "no finished() came from a task");
    }
}

// Has everything end, and looks whether it does.
void World::drain()
{
    m_isQuiet = true;
    note(u"drain"_s);
    const auto countTasks = [this](const auto &predicate) {
        return std::count_if(m_tasks.cbegin(), m_tasks.cend(), [&](Task *task) { return task && predicate(task); });
    };
    for (const auto &task : m_tasks)
        task->resume();
    for (const auto &queue : m_queues) {
        queue->setMaxRunningTasksCount(2);
        queue->resume();
    }
    const auto isAtWork = [](Task *task) { return task->executionMode() == Task::WorkingThread && task->isRunning(); };
    require(QTest::qWaitFor([&] { return countTasks(isAtWork) == 0; }, 30'000), "work on a thread does not end");
    drainEvents();
    for (const auto &queue : m_queues) {
        const auto cannotStart = [&](Task *task) { return task->queue() && !task->isIdle(); };
        require(queue->runningTasksCount() >= 2 || queue->pendingTasksCount() <= countTasks(cannotStart),
                "a queue does not start what it can start");
    }

    for (const auto &task : m_tasks) {
        if (task)
            task->cancel();
    }
    drainEvents();
    require(countTasks([](Task *task) { return !task->isFinished(); }) == 0, "a canceled task did not finish");
    for (const auto &queue : m_queues) {
        require(queue->count() == 0, "a queue holds tasks that are finished");
        require(queue->count() > 0 || queue->state() == TasksQueue::Idle, "an empty queue is not idle");
    }
    require(*m_awaits == 0, "a coroutine was not resumed");

    QObject last;
    for (const auto &group : m_groups) {
        auto *task = new Task(&last);
        if (group)
            group->append(task);
        task->exec();
    }
    drainEvents();
    // A group does not hear of those that another one has stopped quietly.
    const auto isDone = [&](const BaseTask *child) {
        const auto watched = m_watched.value(child);
        return !child || (child->isFinished() && (child->parent() == &last || (watched && watched->isAnnounced)));
    };
    for (const auto &group : m_groups) {
        const auto children = group ? group->subtasks() : QList<BaseTask *>();
        require(!group || group->isFinished() || group->isCanceled() || group->waitMode() == GroupTask::NoWait
                    || !std::all_of(children.cbegin(), children.cend(), isDone),
                "a group did not end though its children have");
    }
    qDeleteAll(m_wrappers.children());
    check();
    replenish();
    for (const auto &task : m_tasks)
        task->setIdle();
    for (const auto &group : m_groups)
        group->setIdle();
    m_isQuiet = false;
}

} // namespace

class tst_world : public QObject {
    Q_OBJECT

public:
    // As long as it was asked for, not the five minutes that a function may take.
    static void initMain() { qputenv("QTEST_FUNCTION_TIMEOUT", "2000000000"); }

private Q_SLOTS:
    void anythingMayHappenAtAnyTime();
};

// ZEL_WORLD_SEED repeats a run; ZEL_WORLD_SECONDS says how long to go on, 0 for ever; ZEL_WORLD_VERBOSE prints it all.
void tst_world::anythingMayHappenAtAnyTime()
{
    bool isSeedGiven = false;
    const quint32 givenSeed = qEnvironmentVariable("ZEL_WORLD_SEED").toUInt(&isSeedGiven);
    quint32 seed = isSeedGiven ? givenSeed : QRandomGenerator::global()->generate();
    const int seconds = qEnvironmentVariable("ZEL_WORLD_SECONDS", u"3"_s).toInt();
    const QDeadlineTimer end = seconds > 0 ? QDeadlineTimer(std::chrono::seconds(seconds)) : QDeadlineTimer::Forever;
    qint64 steps = 0;
    for (; !end.hasExpired(); ++seed) {
        qInfo() << "seed" << seed;
        World world(seed);
        for (int step = 1; step <= 5000 && !end.hasExpired(); ++step, ++steps) {
            world.step();
            if (step % 200 == 0)
                world.drain();
            if (!world.failure.isEmpty())
                QFAIL(qPrintable(world.failure));
        }
    }
    qInfo() << steps << "steps";
}

QTEST_GUILESS_MAIN(tst_world)
#include "tst_world.moc"
