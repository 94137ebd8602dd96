#include "support/EventLog.h"
#include "support/Gate.h"
#include "support/LogCapture.h"
#include "support/Rows.h"
#include "support/Waiting.h"

#include <zel/common/UnifiedError.h>
#include <zel/tasks/ComplexTask.h>
#include <zel/tasks/GroupTask.h>
#include <zel/tasks/TasksQueue.h>

#include <QElapsedTimer>
#include <QPointer>
#include <QTest>
#include <QThread>

#include <array>
#include <deque>
#include <memory>
#include <random>

using namespace Qt::StringLiterals;
using namespace zel;

namespace {

constexpr std::array cleanups{GroupTask::DeleteWithGroup, GroupTask::DeleteWhenFinished, GroupTask::SelfDelete};
constexpr std::array stopModes{GroupTask::CancelSubtasks, GroupTask::FinishSubtasks};
constexpr std::array connectionTypes{Qt::QueuedConnection, Qt::DirectConnection};
const Error canceledError(Canceled, u"Canceled"_s);
const Error lateError(GeneralError, u"The group for the task was already finished."_s);

struct Policies {
    GroupTask::WaitMode wait = GroupTask::WaitAll;
    GroupTask::ChildFailurePolicy failure = GroupTask::FailFast;
    GroupTask::CleanupPolicy cleanup = GroupTask::DeleteWhenFinished;
    GroupTask::CancelSubtasksMode stop = GroupTask::FinishSubtasks;
    Qt::ConnectionType type = Qt::QueuedConnection;
};

void setPolicies(GroupTask *group, const Policies &policies)
{
    group->setWaitMode(policies.wait);
    group->setChildFailurePolicy(policies.failure);
    group->setCleanupPolicy(policies.cleanup);
    group->setCancelSubtasksMode(policies.stop);
    group->setConnectionType(policies.type);
}

/// What becomes of a group and its children, worked out with flags and plain walks.
class Model {
public:
    struct Child {
        BaseTask::State state = BaseTask::Idle;
        Error error;
        bool exists = true;
        bool isDeletedLater = false;
        bool isListed = false;
        bool isDone = false;
        // Numbers of its runs: the present one, and those that the group knows of.
        int run = 0;
        int begunRun = 0;
        int reportedRun = 0;
        int handledRun = 0;
    };

    Model(unsigned count, const Policies &initial) : policies(initial), children(count) { }

    void append(Child *child)
    {
        if (child->isListed && child->state == BaseTask::Idle) {
            child->isDone = false;
            child->begunRun = child->run;
        }
        if (child->isListed)
            return;
        if (isCanceled || state == BaseTask::Finished)
            return end(child, isCanceled ? canceledError : lateError);
        list.append(child);
        child->isListed = true;
        if (child->state == BaseTask::Finished)
            reportEnd(child, child->error);
    }

    void start(Child *child)
    {
        if (!enter(child, BaseTask::Running) || !child->isListed)
            return;
        child->begunRun = child->run;
        deliver([this, child, run = child->run, use = m_use] { onStarted(child, run, use); });
    }

    void end(Child *child, const Error &outcome)
    {
        if (!enter(child, BaseTask::Finished))
            return;
        child->error = outcome;
        if (child->isListed)
            reportEnd(child, child->error);
    }

    /// Ends a run that is under way.
    void setIdle(Child *child)
    {
        const bool ends = child->state == BaseTask::Running;
        enter(child, BaseTask::Idle);
        if (ends && child->isListed)
            reportEnd(child, Error());
    }

    /// Every change of state begins another number.
    static bool enter(Child *child, BaseTask::State state)
    {
        child->run += child->state != state;
        return std::exchange(child->state, state) != state;
    }

    void toggleWait()
    {
        policies.wait = policies.wait == GroupTask::NoWait ? GroupTask::WaitAll : GroupTask::NoWait;
        if (state == BaseTask::Running)
            checkFinished();
    }

    void cancel()
    {
        if (state == BaseTask::Finished)
            return;
        stop([](const Child *) { return true; });
        finish(canceledError);
        cleanup();
    }

