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
        int stay = -1;
    };
    /// Of a child in the list.
    struct Stay {
        int child;
        Qt::ConnectionType type;
        bool isListed = true;
        bool isDone = false;
        bool hasShare = true;
        bool isEndReported = false;
        int starts = 0;
        int handledStarts = 0;
    };

    Model(int count, const Policies &initial) : policies(initial), children(count), m_shares(count) { }

    void append(int number)
    {
        Child &child = children[number];
        if (child.stay >= 0 && m_stays[child.stay].isListed)
            return;
        if (isCanceled)
            return end(number, canceledError);
        if (state == BaseTask::Finished)
            return end(number, lateError);
        child.stay = int(m_stays.size());
        m_stays.push_back({number, policies.type});
        if (child.state == BaseTask::Finished) {
            m_stays.back().hasShare = false;
            return reportEnd(child.stay);
        }
        m_shares[number] = child.figures;
        publish();
    }

    void start(int number)
    {
        Child &child = children[number];
        const BaseTask::State left = std::exchange(child.state, BaseTask::Running);
        if ((left != BaseTask::Idle && left != BaseTask::Finished) || !isWatched(child))
            return;
        Stay &stay = m_stays[child.stay];
        ++stay.starts;
        stay.isEndReported = false;
        deliver(stay.type, [this, index = child.stay, use = m_use] { onStarted(index, use); });
    }

    void end(int number, const Error &outcome)
    {
        Child &child = children[number];
        if (child.state == BaseTask::Finished)
            return;
        child.error = outcome;
        child.state = BaseTask::Finished;
        if (isWatched(child))
            reportEnd(child.stay);
    }

    void pause(int number)
    {
        Child &child = children[number];
        if (child.state != BaseTask::Paused)
            child.pausedState = std::exchange(child.state, BaseTask::Paused);
    }

    void resume(int number)
    {
        Child &child = children[number];
        if (child.state == BaseTask::Paused)
            child.state = child.pausedState;
    }

    void setProgress(int number, int value, int total)
    {
        Child &child = children[number];
        child.figures = {value, total};
        if (isWatched(child))
            deliver(m_stays[child.stay].type, [=, this, index = child.stay] { onProgress(index, value, total); });
    }

    void destroy(int number) { children[number].exists = false; }

    void setWaitMode(GroupTask::WaitMode mode)
    {
        policies.wait = mode;
        if (state == BaseTask::Running)
            checkFinished();
    }

    void cancel()
    {
        if (state == BaseTask::Finished)
            return;
        stopWhere([](BaseTask::State) { return true; });
        finish(canceledError);
        cleanup();
    }

    void finish(const Error &given)
    {
        if (state == BaseTask::Finished)
            return;
        error = given;
        if (const Error unified = UnifiedError::computeUnifiedError({m_errors.begin(), m_errors.end()});
            unified.hasError())
            error = unified;
        isCanceled = given.equals(Canceled) || error.equals(Canceled) || (isCanceled && given.hasError());
        state = BaseTask::Finished;
    }

    void restart()
    {
        if (state == BaseTask::Finished) {
            isCanceled = false;
            ++m_use;
        }
        state = BaseTask::Running;
    }

    void drain()
    {
        for (; !m_posted.empty(); m_posted.pop_front())
            m_posted.front()();
        for (Child &child : children)
            child.exists = child.exists && !child.isDeletedLater;
    }

    QList<int> listed() const
    {
        QList<int> numbers;
        for (const Stay &stay : m_stays) {
            if (stay.isListed)
                numbers.append(children[stay.child].exists ? stay.child : -1);
        }
        return numbers;
    }

    Policies policies;
    std::vector<Child> children;
    BaseTask::State state = BaseTask::Idle;
    Error error;
    bool isCanceled = false;
    QPair<int, int> progress;

