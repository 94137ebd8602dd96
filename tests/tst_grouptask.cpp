#include "support/EventLog.h"
#include "support/Gate.h"
#include "support/LogCapture.h"
#include "support/Waiting.h"

#include <zel/common/UnifiedError.h>
#include <zel/tasks/ComplexTask.h>
#include <zel/tasks/GroupTask.h>
#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QLoggingCategory>
#include <QMetaEnum>
#include <QPointer>
#include <QScopeGuard>
#include <QTest>
#include <QThread>

#include <array>
#include <deque>
#include <limits>
#include <memory>
#include <random>

using namespace Qt::StringLiterals;
using namespace zel;

static_assert(GroupTask::NoWait == 0 && GroupTask::WaitAll == 1);
static_assert(GroupTask::DeleteWithGroup == 0 && GroupTask::DeleteWhenFinished == 1 && GroupTask::SelfDelete == 2);
static_assert(GroupTask::CancelSubtasks == 0 && GroupTask::FinishSubtasks == 1);
static_assert(GroupTask::FailFast == 0 && GroupTask::ContinueOnFailure == 1 && GroupTask::CancelIdleOnFailure == 2);
static_assert(int(GroupTask::Recursive) == 1 && int(GroupTask::GetSubtasksMode::Executable) == 2);
static_assert(std::is_same_v<std::underlying_type_t<GroupTask::WaitMode>, int>);

namespace {

const Error canceledError(Canceled, u"Canceled"_s);
const Error lateError(GeneralError, u"The group for the task was already finished."_s);

QString describe(const Error &error)
{
    return error.hasError() ? Error::codeName(error.code()) + u'(' + error.text() + u')' : u"no error"_s;
}

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
        BaseTask::State pausedState = BaseTask::Idle;
        Error error;
        bool exists = true;
        bool isDeletedLater = false;
        QPair<int, int> figures;
        // In the list.
        bool isListed = false;
        bool isDone = false;
        bool isFollowed = false; ///< its figures count
        bool isEndReported = false;
        int starts = 0;
        int handledStarts = 0;
        QPair<int, int> share;
        Qt::ConnectionType type = Qt::QueuedConnection;
    };

    Model(int count, const Policies &initial) : policies(initial), children(count) { }

    void append(int number)
    {
        Child &child = children[number];
        if (child.isListed)
            return;
        if (isCanceled || state == BaseTask::Finished)
            return end(number, isCanceled ? canceledError : lateError);
        list.append(number);
        child.isListed = true;
        child.type = policies.type;
        if (child.state == BaseTask::Finished)
            return reportEnd(number);
        child.isFollowed = true;
        child.share = child.figures;
    }

    void start(int number)
    {
        Child &child = children[number];
        const BaseTask::State left = std::exchange(child.state, BaseTask::Running);
        if ((left != BaseTask::Idle && left != BaseTask::Finished) || !child.isListed)
            return;
        ++child.starts;
        child.isEndReported = false;
        deliver(child, [this, number, use = m_use] { onStarted(number, use); });
    }

    void end(int number, const Error &outcome)
    {
        Child &child = children[number];
        if (child.state == BaseTask::Finished)
            return;
        child.error = outcome;
        child.state = BaseTask::Finished;
        if (child.isListed)
            reportEnd(number);
    }

    void setProgress(int number, const QPair<int, int> &figures)
    {
        Child &child = children[number];
        child.figures = figures;
        deliver(child, [&child, figures] {
            if (child.isListed && child.isFollowed)
                child.share = figures;
        });
    }

    void checkFinished()
    {
        const auto isPending = [this](int number) {
            const Child &child = children[number];
            const bool isHandled = child.isDone && child.starts == child.handledStarts;
            return child.isListed && !isHandled && (child.exists || child.isEndReported);
        };
        if (policies.wait == GroupTask::NoWait || std::any_of(list.begin(), list.end(), isPending))
            return;
        cleanup();
        finish(Error());
    }

    void cancel()
    {
        if (state == BaseTask::Finished)
            return;
        stop([](const Child &) { return true; });
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
    QList<int> list; ///< all that were ever listed
    BaseTask::State state = BaseTask::Idle;
    Error error;
    bool isCanceled = false;

private:
    void deliver(const Child &child, const std::function<void()> &call)
    {
        if (child.isListed && child.type == Qt::DirectConnection)
            call();
        else if (child.isListed)
            m_posted.push_back(call);
    }

    void reportEnd(int number)
    {
        Child &child = children[number];
        if (std::exchange(child.isEndReported, true))
            return;
        const auto handle = [this, number, starts = child.starts, use = m_use, outcome = child.error] {
            onFinished(number, starts, use, outcome);
        };
        deliver(child, handle);
    }

    void onStarted(int number, int use)
    {
        children[number].isFollowed = true;
        children[number].isDone = false;
        if (use == m_use && state == BaseTask::Idle)
            state = BaseTask::Running;
    }

    void onFinished(int number, int starts, int use, const Error &outcome)
    {
        Child &child = children[number];
        if (child.starts != starts)
            return;
        setDone(child);
        child.isDeletedLater = !child.isListed;
        if (state == BaseTask::Finished || use != m_use)
            return;
        if (outcome.hasError() && policies.failure == GroupTask::FailFast) {
            finish(outcome);
            stop([](const Child &) { return true; });
            return;
        }
        if (outcome.hasError())
            m_errors.append(outcome);
        if (outcome.hasError() && policies.failure == GroupTask::CancelIdleOnFailure)
            stop([](const Child &other) { return other.state == BaseTask::Idle; });
        checkFinished();
    }

    void setDone(Child &child) const
    {
        child.isDone = true;
        child.handledStarts = child.starts;
        if (policies.cleanup == GroupTask::DeleteWhenFinished)
            child.isListed = false;
    }

    void cleanup()
    {
        for (Child &child : children) {
            if (policies.cleanup == GroupTask::DeleteWithGroup && std::exchange(child.isListed, false))
                child.isDeletedLater = true;
        }
    }

    void stop(const std::function<bool(const Child &)> &isMeant)
    {
        QList<int> meant;
        for (const int number : std::as_const(list)) {
            if (children[number].isListed && children[number].exists && isMeant(children[number]))
                meant.append(number);
        }
        for (const int number : std::as_const(meant)) {
            Child &child = children[number];
            if (policies.stop == GroupTask::CancelSubtasks) {
                end(number, canceledError);
            } else if (std::exchange(child.state, BaseTask::Finished) != BaseTask::Finished) {
                setDone(child);
                child.isDeletedLater = child.isDeletedLater || !child.isListed;
            }
        }
    }

    int m_use = 0; ///< number of the group's run
    QList<Error> m_errors;
    std::deque<std::function<void()>> m_posted;
};