    void finish(const Error &given)
    {
        if (state == BaseTask::Finished)
            return;
        const Error unified = UnifiedError::computeUnifiedError({m_errors.begin(), m_errors.end()});
        error = unified.hasError() ? unified : given;
        isCanceled = given.equals(Canceled) || error.equals(Canceled) || (isCanceled && given.hasError());
        state = BaseTask::Finished;
    }

    void restart()
    {
        if (std::exchange(state, BaseTask::Running) != BaseTask::Finished)
            return;
        isCanceled = false;
        ++m_use;
    }

    void drain()
    {
        for (; !m_posted.empty(); m_posted.pop_front())
            m_posted.front()();
        for (Child &child : children)
            child.exists = child.exists && !child.isDeletedLater;
    }

    Policies policies;
    std::vector<Child> children;
    QList<Child *> list; ///< all that were ever listed
    BaseTask::State state = BaseTask::Idle;
    Error error;
    bool isCanceled = false;

private:
    void deliver(const std::function<void()> &call)
    {
        policies.type == Qt::DirectConnection ? call() : m_posted.push_back(call);
    }

    void reportEnd(Child *child, const Error &outcome)
    {
        if (std::exchange(child->reportedRun, child->run) == child->run)
            return;
        deliver([this, child, run = child->run, use = m_use, outcome] {
            if (!child->isListed)
                return;
            child->handledRun = qMax(child->handledRun, run);
            if (run > child->begunRun)
                onFinished(child, run, use, outcome);
        });
    }

    void onStarted(Child *child, int run, int use)
    {
        child->isDone = child->isDone && run <= child->handledRun;
        if (use == m_use && state == BaseTask::Idle)
            state = BaseTask::Running;
    }

    void onFinished(Child *child, int run, int use, const Error &outcome)
    {
        setDone(child, run);
        if (state == BaseTask::Finished)
            return;
        if (use != m_use)
            return state == BaseTask::Running ? checkFinished() : void();
        if (outcome.hasError() && policies.failure == GroupTask::FailFast) {
            finish(outcome);
            return stop([](const Child *) { return true; });
        }
        if (outcome.hasError() && policies.failure <= GroupTask::CancelIdleOnFailure)
            m_errors.append(outcome);
        if (outcome.hasError() && policies.failure == GroupTask::CancelIdleOnFailure)
            stop([](const Child *other) { return other->state == BaseTask::Idle; });
        checkFinished();
    }

    void checkFinished()
    {
        const auto isPending = [](const Child &child) {
            const bool isHandled = child.isDone && child.begunRun <= child.handledRun;
            return child.isListed && !isHandled && (child.exists || child.reportedRun > child.handledRun);
        };
        if (policies.wait == GroupTask::NoWait || std::any_of(children.begin(), children.end(), isPending))
            return;
        cleanup();
        finish(Error());
    }

    void setDone(Child *child, int run) const
    {
        child->isDone = true;
        child->handledRun = run;
        child->isListed = child->isListed && policies.cleanup != GroupTask::DeleteWhenFinished;
        child->isDeletedLater = child->isDeletedLater || !child->isListed;
    }

    void cleanup()
    {
        for (Child &child : children) {
            if (policies.cleanup == GroupTask::DeleteWithGroup && std::exchange(child.isListed, false))
                child.isDeletedLater = true;
        }
    }

    void stop(const std::function<bool(const Child *)> &isMeant)
    {
        QList<Child *> meant = list;
        meant.removeIf([&](const Child *child) { return !child->isListed || !child->exists || !isMeant(child); });
        for (Child *child : std::as_const(meant)) {
            if (policies.stop == GroupTask::CancelSubtasks)
                end(child, canceledError);
            else if (policies.stop == GroupTask::FinishSubtasks && enter(child, BaseTask::Finished))
                setDone(child, child->run);
        }
    }