private:
    bool isWatched(const Child &child) const { return child.stay >= 0 && m_stays[child.stay].isListed; }

    void deliver(Qt::ConnectionType type, const std::function<void()> &call)
    {
        if (type == Qt::DirectConnection)
            call();
        else
            m_posted.push_back(call);
    }

    void reportEnd(int index)
    {
        Stay &stay = m_stays[index];
        if (std::exchange(stay.isEndReported, true))
            return;
        const auto handle = [this, index, starts = stay.starts, use = m_use, outcome = children[stay.child].error] {
            onFinished(index, starts, use, outcome);
        };
        deliver(stay.type, handle);
    }

    void onStarted(int index, int use)
    {
        m_stays[index].hasShare = true;
        if (m_stays[index].isListed)
            m_stays[index].isDone = false;
        if (use == m_use && state == BaseTask::Idle)
            state = BaseTask::Running;
    }

    void onFinished(int index, int starts, int use, const Error &outcome)
    {
        Stay &stay = m_stays[index];
        if (stay.starts != starts)
            return;
        stay.isDone = true;
        stay.handledStarts = starts;
        if (policies.cleanup == GroupTask::DeleteWhenFinished)
            stay.isListed = false;
        Child &child = children[stay.child];
        if (!stay.isListed)
            child.isDeletedLater = true;
        if (state == BaseTask::Finished || use != m_use)
            return;
        if (outcome.hasError() && policies.failure == GroupTask::FailFast) {
            finish(outcome);
            stopWhere([](BaseTask::State) { return true; });
            return;
        }
        if (outcome.hasError())
            m_errors.push_back(outcome);
        if (outcome.hasError() && policies.failure == GroupTask::CancelIdleOnFailure)
            stopWhere([](BaseTask::State at) { return at == BaseTask::Idle; });
        checkFinished();
    }

    void onProgress(int index, int value, int total)
    {
        if (!m_stays[index].isListed || !m_stays[index].hasShare)
            return;
        m_shares[m_stays[index].child] = {value, total};
        publish();
    }

    void publish()
    {
        progress = {};
        for (const auto &[value, total] : m_shares)
            progress = {progress.first + value, progress.second + total};
    }

    void checkFinished()
    {
        const auto isPending = [this](const Stay &stay) {
            const bool isHandled = stay.isDone && stay.starts == stay.handledStarts;
            return stay.isListed && !isHandled && (children[stay.child].exists || stay.isEndReported);
        };
        if (policies.wait == GroupTask::NoWait || std::any_of(m_stays.begin(), m_stays.end(), isPending))
            return;
        cleanup();
        finish(Error());
    }

    void cleanup()
    {
        if (policies.cleanup != GroupTask::DeleteWithGroup)
            return;
        for (Stay &stay : m_stays) {
            if (std::exchange(stay.isListed, false))
                children[stay.child].isDeletedLater = true;
        }
    }

    void stopWhere(const std::function<bool(BaseTask::State)> &isMeant)
    {
        const std::vector<Stay> copy = m_stays;
        for (size_t index = 0; index < copy.size(); ++index) {
            const Child &child = children[copy[index].child];
            if (copy[index].isListed && child.exists && child.state != BaseTask::Finished && isMeant(child.state))
                stop(int(index));
        }
    }

    void stop(int index)
    {
        Child &child = children[m_stays[index].child];
        if (policies.stop == GroupTask::CancelSubtasks)
            return end(m_stays[index].child, canceledError);
        child.state = BaseTask::Finished;
        m_stays[index].isDone = true;
        m_stays[index].handledStarts = m_stays[index].starts;
        if (policies.cleanup == GroupTask::DeleteWhenFinished && m_stays[index].isListed) {
            m_stays[index].isListed = false;
            child.isDeletedLater = true;
        }
    }

    int m_use = 0; ///< of the group, by its runs
    std::vector<QPair<int, int>> m_shares;
    std::vector<Stay> m_stays;
    std::vector<Error> m_errors;
    std::deque<std::function<void()>> m_posted;
};