/// A group with children, and the model of both.
class Play {
public:
    Play(int count, const Policies &policies) : m_model(count, policies)
    {
        setPolicies(&m_group, policies);
        for (int number = 0; number < count; ++number)
            m_tasks.append(new Task(Task::Asynchronous, &m_owner));
    }

    /// Does the same to both. What is done to a child that is gone, or to a child after its removal, is left out.
    void perform(const QByteArray &operations, int number)
    {
        for (const char operation : operations) {
            if (!performOnGroup(operation) && m_tasks[number])
                performOnChild(operation, number);
        }
    }

    /// Changes all policies but the wait mode.
    void change(const Policies &policies)
    {
        const auto wait = m_model.policies.wait;
        performOnGroup(wait == GroupTask::NoWait ? 'N' : 'W');
        m_model.policies = policies;
        m_model.policies.wait = GroupTask::NoWait;
        setPolicies(&m_group, m_model.policies);
        performOnGroup(wait == GroupTask::NoWait ? 'N' : 'W');
    }

    /// Empty when group and model agree.
    QString difference() const
    {
        const QString found = describeGroup();
        const QString expected = describeModel();
        return found == expected ? QString() : u"\n  found    "_s + found + u"\n  expected "_s + expected;
    }

private:
    bool performOnGroup(char operation)
    {
        switch (operation) {
        case '.':
            drainEvents();
            m_model.drain();
            return true;
        case 'C':
            m_group.cancel();
            m_model.cancel();
            return true;
        case 'F':
            m_group.finish(Error(ReadError));
            m_model.finish(Error(ReadError));
            return true;
        case 'R':
            m_group.setRunning();
            m_model.restart();
            return true;
        case 'N':
        case 'W':
            m_model.policies.wait = operation == 'W' ? GroupTask::WaitAll : GroupTask::NoWait;
            m_group.setWaitMode(m_model.policies.wait);
            if (m_model.state == BaseTask::Running)
                m_model.checkFinished();
            return true;
        default:
            return false;
        }
    }

    void performOnChild(char operation, int number)
    {
        Task *task = m_tasks[number];
        Model::Child &child = m_model.children[number];
        const Error failure(ErrorCode(UserError + number), u"child %1"_s.arg(number));
        switch (operation) {
        case 'a':
            // One that is about to be deleted would be listed at the mercy of the order of deletions.
            if (child.isDeletedLater)
                break;
            m_group.append(task);
            m_model.append(number);
            break;
        case 's':
            task->exec();
            m_model.start(number);
            break;
        case 'e':
            task->finish();
            m_model.end(number, Error());
            break;
        case 'f':
            task->finish(failure);
            m_model.end(number, failure);
            break;
        case 'c':
            task->cancel();
            m_model.end(number, canceledError);
            break;
        case 'd':
            delete task;
            child.exists = false;
            break;
        case 'p':
            task->pause();
            if (child.state != BaseTask::Paused)
                child.pausedState = std::exchange(child.state, BaseTask::Paused);
            break;
        case 'r':
            task->resume();
            if (child.state == BaseTask::Paused)
                child.state = child.pausedState;
            break;
        case 'g':
            ++m_figure;
            task->setProgress(m_figure, 2 * m_figure);
            m_model.setProgress(number, {m_figure, 2 * m_figure});
            break;
        default:
            qFatal("no such operation: %c", operation);
        }
    }

    QString describeGroup() const
    {
        QStringList parts{describe(m_group.state(), m_group.error(), m_group.isCanceled())};
        parts.append(u"%1/%2"_s.arg(m_group.currentProgress()).arg(m_group.totalProgress()));
        const auto listed = m_group.subtasks();
        for (BaseTask *task : listed)
            parts.append(u"[%1]"_s.arg(task ? m_tasks.indexOf(task) : -1));
        for (const auto &task : m_tasks)
            parts.append(task ? describe(task->state(), task->error()) : u"gone"_s);
        return parts.join(u' ') + u" pending %1"_s.arg(m_group.pendingChildrenCount());
    }

    QString describeModel() const
    {
        QStringList parts{describe(m_model.state, m_model.error, m_model.isCanceled)};
        QPair<int, int> sums;
        int pending = 0;
        for (const int number : m_model.list) {
            const Model::Child &child = m_model.children[number];
            sums = {sums.first + child.share.first, sums.second + child.share.second};
            if (child.isListed)
                parts.append(u"[%1]"_s.arg(child.exists ? number : -1));
            pending += child.isListed && child.exists && child.state != BaseTask::Finished;
        }
        parts.insert(1, u"%1/%2"_s.arg(sums.first).arg(sums.second));
        for (const Model::Child &child : m_model.children)
            parts.append(child.exists ? describe(child.state, child.error) : u"gone"_s);
        return parts.join(u' ') + u" pending %1"_s.arg(pending);
    }

    static QString describe(BaseTask::State state, const Error &error, bool isCanceled = false)
    {
        return QString::number(state) + u' ' + ::describe(error) + (isCanceled ? u" canceled,"_s : u","_s);
    }

    QObject m_owner;
    QList<QPointer<Task>> m_tasks;
    GroupTask m_group;
    Model m_model;
    int m_figure = 0;
};

/// What happens to a child to begin with, then one child after the other, and in the end; see Play::perform().
struct Outcome {
    QByteArray begin;
    QByteArray middle;
    QByteArray end;
};
const std::array outcomes{
    Outcome{"as", "e", ""},   // succeeds
    Outcome{"as", "f", ""},   // fails
    Outcome{"as", "c", ""},   // is canceled
    Outcome{"as", "d", ""},   // is destroyed without finishing
    Outcome{"as", "ed", ""},  // is gone before the group handles its success
    Outcome{"as", "fd", ""},  // is gone before the group handles its failure
    Outcome{"as", "fs", "e"}, // starts again before the group handles its failure
    Outcome{"a", "", ""},     // is never started
    Outcome{"fa", "", ""},    // had failed before it was appended
    Outcome{"fas", "", "e"},  // the same, and starts again before the group handles that
};