    int m_use = 0; ///< number of the group's run
    QList<Error> m_errors;
    std::deque<std::function<void()>> m_posted;
};

/// A group with children, and the model of both; operations are named by letters.
class Play {
public:
    Play(unsigned count, const Policies &policies) : m_model(count, policies)
    {
        setPolicies(&m_group, policies);
        for (unsigned number = 0; number < count; ++number)
            m_tasks.append(new Task(Task::Asynchronous, &m_owner));
    }

    /// Does the same to both. What is done to a child that is gone, or to a child after its removal, is left out.
    void perform(const QByteArray &operations, unsigned number)
    {
        for (const char operation : operations) {
            performOnGroup(operation);
            if (m_tasks[number])
                performOnChild(operation, m_tasks[number], &m_model.children[number]);
        }
    }

    /// Where group and model disagree.
    QString difference() const
    {
        QList<BaseTask *> listed;
        for (const Model::Child *child : m_model.list) {
            if (child->isListed)
                listed.append(m_tasks[child - m_model.children.data()]);
        }
        for (int number = 0; number < m_tasks.size(); ++number) {
            const Task *task = m_tasks[number];
            const Model::Child &child = m_model.children[number];
            if (task ? task->state() != child.state || task->error() != child.error : child.exists)
                return u"child %1"_s.arg(number);
        }
        const bool isSame = m_group.error() == m_model.error && m_group.isCanceled() == m_model.isCanceled;
        return isSame && m_group.state() == m_model.state && m_group.subtasks() == listed ? QString() : u"group"_s;
    }

private:
    void performOnGroup(char operation)
    {
        if (operation == '.') {
            drainEvents();
            m_model.drain();
        } else if (operation == 'C') {
            m_group.cancel();
            m_model.cancel();
        } else if (operation == 'R') {
            m_group.setRunning();
            m_model.restart();
        } else if (operation == 'W') {
            m_model.toggleWait();
            m_group.setWaitMode(m_model.policies.wait);
        }
    }

    void performOnChild(char operation, Task *task, Model::Child *child)
    {
        const Error failure(ErrorCode(UserError + m_tasks.indexOf(task)), u"failed"_s);
        // One that is about to be deleted would be listed at the mercy of the order of deletions.
        if (operation == 'a' && !child->isDeletedLater) {
            m_group.append(task);
            m_model.append(child);
        } else if (operation == 's') {
            task->exec();
            m_model.start(child);
        } else if (operation == 'e' || operation == 'f') {
            task->finish(operation == 'e' ? Error() : failure);
            m_model.end(child, operation == 'e' ? Error() : failure);
        } else if (operation == 'c') {
            task->cancel();
            m_model.end(child, canceledError);
        } else if (operation == 'i') {
            task->setIdle();
            m_model.setIdle(child);
        } else if (operation == 'd') {
            delete task;
            child->exists = false;
        }
    }

    QObject m_owner;
    QList<QPointer<Task>> m_tasks;
    GroupTask m_group;
    Model m_model;
};

/// Asynchronous tasks: each runs until the test ends it. Names are letters, so that logs stay short.
class Bench {
public:
    explicit Bench(const Policies &policies = {}) : group(nested(u"g"_s, {}, policies)) { }

    Task *task(const QString &name) { return add(new Task(Task::Asynchronous, &owner), name); }
    Task *running(const QString &name)
    {
        Task *appended = task(name);
        group->append(appended);
        appended->exec();
        return appended;
    }
    QList<Task *> manyRunning(int count)
    {
        QList<Task *> tasks;
        for (int number = 0; number < count; ++number) {
            tasks.append(new Task(Task::Asynchronous, &owner));
            group->append(tasks.last());
            tasks.last()->exec();
        }
        return tasks;
    }
    GroupTask *nested(const QString &name, const QList<BaseTask *> &members, const Policies &policies = {})
    {
        auto *nestedGroup = add(new GroupTask(&owner), name);
        setPolicies(nestedGroup, policies);
        nestedGroup->append(members);
        return nestedGroup;
    }
    template <typename TaskClass>
    TaskClass *add(TaskClass *task, const QString &name)
    {
        task->setName(name);
        task->setObjectName(name);
        log.watch(task, name);
        return task;
    }
    BaseTask *find(const QString &name) const { return owner.findChild<BaseTask *>(name); }