/// A group with children, and the model of both: whatever is done is done to both.
class Play {
public:
    Play(int count, const Policies &policies) : m_model(count, policies)
    {
        m_group.setWaitMode(policies.wait);
        m_group.setChildFailurePolicy(policies.failure);
        m_group.setCleanupPolicy(policies.cleanup);
        m_group.setCancelSubtasksMode(policies.stop);
        m_group.setConnectionType(policies.type);
        for (int number = 0; number < count; ++number)
            m_tasks.append(new Task(Task::Asynchronous, &m_owner));
    }

    int count() const { return int(m_tasks.size()); }
    bool exists(int number) const { return m_tasks[number]; }
    bool isDeletedLater(int number) const { return m_model.children[number].isDeletedLater; }

    void append(int number) { both([&] { m_group.append(m_tasks[number]); }, [&] { m_model.append(number); }); }
    void start(int number) { both([&] { m_tasks[number]->exec(); }, [&] { m_model.start(number); }); }
    void succeed(int number) { end(number, Error()); }
    void fail(int number) { end(number, Error(ErrorCode(UserError + number), u"child %1"_s.arg(number))); }
    void cancel(int number)
    {
        both([&] { m_tasks[number]->cancel(); }, [&] { m_model.end(number, canceledError); });
    }
    void pause(int number) { both([&] { m_tasks[number]->pause(); }, [&] { m_model.pause(number); }); }
    void resume(int number) { both([&] { m_tasks[number]->resume(); }, [&] { m_model.resume(number); }); }
    void destroy(int number) { both([&] { delete m_tasks[number]; }, [&] { m_model.destroy(number); }); }
    void setProgress(int number, int value, int total)
    {
        both([&] { m_tasks[number]->setProgress(value, total); }, [&] { m_model.setProgress(number, value, total); });
    }

    void setWaitMode(GroupTask::WaitMode mode)
    {
        both([&] { m_group.setWaitMode(mode); }, [&] { m_model.setWaitMode(mode); });
    }
    void setPolicies(const Policies &policies)
    {
        m_group.setChildFailurePolicy(policies.failure);
        m_group.setCleanupPolicy(policies.cleanup);
        m_group.setCancelSubtasksMode(policies.stop);
        m_group.setConnectionType(policies.type);
        m_model.policies = {m_model.policies.wait, policies.failure, policies.cleanup, policies.stop, policies.type};
    }
    void cancelGroup() { both([&] { m_group.cancel(); }, [&] { m_model.cancel(); }); }
    void finishGroup(const Error &error)
    {
        both([&] { m_group.finish(error); }, [&] { m_model.finish(error); });
    }
    void restartGroup() { both([&] { m_group.setRunning(); }, [&] { m_model.restart(); }); }
    void drain() { both(drainEvents, [&] { m_model.drain(); }); }

    /// Empty when group and model agree.
    QString difference() const
    {
        const QString found = describeGroup();
        const QString expected = describeModel();
        return found == expected ? QString() : u"\n  found    "_s + found + u"\n  expected "_s + expected;
    }


    void end(int number, const Error &error)
    {
        both([&] { m_tasks[number]->finish(error); }, [&] { m_model.end(number, error); });
    }
    static void both(const std::function<void()> &real, const std::function<void()> &modelled)
    {
        real();
        modelled();
    }

    QString describeGroup() const
    {
        QStringList parts{state(m_group.state(), m_group.error(), m_group.isCanceled(),
                                {m_group.currentProgress(), m_group.totalProgress()})};
        const auto listed = m_group.subtasks();
        for (BaseTask *task : listed)
            parts.append(u"[%1]"_s.arg(task ? m_tasks.indexOf(task) : -1));
        for (const auto &task : m_tasks)
            parts.append(task ? state(task->state(), task->error()) : u"gone"_s);
        return parts.join(u' ') + u" pending %1"_s.arg(m_group.pendingChildrenCount());
    }