/// Asynchronous tasks: each runs until the test ends it. Names are letters, so that logs stay short.
class Bench {
public:
    explicit Bench(const Policies &policies = {}) : group(new GroupTask)
    {
        group->setName(u"g"_s);
        setPolicies(group, policies);
    }
    ~Bench() { delete group; }

    Task *task(const QString &name)
    {
        auto *task = new Task(Task::Asynchronous, &owner);
        task->setName(name);
        log.watch(task, name);
        return task;
    }
    Task *child(const QString &name)
    {
        Task *appended = task(name);
        group->append(appended);
        return appended;
    }
    Task *running(const QString &name)
    {
        Task *appended = child(name);
        appended->exec();
        return appended;
    }
    GroupTask *nested(const QString &name, const QList<BaseTask *> &members, const Policies &policies = {})
    {
        auto *nestedGroup = new GroupTask(&owner);
        nestedGroup->setName(name);
        setPolicies(nestedGroup, policies);
        nestedGroup->append(members);
        log.watch(nestedGroup, name);
        return nestedGroup;
    }

    QList<QPointer<Task>> tasks() const
    {
        const auto found = owner.findChildren<Task *>();
        return {found.cbegin(), found.cend()};
    }

    QObject owner;
    EventLog log;
    QPointer<GroupTask> group;
};

/// Shows what a group keeps for those that derive from it.
class DerivedGroup : public GroupTask {
public:
    using GroupTask::execTask;
    std::function<Error(const Error &)> change;

protected:
    Error unifiedError() const override
    {
        return change ? change(GroupTask::unifiedError()) : GroupTask::unifiedError();
    }
};

/// A complex task whose subtasks are those that it is given.
class Job : public ComplexTask {
public:
    using ComplexTask::appendSubtask;
    using ComplexTask::ComplexTask;
    using ComplexTask::groupTask;
};

/// A thread with an event loop.
class Loop {
public:
    Loop()
    {
        m_context.moveToThread(&m_thread);
        m_thread.start();
    }
    ~Loop()
    {
        m_thread.quit();
        m_thread.wait();
    }
    void post(const std::function<void()> &call) { QMetaObject::invokeMethod(&m_context, call, Qt::QueuedConnection); }
    void call(const std::function<void()> &call)
    {
        QMetaObject::invokeMethod(&m_context, call, Qt::BlockingQueuedConnection);
    }
    QThread *thread() { return &m_thread; }

private:
    QThread m_thread;
    QObject m_context;
};

QCoro::Task<Error> completeAtOnce(Error error)
{
    co_return error;
}

QCoro::Task<Error> await(BaseTask *task)
{
    co_return co_await task;
}

QCoro::Task<> awaitInto(BaseTask *task, QString *outcome)
{
    *outcome = describe(co_await task);
}

using Operation = std::function<void(Bench &bench)>;

/// Performs the operation on a group that runs, with the reaction at the event of that number; returns how many came.
int playWithReaction(Bench &bench, const Policies &policies, const Operation &operation, int index,
                     const Operation &reaction)
{
    bench.group->setObjectName(u"g"_s);
    bench.group->setParent(&bench.owner);
    for (const auto &name : {u"a"_s, u"b"_s, u"c"_s})
        bench.running(name)->setObjectName(name);
    GroupTask *inner = bench.nested(u"n"_s, {bench.task(u"d"_s)}, policies);
    inner->setObjectName(u"n"_s);
    bench.group->append(inner);
    drainEvents();
    bench.log.take();
    bench.log.watch(bench.group, u"g"_s);
    bench.log.keepOnly({u"canceled"_s, u"errorChanged"_s, u"finalizing"_s, u"finished"_s, u"progress"_s,
                        u"stateChanged"_s, u"started"_s});
    bench.log.at(index, [&] { reaction(bench); });
    operation(bench);
    drainEvents();
    return int(bench.log.events().size());
}

QStringList names(const QList<BaseTask *> &tasks)
{
    QStringList result;
    for (const BaseTask *task : tasks)
        result.append(task ? task->name() : u"-"_s);
    return result;
}

} // namespace

class GroupTaskTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { failOnQtWarnings(); }

    // --- Outcomes --------------------------------------------------------------------------------------------------

    void outcomesFollowThePolicies_data()
    {
        QTest::addColumn<Policies>("policies");
        const char *const failureNames[] = {"fail fast", "continue", "cancel idle"};
        const char *const cleanupNames[] = {"delete with group", "delete finished", "self delete"};
        for (int row = 0; row < 2 * 3 * 3 * 2 * 2; ++row) {
            const bool waits = row % 2;
            const int failure = row / 2 % 3;
            const int cleanup = row / 6 % 3;
            const bool quiet = row / 18 % 2;
            const bool direct = row / 36;
            QTest::addRow("%s, %s, %s, %s, %s", waits ? "wait" : "no wait", failureNames[failure],
                          cleanupNames[cleanup], quiet ? "quiet" : "cancel", direct ? "direct" : "queued")
                << Policies{GroupTask::WaitMode(waits), GroupTask::ChildFailurePolicy(failure),
                            GroupTask::CleanupPolicy(cleanup), GroupTask::CancelSubtasksMode(quiet),
                            direct ? Qt::DirectConnection : Qt::QueuedConnection};
        }
    }

    void outcomesFollowThePolicies()
    {
        QFETCH(Policies, policies);
        // Two children with all outcomes, and a third one with each of them in turn.
        constexpr int kinds = int(outcomes.size());
        for (int combination = 0; combination < 3 * kinds * kinds; ++combination) {
            const std::array children{combination % kinds, combination / kinds % kinds, combination * 3 / 7 % kinds};
            const QByteArray pause(combination / kinds % 2, '.');
            Play play(3, policies);
            QString difference;
            const auto perform = [&](QByteArray Outcome::*part, const QByteArray &after) {
                for (int number = 0; number < 3; ++number)
                    play.perform(outcomes[children[number]].*part + after, number);
                play.perform(".", 0);
                difference += play.difference();
            };
            perform(&Outcome::begin, pause);
            perform(&Outcome::middle, pause);
            perform(&Outcome::end, "C");
            QVERIFY2(difference.isEmpty(), qPrintable(u"%1"_s.arg(combination) + difference));
        }
    }

    void anySequenceOfOperationsFollowsTheModel()
    {
        for (unsigned seed = 0; seed < 1000; ++seed) {
            std::mt19937 random(seed);
            const auto below = [&](int limit) { return int(random() % unsigned(limit)); };
            const auto randomPolicies = [&] {
                return Policies{GroupTask::WaitMode(below(4) > 0), GroupTask::ChildFailurePolicy(below(3)),
                                GroupTask::CleanupPolicy(below(3)), GroupTask::CancelSubtasksMode(below(2)),
                                below(2) ? Qt::QueuedConnection : Qt::DirectConnection};
            };
            Play play(6, randomPolicies());
            for (int step = 0; step < 60; ++step) {
                if (below(20) == 0)
                    play.change(randomPolicies());
                constexpr char operations[] = "aaaaaaaaaassssssssssseeeeeeffffffcccppprrrdggg......CFRNW";
                const QByteArray operation(1, operations[below(sizeof(operations) - 1)]);
                const int child = below(6);
                play.perform(operation, child);
                const QString difference = play.difference();
                QVERIFY2(difference.isEmpty(),
                         qPrintable(u"seed %1, step %2, child %3: "_s.arg(seed).arg(step).arg(child)
                                    + QString::fromLatin1(operation) + difference));
            }
        }
    }

    void ordinaryLifeInOrder()
    {
        Bench bench;
        bench.log.watch(bench.group, u"g"_s);
        Task *a = bench.child(u"a"_s);
        Task *b = bench.child(u"b"_s);
        QCOMPARE(bench.log.take(), u"g:progress(0,0) g:progress(0,0)"_s);
        a->exec();
        drainEvents();
        QCOMPARE(bench.log.take(), u"a:stateChanged(Running) a:started g:stateChanged(Running) g:started"_s);
        a->finish();
        b->exec();
        bench.log.take();
        b->finish();
        QCOMPARE(bench.log.take(),
                 u"b:errorChanged(NoError) b:stateChanged(Finalizing) b:finalizing b:stateChanged(Finished) "
                 "b:finished"_s);
        QVERIFY(bench.group->isRunning());
        drainEvents();
        QCOMPARE(bench.log.take(),
                 u"g:errorChanged(NoError) g:stateChanged(Finalizing) g:finalizing g:stateChanged(Finished) g:finished "
                 "a:aboutToDestroy b:aboutToDestroy"_s);
    }

    void unknownPoliciesLeaveChildrenAlone()
    {
        Bench bench({.failure = GroupTask::ChildFailurePolicy(9), .stop = GroupTask::CancelSubtasksMode(9)});
        Task *a = bench.running(u"a"_s);
        Task *b = bench.running(u"b"_s);
        a->finish(Error(UserError));
        drainEvents();
        QVERIFY(!bench.group->isFinished());
        bench.group->cancel();
        QVERIFY(b->isRunning());
        QCOMPARE(bench.group->error(), canceledError);
        bench.group->setRunning();
        bench.group->setWaitMode(GroupTask::WaitMode(9)); // like WaitAll
        QVERIFY(!bench.group->isFinished());
        b->finish();
        drainEvents();
        QVERIFY(bench.group->isSuccessful());
        QVERIFY(bench.group->isEmpty());
    }

    void errorsAreUnified()
    {
        const Error disk(WriteError, u"disk full"_s);
        DerivedGroup group;
        group.setChildFailurePolicy(GroupTask::ContinueOnFailure);
        std::array<Task, 4> tasks;
        for (Task &task : tasks)
            group.append(&task);
        group.setCleanupPolicy(GroupTask::SelfDelete);
        // Equal ones collapse, cancellations beside others are left out.
        tasks[0].finish(disk);
        tasks[1].finish(disk);
        tasks[2].cancel();
        tasks[3].finish();
        Error seen;
        group.change = [&](const Error &error) {
            seen = error;
            return Error(ReadError);
        };
        drainEvents();
        QCOMPARE(seen, disk);
        QCOMPARE(group.error(), Error(ReadError));
    }

    // --- Membership ------------------------------------------------------------------------------------------------

    void subtasksAreListedByMode()
    {
        Bench bench;
        Task *a = bench.child(u"a"_s);
        GroupTask *inner = bench.nested(u"n"_s, {bench.task(u"b"_s), bench.task(u"c"_s)});
        bench.group->append(inner);
        Job job(u"job"_s);
        job.appendSubtask(bench.task(u"d"_s));
        bench.group->append(&job);

        const auto listed = [&](GroupTask::GetSubtasksModes mode) {
            return names(bench.group->subtasks(mode)).join(u' ');
        };
        QCOMPARE(listed({}), u"a n job"_s);
        QCOMPARE(listed(GroupTask::Recursive), u"a n b c job"_s);
        QCOMPARE(listed(GroupTask::GetSubtasksMode::Executable), u"a job"_s);
        QCOMPARE(listed(GroupTask::Executable | GroupTask::GetSubtasksMode::Recursive), u"a b c job"_s);
        QCOMPARE(bench.group->executableSubtasks(), QList<Task *>({a, &job}));
        QCOMPARE(bench.group->executableSubtasks(true).size(), 4);

        delete a;
        QCOMPARE(listed({}), u"- n job"_s);
        QCOMPARE(listed(GroupTask::Executable), u"job"_s);
        QCOMPARE(bench.group->pendingChildrenCount(), 2);
        bench.group->setCleanupPolicy(GroupTask::SelfDelete);
    }

    void subtasksModeIsAScopedFlag()
    {
        const QMetaObject &meta = GroupTask::staticMetaObject;
        const QMetaEnum modes = meta.enumerator(meta.indexOfEnumerator("GetSubtasksMode"));
        QVERIFY(modes.isValid() && modes.isFlag() && modes.isScoped());
        QCOMPARE(modes.valueToKeys(3), QByteArray("Recursive|Executable"));
    }

    void refusedTasksAreEnded()
    {
        Bench bench;
        Task *a = bench.child(u"a"_s);
        int appended = 0;
        connect(bench.group, &GroupTask::taskAppended, this, [&] { ++appended; });
        bench.group->append(a);
        bench.group->append(static_cast<BaseTask *>(nullptr));
        bench.group->append(QList<BaseTask *>{nullptr, a, nullptr});
        QCOMPARE(names(bench.group->subtasks()), QStringList{u"a"_s});

        bench.group->finish();
        QCOMPARE(bench.child(u"b"_s)->error(), lateError);
        bench.group->setRunning();
        bench.group->cancel();
        QCOMPARE(bench.child(u"c"_s)->error(), canceledError);
        // Canceled comes first, also when a unified error stands in its place.
        bench.group->setRunning();
        bench.group->setCanceled(true);
        Task *d = bench.child(u"d"_s);
        QCOMPARE(d->error(), canceledError);
        QCOMPARE(appended, 0);
    }

    void circlesAreRefused()
    {
        Bench bench;
        LogCapture log;
        GroupTask *inner = bench.nested(u"n"_s, {});
        GroupTask *innermost = bench.nested(u"m"_s, {});
        bench.group->append(inner);
        inner->append(innermost);
        bench.group->append(bench.group);
        innermost->append(bench.group);
        innermost->append(inner);
        QCOMPARE(log.takeWarnings(),
                 QStringList({u"Task \"g\" cannot be a child of group \"g\" which it is or contains"_s,
                              u"Task \"g\" cannot be a child of group \"m\" which it is or contains"_s,
                              u"Task \"n\" cannot be a child of group \"m\" which it is or contains"_s}));
        QVERIFY(innermost->isEmpty());

        // The way back is free once the child was let go of.
        inner->setCleanupPolicy(GroupTask::DeleteWhenFinished);
        innermost->setFinished();
        Job job(u"job"_s);
        job.appendSubtask(&job);
        QCOMPARE(log.takeWarnings(),
                 QStringList{u"Task \"job\" cannot be a child of group \"job:GroupTask\" which it is or contains"_s});
        bench.group->append(&job);
        job.groupTask()->append(bench.group);
        QCOMPARE(log.takeWarnings(),
                 QStringList{u"Task \"g\" cannot be a child of group \"job:GroupTask\" which it is or contains"_s});
        job.cancel();
        QVERIFY(job.isFinished());
    }

    // It was in the list, was removed, and is saved from deletion.
    void readmittedChildReplacesItsShare()
    {
        Bench bench({.wait = GroupTask::NoWait});
        Task *a = bench.running(u"a"_s);
        a->setProgress(30, 40);
        a->finish();
        QCoreApplication::sendPostedEvents(bench.group);
        QVERIFY(bench.group->isEmpty());
        QCoreApplication::removePostedEvents(a, QEvent::DeferredDelete);
        a->setProgress(50, 60); // nobody listens
        a->setIdle();
        drainEvents();
        QCOMPARE(bench.group->totalProgress(), 40);

        bench.group->append(a);
        QCOMPARE(bench.group->currentProgress(), 50);
        int emissions = 0;
        connect(bench.group, &BaseTask::progress, this, [&] { ++emissions; });
        a->setProgress(55, 60);
        drainEvents();
        QCOMPARE(emissions, 1);
        QCOMPARE(bench.group->currentProgress(), 55);
        QCOMPARE(bench.group->totalProgress(), 60);
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
        QCOMPARE(group.currentProgress(), 6);
        QCOMPARE(names(group.subtasks()), QStringList({u"-"_s, u"-"_s, u"-"_s}));
    }

    void deletionIsTakenOver()
    {
        Bench bench({.cleanup = GroupTask::SelfDelete});
        const QPointer<Task> a = bench.child(u"a"_s);
        const QPointer<Task> b = bench.child(u"b"_s);
        a->setDeleteOnFinished(true);
        a->finish();
        drainEvents();
        QVERIFY(!a);
        b->setDeleteOnFinished(true);
        bench.group->setCleanupPolicy(GroupTask::DeleteWithGroup);
        b->finish();
        QVERIFY(!b->deleteOnFinished());
        bench.group->setCleanupPolicy(GroupTask::SelfDelete);
        QVERIFY(!b->deleteOnFinished());
    }

    void destroyedGroupDeletesItsChildrenByPolicy()
    {
        for (const auto cleanup : {GroupTask::DeleteWithGroup, GroupTask::DeleteWhenFinished, GroupTask::SelfDelete}) {
            Bench bench({.cleanup = cleanup});
            const QPointer<Task> a = bench.running(u"a"_s);
            delete bench.group;
            a->finish();
            drainEvents();
            QCOMPARE(a.isNull(), cleanup == GroupTask::DeleteWithGroup);
        }
    }

    // --- Progress --------------------------------------------------------------------------------------------------

    void sumsWrap()
    {
        Bench bench;
        Task *a = bench.child(u"a"_s);
        Task *b = bench.child(u"b"_s);
        constexpr int most = std::numeric_limits<int>::max();
        a->setProgress(most, most);
        b->setProgress(1, most);
        drainEvents();
        QCOMPARE(bench.group->currentProgress(), std::numeric_limits<int>::min());
        QCOMPARE(bench.group->totalProgress(), -2);
        a->setProgress(-5, most);
        drainEvents();
        QCOMPARE(bench.group->currentProgress(), -4);
    }

    void zeroTotalIsNotedOnce()
    {
        const QString expected = u"debug Task \"a\" has zero maximum progress. This may lead to inconsistent progress "
                                 "reporting, and it usually indicates that the progress reporting for the current "
                                 "GroupTask \"g\" should be reworked"_s;
        Bench bench;
        LogCapture log;
        Task *a = bench.child(u"a"_s);
        Task *b = bench.child(u"b"_s);
        b->setProgress(1, 1);
        a->setProgress(1, 0);
        b->setProgress(1, 0);
        drainEvents();
        QCOMPARE(log.take(), QStringList{expected});
        {
            Bench silent;
            Task *c = silent.child(u"c"_s);
            QLoggingCategory::setFilterRules(u"zel.tasks.debug=false"_s);
            c->setProgress(1, 0);
            drainEvents();
            QLoggingCategory::setFilterRules(u"zel.tasks=true"_s);
            c->setProgress(1, 0);
            drainEvents();
            QCOMPARE(log.take(), QStringList());
        }
    }

    // --- Stopping --------------------------------------------------------------------------------------------------

    void cancelStopsEveryChild()
    {
        for (const auto mode : {GroupTask::CancelSubtasks, GroupTask::FinishSubtasks}) {
            const bool isQuiet = mode == GroupTask::FinishSubtasks;
            Bench bench({.cleanup = GroupTask::SelfDelete, .stop = mode});
            bench.running(u"a"_s);
            Task *b = bench.child(u"b"_s);
            bench.running(u"c"_s)->finish();
            bench.log.watch(bench.group, u"g"_s);
            bench.log.keepOnly({u"finished"_s, u"finalizing"_s, u"canceled"_s});
            drainEvents();
            bench.log.take();
            LogCapture log;
            bench.group->cancel();
            // Idle ones first when it is done quietly: a queue that runs the others has nothing left to start.
            QCOMPARE(bench.log.take(),
                     isQuiet ? u"b:finalizing a:finalizing g:canceled g:finalizing g:finished"_s
                             : u"a:canceled a:finalizing a:finished b:canceled b:finalizing b:finished "
                               "g:canceled g:finalizing g:finished"_s);
            QCOMPARE(
                log.take().filter(u"Cancelling"_s),
                isQuiet
                    ? QStringList({u"debug Cancelling child task \"b\""_s, u"debug Cancelling child task \"a\""_s})
                    : QStringList({u"debug Cancelling child task \"a\""_s, u"debug Cancelling child task \"b\""_s}));
            QCOMPARE(b->error(), isQuiet ? Error() : canceledError);
            QCOMPARE(bench.group->error(), canceledError);
            bench.group->cancel();
            QCOMPARE(log.take(), QStringList());
        }
    }

    void stoppedChildrenLeaveTheirQueues_data()
    {
        QTest::addColumn<Qt::ConnectionType>("type");
        QTest::addColumn<GroupTask::CancelSubtasksMode>("mode");
        QTest::newRow("quiet, queued") << Qt::QueuedConnection << GroupTask::FinishSubtasks;
        QTest::newRow("quiet, direct") << Qt::DirectConnection << GroupTask::FinishSubtasks;
        QTest::newRow("cancel, queued") << Qt::QueuedConnection << GroupTask::CancelSubtasks;
        QTest::newRow("cancel, direct") << Qt::DirectConnection << GroupTask::CancelSubtasks;
    }

    void stoppedChildrenLeaveTheirQueues()
    {
        QFETCH(Qt::ConnectionType, type);
        QFETCH(GroupTask::CancelSubtasksMode, mode);
        const Policies policies{.stop = mode};
        TasksQueue queue;
        queue.setMaxRunningTasksCount(1);
        queue.setConnectionType(type);
        Bench bench(policies);
        Task *a = bench.child(u"a"_s);
        Task *b = bench.child(u"b"_s);
        Task *c = bench.task(u"c"_s);
        Task *d = bench.task(u"d"_s);
        Task *stranger = bench.task(u"x"_s);
        bench.group->append(bench.nested(u"n"_s, {c}, policies));
        auto *job = new Job(u"job"_s, &bench.owner);
        job->appendSubtask(d);
        bench.group->append(job);
        queue.append(QList<Task *>{a, b, c, d, stranger});
        drainEvents();
        bench.log.take();
        bench.log.keepOnly({u"started"_s});

        bench.group->cancel();
        QVERIFY(a->isFinished() && b->isFinished() && c->isFinished() && d->isFinished() && job->isFinished());
        QCOMPARE(bench.log.take(), QString());
        drainEvents();
        QCOMPARE(bench.log.take(), u"x:started"_s);
        QCOMPARE(queue.pendingTasksCount(), 0);
        QCOMPARE(queue.runningTasksCount(), 1);
    }

    // The queue dispatches in a thread of its own, which could be quicker than the one that stops.
    void noSiblingStartsWhileNestedOnesAreStopped()
    {
        for (const auto mode : {GroupTask::CancelSubtasks, GroupTask::FinishSubtasks}) {
            const Policies policies{.stop = mode};
            Loop loop;
            Bench bench(policies);
            TasksQueue *queue = nullptr;
            loop.call([&] { queue = new TasksQueue; });
            queue->setMaxRunningTasksCount(1);
            queue->setConnectionType(Qt::DirectConnection);
            Task *a = bench.task(u"a"_s);
            Task *b = bench.task(u"b"_s);
            GroupTask *first = bench.nested(u"m"_s, {a}, policies);
            Task *running = bench.task(u"c"_s);
            bench.group->append({first, bench.nested(u"n"_s, {b, running}, policies)});
            queue->append(QList<Task *>{a, b});
            running->exec();
            drainEvents();
            bench.log.take();
            bench.log.keepOnly({u"b:started"_s});
            connect(
                first, &BaseTask::finalizing, this, [&] { loop.call([] {}); }, Qt::DirectConnection);
            bench.group->cancel();
            loop.call([queue] { delete queue; });
            QCOMPARE(bench.log.take(), QString());
        }
    }

    void waitersOfQuietlyStoppedChildrenAreWoken()
    {
        Bench bench;
        Task *a = bench.running(u"a"_s);
        Task *b = bench.running(u"b"_s);
        GroupTask *inner = bench.nested(u"n"_s, {b});
        bench.group->append(inner);
        QString outcomes[3];
        QString *outcome = outcomes;
        for (BaseTask *awaited : QList<BaseTask *>{a, b, inner})
            awaitInto(awaited, outcome++);
        QMetaObject::invokeMethod(
            this, [&] { bench.group->cancel(); }, Qt::QueuedConnection);
        QCOMPARE(describe(b->waitForFinished(30'000)), u"no error"_s);
        drainEvents();
        for (const QString &each : outcomes)
            QCOMPARE(each, u"no error"_s);
    }

    // "The first that is ready stops the others": each end cancels the group, which ends the next one.
    void childrenThatCancelTheirGroupDoNotRecurse()
    {
        constexpr int count = 10'000;
        Bench bench({.stop = GroupTask::CancelSubtasks});
        QList<BaseTask *> tasks;
        int depth = 0;
        int deepest = 0;
        for (int number = 0; number < count; ++number) {
            tasks.append(new Task(Task::Asynchronous, &bench.owner));
            connect(tasks.last(), &BaseTask::finished, bench.group, [&] {
                deepest = qMax(deepest, ++depth);
                bench.group->cancel();
                --depth;
            });
        }
        bench.group->append(tasks);
        tasks[count / 2]->finish();
        QVERIFY(bench.group->isFinished());
        for (const BaseTask *task : std::as_const(tasks))
            QVERIFY(task->isFinished());
        QCOMPARE_LE(deepest, 3);
    }

    // --- Handlers --------------------------------------------------------------------------------------------------

    void handlersMayChangeTheGroup()
    {
        Bench bench({.type = Qt::DirectConnection});
        Task *b = bench.task(u"b"_s);
        Task *c = bench.task(u"c"_s);
        connect(bench.group, &GroupTask::taskAppended, this, [&, added = false](BaseTask *) mutable {
            if (!std::exchange(added, true))
                bench.group->append(b);
        });
        Task *a = bench.task(u"a"_s);
        // The end of the last one brings another one.
        connect(a, &BaseTask::finished, this, [&] { bench.group->append(c); });
        bench.group->append(a);
        QCOMPARE(names(bench.group->subtasks()), QStringList({u"a"_s, u"b"_s}));

        b->finish();
        a->finish();
        QVERIFY(!bench.group->isFinished());
        connect(c, &BaseTask::finished, this, [&] {
            bench.group->setChildFailurePolicy(GroupTask::ContinueOnFailure);
            bench.group->setWaitMode(GroupTask::NoWait);
        });
        c->exec();
        c->finish(Error(UserError)); // handled by the group before the policies change
        QCOMPARE(bench.group->error(), Error(UserError));
    }

    void childMayEndWhileItIsAppended()
    {
        for (const auto type : {Qt::QueuedConnection, Qt::DirectConnection}) {
            Bench bench({.type = type});
            connect(bench.group, &GroupTask::taskAppended, this,
                    [](BaseTask *task) { task->finish(Error(UserError)); });
            bench.child(u"a"_s);
            drainEvents();
            QCOMPARE(bench.group->error(), Error(UserError));
            QVERIFY(bench.group->isEmpty());
        }
        Bench bench;
        connect(bench.group, &GroupTask::taskAppended, bench.group, &GroupTask::cancel);
        Task *a = bench.child(u"a"_s);
        QVERIFY(a->isFinished() && bench.group->isEmpty());
    }

    void anythingMayHappenInHandlers_data()
    {
        const std::pair<const char *, Operation> operations[] = {
            {"cancel", [](Bench &bench) { bench.group->cancel(); }},
            {"failure",
             [](Bench &bench) {
                 if (auto *a = bench.owner.findChild<Task *>(u"a"_s))
                     a->finish(Error(UserError));
             }},
            {"last end",
             [](Bench &bench) {
                 for (const QPointer<Task> &task : bench.tasks()) {
                     if (task)
                         task->finish();
                 }
             }},
            {"progress",
             [](Bench &bench) {
                 if (auto *a = bench.owner.findChild<Task *>(u"a"_s))
                     a->setProgress(1, 2);
             }},
            {"append",
             [](Bench &bench) {
                 bench.group->append({bench.task(u"y"_s), bench.task(u"z"_s)});
             }},
            {"wait mode",
             [](Bench &bench) {
                 for (const QPointer<Task> &task : bench.tasks()) {
                     if (task)
                         task->setFinished();
                 }
                 if (bench.group)
                     bench.group->setWaitMode(GroupTask::NoWait);
                 if (bench.group)
                     bench.group->setWaitMode(GroupTask::WaitAll);
             }},
        };
        const auto deletion = [](const QString &name) {
            return [name](Bench &bench) { delete bench.owner.findChild<BaseTask *>(name); };
        };
        const std::pair<const char *, Operation> reactions[] = {
            {"group is deleted", deletion(u"g"_s)},
            {"a is deleted", deletion(u"a"_s)},
            {"b is deleted", deletion(u"b"_s)},
            {"nested is deleted", deletion(u"n"_s)},
            {"cancel", [](Bench &bench) { bench.group->cancel(); }},
            {"append", [](Bench &bench) { bench.child(u"x"_s); }},
            {"change",
             [](Bench &bench) {
                 setPolicies(bench.group,
                             {GroupTask::WaitAll, GroupTask::ContinueOnFailure, GroupTask::DeleteWithGroup,
                              GroupTask::CancelSubtasks, Qt::DirectConnection});
             }},
            {"restart", [](Bench &bench) { bench.group->setRunning(); }},
        };
        QTest::addColumn<Operation>("operation");
        QTest::addColumn<Operation>("reaction");
        for (const auto &[name, operation] : operations) {
            for (const auto &[reactionName, reaction] : reactions)
                QTest::addRow("%s, %s", name, reactionName) << operation << reaction;
        }
    }

    void anythingMayHappenInHandlers()
    {
        QFETCH(Operation, operation);
        QFETCH(Operation, reaction);
        for (int variant = 0; variant < 24; ++variant) {
            const Policies policies{GroupTask::WaitAll, GroupTask::ChildFailurePolicy(variant / 8),
                                    GroupTask::CleanupPolicy(variant / 2 % 2),
                                    GroupTask::CancelSubtasksMode(variant / 4 % 2),
                                    variant % 2 ? Qt::DirectConnection : Qt::QueuedConnection};
            for (int index = 0, events = 1; index < events; ++index) {
                Bench bench(policies);
                events = playWithReaction(bench, policies, operation, index, reaction);
                if (!bench.group)
                    continue;
                bench.group->cancel();
                for (const BaseTask *task : bench.group->subtasks())
                    QVERIFY(!task || task->isFinished() || task->name() == u"x"_s);
            }
        }
    }

    // --- Coroutines ------------------------------------------------------------------------------------------------

    void coroutinesAreChildren()
    {
        for (const auto cleanup : {GroupTask::DeleteWithGroup, GroupTask::DeleteWhenFinished, GroupTask::SelfDelete}) {
            Bench bench({.failure = GroupTask::ContinueOnFailure, .cleanup = cleanup});
            Task *awaited = bench.task(u"a"_s);
            bench.group->append(await(awaited));
            bench.group->append(completeAtOnce(Error(ReadError)));
            const QList<QPointer<BaseTask>> wrappers{bench.group->subtasks()[0], bench.group->subtasks()[1]};
            QVERIFY(wrappers[0]->isRunning() && wrappers[1]->isFinished());
            QCOMPARE(wrappers[0]->deleteOnFinished(), cleanup == GroupTask::SelfDelete);
            drainEvents();
            QVERIFY(!bench.group->isFinished());
            awaited->finish();
            drainEvents();
            QCOMPARE(bench.group->error(), Error(ReadError));
            QVERIFY(!wrappers[0] && !wrappers[1]);
        }
    }

    // Whatever the policy: nobody else knows the task that the group has made.
    void refusedCoroutinesLeaveNothingBehind()
    {
        for (const auto cleanup : {GroupTask::DeleteWithGroup, GroupTask::DeleteWhenFinished, GroupTask::SelfDelete}) {
            Bench bench({.cleanup = cleanup});
            LogCapture log;
            Task *awaited = bench.task(u"a"_s);
            bench.group->finish();
            bench.group->append(await(awaited));
            bench.group->append(completeAtOnce(Error()));
            bench.group->setRunning();
            bench.group->cancel();
            bench.group->append(await(awaited));
            bench.group->append(completeAtOnce(Error()));
            QVERIFY(bench.group->isEmpty());
            awaited->finish();
            drainEvents();
            QCOMPARE(log.take().count(u"debug Deleting \"\""_s), 4);
        }
    }

    // --- Running ---------------------------------------------------------------------------------------------------

    void execTaskUsesTheQueue()
    {
        DerivedGroup group;
        Task a([] { return Error(UserError); });
        group.execTask(&a);
        QCOMPARE(a.error(), Error(UserError));
        TasksQueue queue;
        queue.pause();
        group.setQueue(&queue);
        Task b;
        group.execTask(&b);
        QCOMPARE(queue.pendingTasksCount(), 1);
        QVERIFY(group.isEmpty());
    }

    // --- Threads ---------------------------------------------------------------------------------------------------

    void childrenOfOtherThreadsReportEverything()
    {
        constexpr int count = 200;
        Loop loops[2];
        Bench bench({.failure = GroupTask::ContinueOnFailure});
        QStringList failures;
        for (int number = 0; number < count; ++number) {
            auto *task = new Task(Task::Asynchronous);
            task->moveToThread(loops[number % 2].thread());
            bench.group->append(task);
            if (number % 3 == 0)
                failures.append(u"%1"_s.arg(number, 3, 10, QChar(u'0')));
        }
        const auto tasks = bench.group->executableSubtasks();
        for (int number = 0; number < count; ++number) {
            loops[number % 2].post([task = tasks[number], number] {
                task->exec();
                task->setProgress(number, number);
                task->finish(number % 3 ? Error() : Error(UserError, u"%1"_s.arg(number, 3, 10, QChar(u'0'))));
                // Gone before the group looks: neither its end nor its error is lost.
                if (number % 2)
                    delete task;
            });
        }
        QTRY_VERIFY_WITH_TIMEOUT(bench.group->isFinished(), 30'000);
        QCOMPARE(bench.group->error(), Error(UserError, failures.join(u'\n')));
        QCOMPARE(bench.group->totalProgress(), count * (count - 1) / 2);
    }

    void groupMayBeDestroyedWhileOtherThreadsReport()
    {
        Loop loops[2];
        for (int round = 0; round < 50; ++round) {
            std::atomic<bool> goesOn = true;
            QList<Task *> tasks;
            auto *group = new GroupTask;
            group->setCleanupPolicy(GroupTask::SelfDelete);
            group->setWaitMode(GroupTask::NoWait);
            Gate gate;
            for (Loop &loop : loops) {
                auto *task = new Task(Task::Asynchronous);
                task->moveToThread(loop.thread());
                group->append(task);
                tasks.append(task);
                loop.post([task, &goesOn, &gate] {
                    for (int run = 0; goesOn; ++run) {
                        task->exec();
                        task->setProgress(run, run);
                        task->finish();
                        if (run == 3)
                            gate.arrive();
                    }
                });
            }
            const bool hasBegun = gate.waitForArrival();
            drainEvents();
            delete group;
            goesOn = false;
            for (int number = 0; number < tasks.size(); ++number)
                loops[number].call([task = tasks[number]] { delete task; });
            drainEvents();
            QVERIFY(hasBegun);
        }
    }

    // One thread asks the outer group for everything while another appends to the inner one.
    void groupsAreLockedFromTheOutsideInwards()
    {
        GroupTask outer;
        GroupTask inner;
        outer.append(&inner);
        inner.setCleanupPolicy(GroupTask::SelfDelete);
        outer.setCleanupPolicy(GroupTask::SelfDelete);
        QObject owner;
        QList<BaseTask *> tasks;
        for (int number = 0; number < 2'000; ++number)
            tasks.append(number % 2 ? static_cast<BaseTask *>(new Task(&owner)) : new GroupTask(&owner));
        Loop loop;
        std::atomic<bool> isDone = false;
        loop.post([&] {
            for (BaseTask *task : std::as_const(tasks))
                inner.append(task);
            isDone = true;
        });
        qsizetype seen = 0;
        while (!isDone)
            seen = outer.subtasks(GroupTask::Recursive).size();
        QCOMPARE_LE(seen, tasks.size() + 1);
        QCOMPARE(outer.subtasks(GroupTask::Recursive).size(), tasks.size() + 1);
    }

    void tenThousandChildrenAtOnce()
    {
        constexpr int count = 10'000;
        for (const auto cleanup : {GroupTask::DeleteWithGroup, GroupTask::DeleteWhenFinished, GroupTask::SelfDelete}) {
            Bench bench({.failure = GroupTask::ContinueOnFailure, .cleanup = cleanup});
            QList<BaseTask *> tasks;
            for (int number = 0; number < count; ++number)
                tasks.append(new Task(Task::Asynchronous, &bench.owner));
            bench.group->append(tasks);
            for (BaseTask *task : std::as_const(tasks)) {
                task->setRunning();
                task->setProgress(1, 1);
                task->finish(Error(ReadError));
            }
            drainEvents();
            QCOMPARE(bench.group->error(), Error(ReadError));
            QCOMPARE(bench.group->totalProgress(), count);
            QCOMPARE(bench.owner.children().size(), cleanup == GroupTask::SelfDelete ? count : 0);
        }
    }
};

QTEST_GUILESS_MAIN(GroupTaskTest)
#include "tst_grouptask.moc"