    QObject owner;
    EventLog log;
    const QPointer<GroupTask> group;
};

/// Shows what a complex task keeps for those that derive from it.
class Job : public ComplexTask {
public:
    using ComplexTask::ComplexTask;
    using ComplexTask::groupTask;
};

// In milliseconds, with and without what must not make work for each of many children.
qint64 failureTime(bool resets)
{
    Bench bench({.failure = GroupTask::CancelIdleOnFailure, .cleanup = GroupTask::SelfDelete});
    bench.group->setConnectionType(Qt::DirectConnection);
    const QList<Task *> tasks = bench.manyRunning(4'000);
    Task other(Task::Asynchronous);
    QElapsedTimer timer;
    timer.start();
    for (Task *task : tasks) {
        other.setRunning();
        if (resets)
            other.setIdle();
        task->finish(Error(UserError));
    }
    return timer.elapsed();
}

qint64 cancelTime(bool isNested)
{
    Bench bench({.stop = GroupTask::CancelSubtasks});
    GroupTask *group = bench.group;
#ifdef __SANITIZE_THREAD__
    constexpr int levels = 20; // it keeps account of fewer locks
#else
    constexpr int levels = 1'000;
#endif
    for (int level = 0; level < levels; ++level) {
        for (int number = 0; number < 20; ++number)
            group->append(new Task(Task::Asynchronous, &bench.owner));
        auto *inner = new GroupTask(&bench.owner);
        inner->setCancelSubtasksMode(GroupTask::CancelSubtasks);
        group->append(inner);
        group = isNested ? inner : group;
    }
    QElapsedTimer timer;
    timer.start();
    bench.group->cancel();
    return timer.elapsed();
}

qint64 turnTime(bool besideMany)
{
    Bench bench({.cleanup = GroupTask::SelfDelete});
    for (Task *task : bench.manyRunning(besideMany ? 100'000 : 1))
        task->finish();
    Task *first = bench.running(u"a"_s);
    Task *second = bench.task(u"b"_s);
    bench.group->append(second);
    drainEvents();
    QElapsedTimer timer;
    timer.start();
    for (int turn = 0; turn < 1'000; ++turn) {
        first->finish();
        second->exec();
        drainEvents();
        std::swap(first, second);
    }
    return timer.elapsed();
}

class OpenGroup : public GroupTask {
public:
    using GroupTask::execTask;
};

QCoro::Task<Error> await(BaseTask *task)
{
    co_return co_await task;
}

} // namespace

class GroupTaskTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { failOnQtWarnings(); }

    // With values that no policy has, too: those leave children and errors alone.
    void groupFollowsTheModel_data()
    {
        QTest::addColumn<Policies>("policies");
        for (int row = 0; row < 2 * 4 * 3 * 3 * 2; ++row) {
            const Policies policies{GroupTask::WaitMode(row % 2), GroupTask::ChildFailurePolicy(row / 2 % 4),
                                    cleanups[row / 8 % 3], GroupTask::CancelSubtasksMode(row / 24 % 3),
                                    connectionTypes[row / 72]};
            QTest::addRow("wait %d, failure %d, clean-up %d, stop %d, connection %d", policies.wait, policies.failure,
                          policies.cleanup, policies.stop, policies.type)
                << policies;
        }
    }

    void groupFollowsTheModel()
    {
        QFETCH(Policies, policies);
        // The outcomes of children, among them ends that are not handled before the child is gone or starts again.
        const std::array operations{"a",  "a",  "as",  "as", "as", "s", "s",  "e", "e", "f", "f", "c", "ed", "fd", "es",
                                    "fs", "fa", "fas", "d",  "d",  "i", "ie", "C", "R", "W", ".", ".", ".",  "."};
        for (unsigned seed = 0; seed < 50; ++seed) {
            std::mt19937 random(seed);
            Play play(2 + seed % 4, policies);
            for (int step = 0; step < 30; ++step) {
                const char *operation = operations[random() % operations.size()];
                play.perform(operation, random() % (2 + seed % 4));
                const QString difference = play.difference();
                QVERIFY2(difference.isEmpty(), qPrintable(u"seed %1, step %2: "_s.arg(seed).arg(step) + difference));
            }
        }
    }

    void subtasksAreListedByMode()
    {
        Bench bench;
        Task *a = bench.running(u"a"_s);
        Task *b = bench.task(u"b"_s);
        Job job(u"j"_s);
        GroupTask *inner = bench.nested(u"n"_s, {b});
        bench.group->append({nullptr, inner, a, &job});
        QCOMPARE(bench.group->subtasks(), QList<BaseTask *>({a, inner, &job}));
        QCOMPARE(bench.group->subtasks(GroupTask::Recursive), QList<BaseTask *>({a, inner, b, &job}));
        delete a;
        QCOMPARE(bench.group->executableSubtasks(), QList<Task *>{&job});
        QCOMPARE(bench.group->executableSubtasks(true), QList<Task *>({b, &job}));
    }

    void circlesAreRefused()
    {
        Bench bench;
        LogCapture log;
        GroupTask *innermost = bench.nested(u"m"_s, {});
        Job job(u"j"_s);
        job.groupTask()->append(&job);
        bench.group->append(&job);
        job.groupTask()->append(innermost);
        bench.group->append(bench.group);
        innermost->append({bench.group, &job});
        const QString warning = u"Task \"%1\" cannot be a child of group \"%2\" which it is or contains"_s;
        QCOMPARE(log.takeWarnings(),
                 QStringList({warning.arg(u"j"_s, u"j:GroupTask"_s), warning.arg(u"g"_s, u"g"_s),
                              warning.arg(u"g"_s, u"m"_s), warning.arg(u"j"_s, u"m"_s)}));
    }

    // It was in the list, was removed, and is saved from deletion. It comes finished, and starts again.
    void readmittedChildReplacesItsShare()
    {
        Bench bench({.wait = GroupTask::NoWait});
        Task *a = bench.running(u"a"_s);
        a->setProgress(30, 40);
        a->finish();
        QCoreApplication::sendPostedEvents(bench.group);
        QCoreApplication::removePostedEvents(a, QEvent::DeferredDelete);
        bench.group->append(a);
        a->exec();
        a->setProgress(55, 65);
        drainEvents();
        QCOMPARE(bench.group->totalProgress(), 65);
    }

    void nullTaskIsNotExecuted()
    {
        OpenGroup group;
        group.execTask(nullptr);
        QVERIFY(group.isIdle());
    }

    void anotherChildAtTheSameAddressAddsItsShare()
    {
        GroupTask group;
        alignas(Task) std::byte place[sizeof(Task)];
        for (int number = 1; number <= 3; ++number) {
            auto *task = new (place) Task(Task::Asynchronous);
            task->setProgress(number, 10);
            group.append(task);
            QCOMPARE(group.totalProgress(), 10 * number);
            task->~Task();
        }
        QCOMPARE(group.subtasks(), QList<BaseTask *>(3, nullptr));
    }

    void destroyedGroupDeletesItsChildrenByPolicy()
    {
        for (const auto cleanup : cleanups) {
            Bench bench({.cleanup = GroupTask::SelfDelete});
            const QPointer<Task> a = bench.running(u"a"_s);
            a->setDeleteOnFinished(true);
            bench.group->setCleanupPolicy(cleanup);
            QCOMPARE(a->deleteOnFinished(), cleanup == GroupTask::SelfDelete);
            delete bench.group;
            drainEvents();
            QCOMPARE(a.isNull(), cleanup == GroupTask::DeleteWithGroup);
        }
    }

    // The queue is known by members of nested groups only.
    void stoppedChildrenLeaveTheirQueues()
    {
        for (int variant = 0; variant < 4; ++variant) {
            const Policies policies{.stop = stopModes[variant % 2]};
            TasksQueue queue;
            queue.setMaxRunningTasksCount(1);
            queue.setConnectionType(connectionTypes[variant / 2]);
            Bench bench(policies);
            const QList<Task *> tasks{bench.task(u"a"_s), bench.task(u"b"_s), bench.task(u"c"_s), bench.task(u"d"_s)};
            auto *job = bench.add(new Job(&bench.owner), u"j"_s);
            job->groupTask()->append(tasks[3]);
            bench.group->append({bench.nested(u"m"_s, {tasks[0]}, policies),
                                 bench.nested(u"n"_s, {tasks[1], tasks[2]}, policies), job});
            queue.append(tasks + QList<Task *>{bench.task(u"x"_s)});
            drainEvents();
            bench.log.take();
            bench.log.keepOnly({u"started"_s, u"finalizing"_s});
            bench.group->cancel();
            // Idle ones first when it is done quietly: a queue that runs the others has nothing left to start. It goes on
            // when the group has ended, or when it hears that the slot is free.
            const bool isFreeAtOnce = variant % 2 || variant / 2 == 1;
            const QString ended = variant % 2 ? u"b c n d j a m g"_s : u"a m b c n d j g"_s;
            QCOMPARE(bench.log.take().remove(u":finalizing"_s), ended + (isFreeAtOnce ? u" x:started"_s : QString()));
            drainEvents();
            QCOMPARE(bench.log.take(), isFreeAtOnce ? QString() : u"x:started"_s);
            QCOMPARE(queue.count(), 1);
        }
    }

    // A message box in finished(), say.
    void handlersMayWaitForQueuesOfStoppedChildren_data()
    {
        addRows<GroupTask::CancelSubtasksMode>(
            {{"canceled", GroupTask::CancelSubtasks}, {"quietly", GroupTask::FinishSubtasks}});
    }

    void handlersMayWaitForQueuesOfStoppedChildren()
    {
        QFETCH(const GroupTask::CancelSubtasksMode, row);
        for (const auto type : connectionTypes) {
            const Policies policies{.cleanup = GroupTask::SelfDelete, .stop = row};
            Bench bench(policies);
            GroupTask *other = bench.nested(u"h"_s, {}, policies);
            std::array<TasksQueue, 2> queues;
            for (int number = 0; number < 2; ++number) {
                Task *child = bench.task(u"child%1"_s.arg(number));
                (number ? other : bench.group.data())->append(child);
                queues[number].setMaxRunningTasksCount(1);
                queues[number].setConnectionType(type);
                queues[number].append({child, bench.task(u"next%1"_s.arg(number))});
            }
            drainEvents();
            bench.log.take();
            bench.log.keepOnly({u"started"_s, u"counts"_s});
            connect(bench.group, &GroupTask::finished, this, [&] {
                other->cancel();
                drainEvents();
                bench.log.add(u"counts(%1,%2)"_s.arg(queues[0].count()).arg(queues[1].count()));
            });
            bench.group->cancel();
            drainEvents();
            QCOMPARE(bench.log.take(), u"next0:started next1:started counts(1,1)"_s);
        }
    }

    // Its handler is connected before the group.
    void outcomeOfAChildThatAHandlerDeletesCounts()
    {
        for (const auto type : connectionTypes) {
            Bench bench({.failure = GroupTask::ContinueOnFailure, .type = type});
            Task *a = bench.task(u"a"_s);
            bench.log.on(u"a:finished"_s, [a] { delete a; });
            bench.group->append(a);
            Task *b = bench.running(u"b"_s);
            a->exec();
            a->finish(Error(UserError));
            b->finish();
            drainEvents();
            QVERIFY(bench.group->isFinished());
            QCOMPARE(bench.group->error(), Error(UserError));
        }
    }

    void childSetIdleHasEnded_data()
    {
        addRows<std::function<void(Bench *, Task *)>>({
            {"by a handler of stateChanged(Finished)",
             [](Bench *bench, Task *task) {
                 bench->log.on(u"a:stateChanged(Finished)"_s, [task] { task->setIdle(); });
                 task->finish();
             }},
            {"by a handler of finished()",
             [](Bench *bench, Task *task) {
                 bench->log.on(u"a:finished"_s, [task] { task->setIdle(); });
                 task->finish();
             }},
            {"before the group looks",
             [](Bench *, Task *task) {
                 task->finish();
                 task->setIdle();
             }},
            {"while it runs", [](Bench *, Task *task) { task->setIdle(); }},
        });
    }

    void childSetIdleHasEnded()
    {
        QFETCH(const std::function<void(Bench *, Task *)>, row);
        for (const auto type : connectionTypes) {
            Bench bench({.cleanup = GroupTask::SelfDelete, .type = type});
            Task *a = bench.running(u"a"_s);
            drainEvents();
            row(&bench, a);
            drainEvents();
            QVERIFY(a->isIdle() && bench.group->isSuccessful());
        }
    }

    void taskAppendedWhileTheGroupEndsIsRefused()
    {
        for (const QString &event : {u"g:errorChanged(NoError)"_s, u"g:stateChanged(Finalizing)"_s, u"g:finalizing"_s,
                                     u"g:stateChanged(Finished)"_s}) {
            Bench bench;
            Task *late = bench.task(u"late"_s);
            bench.log.on(event, [&] { bench.group->append(late); });
            bench.group->finish();
            QCOMPARE(late->error(), lateError);
            QVERIFY(bench.group->isEmpty());
        }
    }

    void noFiguresAreLost()
    {
        Bench bench;
        Task *a = bench.task(u"a"_s);
        a->setProgress(0, 10);
        // After its figures were read.
        bench.log.on(u"g:progress(0,10)"_s, [a] { a->setProgress(3, 10); });
        bench.group->append(a);
        drainEvents();
        QCOMPARE(bench.group->currentProgress(), 3);
        // Told while it was listed.
        a->setProgress(7, 20);
        bench.group->cancel();
        drainEvents();
        QCOMPARE(bench.group->currentProgress(), 7);
        QCOMPARE(bench.group->totalProgress(), 20);
    }

    void idleChildrenAreStoppedInOrder()
    {
        Bench bench({.failure = GroupTask::CancelIdleOnFailure,
                     .cleanup = GroupTask::SelfDelete,
                     .stop = GroupTask::CancelSubtasks});
        Task *a = bench.running(u"a"_s);
        bench.group->append({bench.task(u"b"_s), bench.task(u"c"_s)});
        a->finish();
        drainEvents();
        a->setIdle();
        bench.group->append(a);
        bench.running(u"d"_s)->finish(Error(UserError));
        bench.log.take();
        bench.log.keepOnly({u"finished"_s});
        drainEvents();
        QCOMPARE(bench.log.take(), u"a:finished b:finished c:finished g:finished"_s);
    }

    // "The first that is ready stops the others": each end cancels the group, which ends the next one.
    void childrenThatCancelTheirGroupDoNotRecurse()
    {
        Bench bench({.stop = GroupTask::CancelSubtasks});
        QList<BaseTask *> tasks;
        for (int number = 0; number < 10'000; ++number) {
            tasks.append(new Task(Task::Asynchronous, &bench.owner));
            connect(tasks.last(), &BaseTask::finished, bench.group, &GroupTask::cancel);
        }
        bench.group->append(tasks);
        tasks[5'000]->finish();
        QCOMPARE(bench.group->pendingChildrenCount(), 0);
    }

    void endThatAHandlerTookBackIsNone()
    {
        GroupTask group;
        QPointer<Task> child = new Task(Task::Asynchronous);
        int ends = 0;
        // Connected before the group.
        connect(child, &Task::finished, this, [&] { ++ends == 1 ? child->exec() : void(); });
        group.append(child);
        child->exec();
        child->finish(Error(UserError));
        drainEvents();
        QVERIFY(child && child->isRunning() && group.isRunning());
        child->finish();
        drainEvents();
        QVERIFY(!child && group.isSuccessful());
    }

    void freshRunInsideCancelIsNotCanceled()
    {
        Bench bench;
        bench.running(u"a"_s);
        bench.log.on(u"g:finished"_s, [&] {
            bench.group->setIdle();
            bench.group->append(bench.task(u"b"_s));
        });
        bench.group->cancel();
        QVERIFY(bench.group->isIdle() && !bench.find(u"b"_s)->isFinished());
        bench.group->cancel();
        QVERIFY(bench.group->isCanceled());
    }

    void coroutinesAreChildren()
    {
        Task failed;
        failed.finish(Error(ReadError));
        for (const auto cleanup : cleanups) {
            Bench bench({.failure = GroupTask::ContinueOnFailure, .cleanup = cleanup});
            LogCapture log;
            Task *awaited = bench.task(u"a"_s);
            // Refused the second time. Whatever the policy: nobody else knows the tasks that the group makes.
            for (int round = 0; round < 2; ++round) {
                awaited->setRunning();
                bench.group->append(await(awaited));
                bench.group->append(await(&failed));
                awaited->finish();
                drainEvents();
                QCOMPARE(bench.group->error(), Error(ReadError));
            }
            QCOMPARE(log.take().count(u"debug Deleting \"\""_s), 4);
        }
    }

    void tasksOfCoroutinesGoWhenTheirGroupIsGone()
    {
        for (const auto cleanup : cleanups) {
            Bench bench({.cleanup = cleanup});
            LogCapture log;
            Task *awaited = bench.task(u"a"_s);
            awaited->setRunning();
            bench.group->append(await(awaited));
            delete bench.group;
            awaited->finish();
            drainEvents();
            QCOMPARE(log.take().count(u"debug Deleting \"\""_s), 1);
        }
    }

    void childrenOfOtherThreadsReportEverything()
    {
        Bench bench({.failure = GroupTask::ContinueOnFailure});
        std::vector<std::unique_ptr<QThread>> threads;
        for (int number = 0; number < 200; ++number) {
            auto *task = new Task(Task::Asynchronous);
            bench.group->append(task);
            threads.emplace_back(QThread::create([this, task, number] {
                task->exec();
                task->setProgress(number, number);
                task->finish(Error(UserError, QString::number(number / 3)));
                if (number % 2)
                    delete task; // before the group looks: neither its end nor its error is lost
                else
                    task->moveToThread(thread());
            }));
            task->moveToThread(threads.back().get());
            threads.back()->start();
        }
        QTRY_VERIFY_WITH_TIMEOUT(bench.group->isFinished(), 30'000);
        for (const auto &thread : threads)
            thread->wait();
        drainEvents();
        QCOMPARE(bench.group->error().text().count(u'\n'), 199 / 3);
        QCOMPARE(bench.group->totalProgress(), 199 * 200 / 2);
    }

    void costGrowsWithTheNumberOfTasks_data()
    {
        addRows<std::function<qint64(bool)>>({{"failures while other tasks are set idle", failureTime},
                                              {"cancel of nested groups", cancelTime},
                                              {"children that restart in turns beside ended ones", turnTime}});
    }

    void costGrowsWithTheNumberOfTasks()
    {
        QFETCH(const std::function<qint64(bool)>, row);
        QCOMPARE_LT(row(true), 5 * row(false) + 300);
    }

    void groupMayBeDestroyedWhileOtherThreadsReport()
    {
        for (int round = 0; round < 50; ++round) {
            Task task(Task::Asynchronous);
            auto *group = new GroupTask;
            setPolicies(group, {.wait = GroupTask::NoWait, .cleanup = GroupTask::SelfDelete});
            group->append(&task);
            Gate gate;
            const std::unique_ptr<QThread> thread(QThread::create([&] {
                for (int run = 0; !QThread::currentThread()->isInterruptionRequested(); ++run) {
                    task.exec();
                    task.setProgress(run, run);
                    task.finish();
                    gate.arrive();
                }
            }));
            task.moveToThread(thread.get());
            thread->start();
            gate.waitForArrival();
            drainEvents();
            delete group;
            thread->requestInterruption();
            QVERIFY(thread->wait());
        }
    }
};

QTEST_GUILESS_MAIN(GroupTaskTest)
#include "tst_grouptask.moc"