    QString describeModel() const
    {
        QStringList parts{state(m_model.state, m_model.error, m_model.isCanceled, m_model.progress)};
        int pending = 0;
        for (const int number : m_model.listed()) {
            parts.append(u"[%1]"_s.arg(number));
            pending += number >= 0 && m_model.children[number].state != BaseTask::Finished;
        }
        for (const Model::Child &child : m_model.children)
            parts.append(child.exists ? state(child.state, child.error) : u"gone"_s);
        return parts.join(u' ') + u" pending %1"_s.arg(pending);
    }

    static QString state(BaseTask::State state, const Error &error, bool isCanceled = false,
                         const QPair<int, int> &progress = {})
    {
        return u"%1 %2%3 %4/%5;"_s.arg(state).arg(describe(error), isCanceled ? u" canceled"_s : QString())
            .arg(progress.first).arg(progress.second);
    }

    QObject m_owner;
    QList<QPointer<Task>> m_tasks;
    GroupTask m_group;
    Model m_model;
};

/// Outcomes of a child: what happens before it is appended, while it is in the group, and after the others' ends.
enum Outcome : char {
    Succeeds = 's',
    Fails = 'f',
    IsCanceled = 'c',
    IsDestroyed = 'd',         ///< without finishing
    VanishesAfterSuccess = 'v', ///< destroyed right after finished()
    VanishesAfterFailure = 'w',
    RestartsAfterFailure = 'r', ///< before the group has handled its end
    StaysIdle = 'i',
    HadFailed = 'h',   ///< before it was appended
    HadRestarted = 'j' ///< had failed before it was appended, starts again before the group has handled that
};
constexpr char allOutcomes[] = "sfcdvwrihj";

void beginChild(Play &play, int number, char outcome)
{
    const bool hadFailed = outcome == HadFailed || outcome == HadRestarted;
    if (hadFailed)
        play.fail(number);
    play.append(number);
    if (outcome != StaysIdle && outcome != HadFailed)
        play.start(number);
}

void endChild(Play &play, int number, char outcome)
{
    switch (outcome) {
    case Succeeds:
    case VanishesAfterSuccess:
        play.succeed(number);
        break;
    case Fails:
    case VanishesAfterFailure:
    case RestartsAfterFailure:
        play.fail(number);
        break;
    case IsCanceled:
        play.cancel(number);
        break;
    default:
        break;
    }
    if (outcome == IsDestroyed || outcome == VanishesAfterSuccess || outcome == VanishesAfterFailure)
        play.destroy(number);
    if (outcome == RestartsAfterFailure)
        play.start(number);
}

/// Plays the outcomes, one letter a child, and returns what differs from the model.
QString playOutcomes(const Policies &policies, const QByteArray &outcomes, bool drainsBetween)
{
    Play play(int(outcomes.size()), policies);
    QString difference;
    const auto look = [&](bool isDue) {
        if (!isDue)
            return;
        play.drain();
        if (difference.isEmpty())
            difference = play.difference();
    };
    for (int number = 0; number < play.count(); ++number) {
        beginChild(play, number, outcomes[number]);
        look(drainsBetween);
    }
    for (int number = 0; number < play.count(); ++number) {
        if (play.exists(number))
            endChild(play, number, outcomes[number]);
        look(drainsBetween);
    }
    look(true);
    for (int number = 0; number < play.count(); ++number) {
        if (play.exists(number) && (outcomes[number] == RestartsAfterFailure || outcomes[number] == HadRestarted))
            play.succeed(number);
    }
    look(true);
    play.cancelGroup();
    look(true);
    return difference;
}

/// Random operations, always the same ones for the same seed.
QString playAtRandom(unsigned seed)
{
    std::mt19937 random(seed);
    const auto below = [&](int limit) { return int(random() % unsigned(limit)); };
    const auto randomPolicies = [&] {
        return Policies{GroupTask::WaitMode(below(4) > 0), GroupTask::ChildFailurePolicy(below(3)),
                        GroupTask::CleanupPolicy(below(3)), GroupTask::CancelSubtasksMode(below(2)),
                        below(2) ? Qt::QueuedConnection : Qt::DirectConnection};
    };
    Play play(6, randomPolicies());
    for (int step = 0; step < 60; ++step) {
        const int child = below(play.count());
        const int operation = below(100);
        if (qEnvironmentVariableIntValue("SEED") == int(seed) && seed) qInfo() << "OP" << step << operation << child << play.describeGroup();
        if (operation < 12) {
            play.drain();
        } else if (operation < 16) {
            play.setPolicies(randomPolicies());
        } else if (operation < 18) {
            play.setWaitMode(GroupTask::WaitMode(below(2)));
        } else if (operation < 19) {
            play.cancelGroup();
        } else if (operation < 20) {
            play.finishGroup(below(2) ? Error() : Error(UserError));
        } else if (operation < 22) {
            play.restartGroup();
        } else if (!play.exists(child)) {
            continue;
        } else if (operation < 40) {
            // One that is about to be deleted would be listed at the mercy of the order of deletions.
            if (!play.isDeletedLater(child))
                play.append(child);
        } else if (operation < 60) {
            play.start(child);
        } else if (operation < 70) {
            play.succeed(child);
        } else if (operation < 78) {
            play.fail(child);
        } else if (operation < 82) {
            play.cancel(child);
        } else if (operation < 86) {
            play.pause(child);
        } else if (operation < 90) {
            play.resume(child);
        } else if (operation < 92) {
            play.destroy(child);
        } else {
            play.setProgress(child, below(100), below(100));
        }
        if (const QString difference = play.difference(); !difference.isEmpty())
            return u"step %1, operation %2 on child %3"_s.arg(step).arg(operation).arg(child) + difference;
    }
    return QString();
}


/// Asynchronous tasks: each runs until the test ends it. Names are letters, so that logs stay short.
class Bench {
public:
    explicit Bench(const Policies &policies = {}) : group(new GroupTask)
    {
        group->setName(u"g"_s);
        setPolicies(group, policies);
    }
    ~Bench() { delete group; }

    static void setPolicies(GroupTask *group, const Policies &policies)
    {
        group->setWaitMode(policies.wait);
        group->setChildFailurePolicy(policies.failure);
        group->setCleanupPolicy(policies.cleanup);
        group->setCancelSubtasksMode(policies.stop);
        group->setConnectionType(policies.type);
    }

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
    Error unifiedError() const override { return change ? change(GroupTask::unifiedError()) : GroupTask::unifiedError(); }
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

QStringList names(const QList<BaseTask *> &tasks)
{
    QStringList result;
    for (const BaseTask *task : tasks)
        result.append(task ? task->name() : u"-"_s);
    return result;
}

using Operation = std::function<void(Bench &bench)>;

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
        constexpr int kinds = sizeof(allOutcomes) - 1;
        for (int combination = 0; combination < kinds * kinds * kinds; ++combination) {
            const QByteArray outcomes = QByteArray(1, allOutcomes[combination % kinds])
                + allOutcomes[combination / kinds % kinds] + allOutcomes[combination / kinds / kinds];
            const bool drainsBetween = combination % 2;
            const QString difference = playOutcomes(policies, outcomes, drainsBetween);
            QVERIFY2(difference.isEmpty(), qPrintable(QString::fromLatin1(outcomes) + difference));
        }
    }

    void anySequenceOfOperationsFollowsTheModel()
    {
        for (unsigned seed = 0; seed < unsigned(qEnvironmentVariableIntValue("SEEDS")); ++seed) {
            const QString difference = playAtRandom(seed);
            QVERIFY2(difference.isEmpty(), qPrintable(u"seed %1, "_s.arg(seed) + difference));
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

    // Those that were running when they were appended have emitted started() before anybody listened.
    void runningChildDoesNotMakeTheGroupRun()
    {
        Bench bench;
        Task *a = bench.task(u"a"_s);
        a->exec();
        bench.group->append(a);
        drainEvents();
        QVERIFY(bench.group->isIdle());
        a->finish();
        drainEvents();
        QVERIFY(bench.group->isSuccessful());
    }

    void waitModeOfARunningGroupCanEndIt()
    {
        Bench bench({.wait = GroupTask::NoWait});
        Task *a = bench.running(u"a"_s);
        drainEvents();
        bench.group->setWaitMode(GroupTask::WaitAll);
        QVERIFY(bench.group->isRunning());
        bench.group->setWaitMode(GroupTask::NoWait);
        a->finish();
        drainEvents();
        QVERIFY(bench.group->isRunning());
        bench.group->setWaitMode(GroupTask::WaitMode(7)); // any value but 0 waits
        QVERIFY(bench.group->isSuccessful());
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

    void collectedErrorsReplaceTheGivenOne()
    {
        Bench bench({.failure = GroupTask::ContinueOnFailure});
        Task *a = bench.running(u"a"_s);
        Task *b = bench.running(u"b"_s);
        a->finish(Error(ReadError));
        drainEvents();
        bench.group->setChildFailurePolicy(GroupTask::FailFast);
        b->finish(Error(WriteError));
        drainEvents();
        QCOMPARE(bench.group->error(), Error(ReadError));
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

        const auto listed = [&](GroupTask::GetSubtasksModes mode) { return names(bench.group->subtasks(mode)).join(u' '); };
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

    void emptyMeansWithoutEntries()
    {
        Bench bench;
        QVERIFY(bench.group->isEmpty());
        delete bench.child(u"a"_s);
        QVERIFY(!bench.group->isEmpty());
        drainEvents();
        QVERIFY(!bench.group->isFinished()); // nothing tells it
        bench.group->setRunning();
        bench.group->setWaitMode(GroupTask::WaitAll);
        QVERIFY(bench.group->isSuccessful());
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

    // The group gets to know of a late end, and of an end that was over when the child came; neither is the present one.
    void restartedChildIsWaitedFor()
    {
        Bench bench({.cleanup = GroupTask::SelfDelete});
        Task *a = bench.running(u"a"_s);
        Task *b = bench.running(u"b"_s);
        b->finish();
        drainEvents();
        a->finish();
        b->exec(); // before the end of a was handled
        drainEvents();
        QVERIFY(bench.group->isRunning());
        b->finish(Error(UserError));
        drainEvents();
        QCOMPARE(bench.group->error(), Error(UserError));
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

    void progressIsTheSumOfTheChildren()
    {
        Bench bench;
        bench.log.watch(bench.group, u"g"_s);
        bench.log.keepOnly({u"g:progress"_s});
        Task *a = bench.task(u"a"_s);
        Task *b = bench.task(u"b"_s);
        Task *over = bench.task(u"c"_s);
        a->setProgress(0, 100);
        b->setProgress(0, 50);
        over->setProgress(5, 5);
        over->finish();
        bench.group->append({a, b, over});
        a->setProgress(40, 100);
        b->setProgress(50, 50);
        b->setProgress(50, 50);
        a->setProgress(60, 200);
        over->setProgress(7, 7);
        b->finish(); // and is removed
        drainEvents();
        QCOMPARE(bench.log.take(),
                 u"g:progress(0,100) g:progress(0,150) g:progress(40,150) g:progress(90,150) g:progress(90,150) "
                 "g:progress(110,250)"_s);
    }

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
            QCOMPARE(log.take().filter(u"Cancelling"_s),
                     isQuiet ? QStringList({u"debug Cancelling child task \"b\""_s, u"debug Cancelling child task \"a\""_s})
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
            connect(first, &BaseTask::finalizing, this, [&] { loop.call([] {}); }, Qt::DirectConnection);
            bench.group->cancel();
            loop.call([queue] { delete queue; });
            QCOMPARE(bench.log.take(), QString());
        }
    }

    void idleOnesAreStoppedOnFailure()
    {
        Bench bench({.failure = GroupTask::CancelIdleOnFailure, .stop = GroupTask::CancelSubtasks});
        Task *a = bench.running(u"a"_s);
        Task *b = bench.running(u"b"_s);
        Task *c = bench.child(u"c"_s);
        Task *d = bench.child(u"d"_s);
        d->pause();
        drainEvents();
        a->finish(Error(ReadError));
        QCoreApplication::sendPostedEvents(bench.group);
        QCOMPARE(c->error(), canceledError);
        QVERIFY(b->isRunning() && d->isPaused());
        d->resume();
        QVERIFY(d->isIdle());
        b->finish(Error(ReadError));
        QCoreApplication::sendPostedEvents(bench.group);
        QCOMPARE(d->error(), canceledError);
        drainEvents();
        QCOMPARE(bench.group->error(), Error(ReadError));
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
        QMetaObject::invokeMethod(this, [&] { bench.group->cancel(); }, Qt::QueuedConnection);
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
            connect(bench.group, &GroupTask::taskAppended, this, [](BaseTask *task) { task->finish(Error(UserError)); });
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

    void anythingMayBeDeletedInHandlers_data()
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
                 for (const QPointer<Task> task : bench.owner.findChildren<Task *>()) {
                     if (task)
                         task->finish();
                 }
             }},
            {"progress",
             [](Bench &bench) {
                 if (auto *a = bench.owner.findChild<Task *>(u"a"_s))
                     a->setProgress(1, 2);
             }},
            {"append", [](Bench &bench) { bench.group->append({bench.task(u"y"_s), bench.task(u"z"_s)}); }},
            {"wait mode",
             [](Bench &bench) {
                 for (const QPointer<Task> task : bench.owner.findChildren<Task *>()) {
                     if (task)
                         task->setFinished();
                 }
                 if (bench.group)
                     bench.group->setWaitMode(GroupTask::NoWait);
                 if (bench.group)
                     bench.group->setWaitMode(GroupTask::WaitAll);
             }},
        };
        QTest::addColumn<Operation>("operation");
        QTest::addColumn<QString>("victim");
        QTest::addColumn<Policies>("policies");
        for (const auto &[name, operation] : operations) {
            for (const char *const victim : {"g", "a", "b", "n"}) {
                for (int variant = 0; variant < 24; ++variant) {
                    const Policies policies{GroupTask::WaitAll, GroupTask::ChildFailurePolicy(variant / 8),
                                            GroupTask::CleanupPolicy(variant / 2 % 2),
                                            GroupTask::CancelSubtasksMode(variant / 4 % 2),
                                            variant % 2 ? Qt::DirectConnection : Qt::QueuedConnection};
                    QTest::addRow("%s, %s is deleted, %d", name, victim, variant)
                        << operation << QString::fromLatin1(victim) << policies;
                }
            }
        }
    }

    void anythingMayBeDeletedInHandlers()
    {
        QFETCH(Operation, operation);
        QFETCH(QString, victim);
        QFETCH(Policies, policies);
        for (int index = 0, events = 1; index < events; ++index) {
            Bench bench(policies);
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
            bench.log.at(index, [&] { delete bench.owner.findChild<BaseTask *>(victim); });
            operation(bench);
            drainEvents();
            events = int(bench.log.events().size());
            if (!bench.group)
                continue;
            bench.group->cancel();
            for (const BaseTask *task : bench.group->subtasks())
                QVERIFY(!task || task->isFinished());
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
