#include "TaskLife.h"

#include "Departure.h"
#include "GroupChild.h"
#include "GroupLocker.h"
#include "Interleaving.h"
#include "TasksLog.h"

#include <QThread>

#include <utility>

namespace zel {

namespace {

// The visits of this thread, innermost first.
thread_local TaskVisit *innermostVisit = nullptr;

} // namespace

quint64 TaskLife::claimStart(bool isToBeIdle)
{
    interleavingPoint("claim start");
    const QMutexLocker locker(&m_mutex);
    if (!task() || m_claim != 0 || isEnding() || (isToBeIdle && m_state != BaseTask::Idle))
        return 0;
    m_claimedRun = m_run;
    const quint64 claim = ++m_lastNumber;
    m_claim.store(claim, std::memory_order_release);
    return claim;
}

void TaskLife::releaseStart(quint64 claim)
{
    const QMutexLocker locker(&m_mutex);
    if (claim != 0 && m_claim == claim)
        m_claim.store(0, std::memory_order_release);
}

std::optional<TaskLife::Change> TaskLife::begin(quint64 claim, quint64 seenRun)
{
    interleavingPoint("begin");
    const QMutexLocker locker(&m_mutex);
    if (!task() || m_claim != claim)
        return {};
    if (claim != 0)
        m_claim.store(0, std::memory_order_release);
    const bool isMeant = m_run == (claim != 0 ? m_claimedRun : seenRun);
    const bool isStart = m_state == BaseTask::Idle || m_state == BaseTask::Finished;
    if (!isMeant || (isStart && isEnding()))
        return {};
    return move(BaseTask::Running, Plainly);
}

quint64 TaskLife::claimEnd(std::optional<quint64> meantRun, const Error *error)
{
    interleavingPoint("claim end");
    const QMutexLocker locker(&m_mutex);
    if (!task() || m_state == BaseTask::Finished || isEnding() || (meantRun && m_run != meantRun))
        return 0;
    m_endingRun = m_run.load();
    if (error)
        task()->storeError(*error);
    return m_run;
}

void TaskLife::releaseEnd(quint64 run)
{
    const QMutexLocker locker(&m_mutex);
    if (m_endingRun == run)
        m_endingRun.store(0, std::memory_order_release);
}

std::optional<TaskLife::Change> TaskLife::complete(quint64 run, Followers *followers)
{
    interleavingPoint("complete");
    const QMutexLocker locker(&m_mutex);
    if (!isIn(run))
        return {};
    if (followers)
        copyFollowers(*followers);
    return move(BaseTask::Finished, followers ? Announced : Quietly);
}

bool TaskLife::storeError(quint64 run, const Error &error)
{
    const QMutexLocker locker(&m_mutex);
    if (!isIn(run))
        return false;
    task()->storeError(error);
    return true;
}

std::optional<TaskLife::Change> TaskLife::change(State state, std::optional<quint64> expectedRun)
{
    interleavingPoint("change state");
    const QMutexLocker locker(&m_mutex);
    if (expectedRun && m_run != expectedRun)
        return {};
    return move(state, Plainly);
}

bool TaskLife::setCanceled(quint64 run)
{
    const QMutexLocker locker(&m_mutex);
    if (!isIn(run))
        return false;
    task()->ErrorCancelable::setCanceled(true);
    return true;
}

bool TaskLife::holdsStart(quint64 claim) const
{
    const QMutexLocker locker(&m_mutex);
    return task() && m_claim == claim && m_run == m_claimedRun && m_state == BaseTask::Idle && !isEnding();
}

quint64 TaskLife::endedRun() const
{
    const QMutexLocker locker(&m_mutex);
    if (m_state == BaseTask::Finished)
        return m_run;
    return m_state == BaseTask::Paused && m_pausedState == BaseTask::Finished ? m_endedRun : 0;
}

TaskLife::State TaskLife::pausedState() const
{
    const QMutexLocker locker(&m_mutex);
    return m_pausedState;
}

// The only place where the state and the number of the run change.
TaskLife::Change TaskLife::move(State state, How how)
{
    const State left = m_state;
    const bool isResumed = how == Plainly && left == BaseTask::Paused && m_pausedState == state;
    const bool begins = state == BaseTask::Running && (left == BaseTask::Idle || left == BaseTask::Finished);
    const bool isReset = state == BaseTask::Idle && left != BaseTask::Idle && !isResumed;
    const bool isReached = state == BaseTask::Finished && left != BaseTask::Finished;
    // While finish() is at work, it says itself when the run is over.
    const bool isLeftToFinish = how == Plainly && isEnding();
    const bool ends = how != Plainly || (isReached && !isResumed && !isLeftToFinish);
    // What belongs to the end before, or to one that is abandoned here.
    if ((begins || isReset) && (left == BaseTask::Finished || isEnding()) && task())
        task()->ErrorCancelable::setCanceled(false);
    quint64 run = m_run;
    if (isResumed && state == BaseTask::Finished) {
        run = m_endedRun;
    } else if (begins || isReset || ends) {
        run = ++m_lastNumber;
        m_endingRun.store(0, std::memory_order_release);
    } else if (state == BaseTask::Paused && left == BaseTask::Finished) {
        // It can be ended once more, unless it is resumed first.
        m_endedRun = run;
        run = ++m_lastNumber;
    }
    if (state == BaseTask::Paused && left != BaseTask::Paused)
        m_pausedState = left;
    m_previousState.store(left, std::memory_order_release);
    m_run.store(run, std::memory_order_release);
    m_state.store(state, std::memory_order_release);
    return {left, run, isReset, isReached && how != Announced && !isLeftToFinish};
}

void TaskLife::addFollower(const std::shared_ptr<GroupChild> &child)
{
    const QMutexLocker locker(&m_mutex);
    std::shared_ptr<GroupChild> *last = &m_followers;
    while (*last)
        last = &(*last)->nextFollower;
    *last = child;
    m_hasFollowers = true;
}

void TaskLife::removeFollower(const GroupChild *child)
{
    std::shared_ptr<GroupChild> held;
    const QMutexLocker locker(&m_mutex);
    std::shared_ptr<GroupChild> *place = &m_followers;
    while (*place && place->get() != child)
        place = &(*place)->nextFollower;
    if (!*place)
        return;
    held = std::move(*place);
    *place = std::move(held->nextFollower);
    m_hasFollowers = bool(m_followers);
}

TaskLife::Followers TaskLife::followers() const
{
    Followers all;
    if (!m_hasFollowers)
        return all;
    const QMutexLocker locker(&m_mutex);
    copyFollowers(all);
    return all;
}

void TaskLife::copyFollowers(Followers &all) const
{
    for (const std::shared_ptr<GroupChild> *child = &m_followers; *child; child = &(*child)->nextFollower)
        all.append(*child);
}

void TaskLife::retire()
{
    if (m_isRetired)
        return;
    interleavingPoint("retire");
    const QMutexLocker locker(&m_mutex);
    m_destroyer = QThread::currentThreadId();
    m_isRetired = true;
}

// Followers hold on to the life of their task.
void TaskLife::setDestroyed()
{
    m_isDestroyed.store(true, std::memory_order_release);
    for (const auto &child : followers())
        removeFollower(child.get());
}

bool TaskLife::isWholeHere() const
{
    return m_isWhole && m_destroyer == QThread::currentThreadId();
}

void TaskLife::waitForVisitors(const BaseTask *task) const
{
    waitUntilAlone(TaskVisit::Operation, task);
}

void TaskLife::waitForWorkers(const BaseTask *task) const
{
    waitUntilAlone(TaskVisit::Work, task);
}

void TaskLife::waitUntilAlone(size_t kind, const BaseTask *task) const
{
    interleavingPoint("wait for visitors");
    const std::atomic<int> &visits = m_visits.at(kind);
    if (visits == 0)
        return;
    const int own = TaskVisit::countOnThisThread(this, kind);
    if (visits == own)
        return;
    const QString name = task->name();
#ifndef QT_NO_DEBUG
    if (m_isRetired && GroupLocker::isAnyHeld())
        qFatal("Task \"%s\" is destroyed in a handler of a group's signal while another thread is at work with it: use "
               "deleteLater() there",
               qUtf8Printable(name));
#endif
    ++m_waiting;
    departure::wait([&visits, own] { return visits == own; },
                    [&name] { qCWarning(tasksLog) << "Still waiting for the work of task" << name << "to return"; });
    --m_waiting;
}

void TaskLife::add(TaskWatcher *watcher)
{
    watcher->m_next = nullptr;
    TaskWatcher *const last = m_lastWatcher;
    watcher->m_previous = last;
    if (last)
        last->m_next = watcher;
    else
        m_watchers = watcher;
    m_lastWatcher = watcher;
    watcher->m_isListed = true;
    if (watcher->m_isToldLast)
        ++m_toBeToldLast;
}

void TaskLife::remove(TaskWatcher *watcher)
{
    if (!std::exchange(watcher->m_isListed, false))
        return;
    if (watcher->m_isToldLast)
        --m_toBeToldLast;
    if (watcher->m_previous)
        watcher->m_previous->m_next = watcher->m_next;
    else
        m_watchers = watcher->m_next;
    (watcher->m_next ? watcher->m_next->m_previous : m_lastWatcher) = watcher->m_previous;
}

void TaskLife::notifyEnded(const BaseTask *task, bool isAnnounced)
{
    for (TaskWatcher *watcher = m_watchers; watcher; watcher = watcher->m_next)
        watcher->onEnded(task, isAnnounced);
}

void TaskLife::notifyAnnounced(const BaseTask *task)
{
    for (TaskWatcher *watcher = m_watchers; watcher; watcher = watcher->m_next)
        watcher->onAnnounced(task);
}

void TaskLife::notifyDestroyed(const BaseTask *task, const Error &error)
{
    for (TaskWatcher *watcher = m_watchers; watcher; watcher = watcher->m_next)
        watcher->onDestroyed(task, error);
}

TaskVisit::TaskVisit(const std::shared_ptr<TaskLife> &life, Kind kind)
    : m_life(life)
    , m_kind(kind)
    , m_isInside(true)
    , m_outer(std::exchange(innermostVisit, this))
{
    ++m_life->m_visits[kind];
    m_task = m_life->task();
    if (!m_task)
        leave();
}

TaskVisit::~TaskVisit()
{
    // Most often the innermost one; a visit that is handed over ends in another order.
    TaskVisit **link = &innermostVisit;
    while (*link != this)
        link = &(*link)->m_outer;
    *link = m_outer;
    leave();
}

void TaskVisit::leave()
{
    if (!std::exchange(m_isInside, false))
        return;
    interleavingPoint("leave");
    --m_life->m_visits[m_kind];
    // A waiting thread says so before it looks at the count.
    if (m_life->isAwaited())
        departure::announce();
}

void TaskVisit::leaveWork(const TaskLife *life)
{
    for (TaskVisit *visit = innermostVisit; visit; visit = visit->m_outer) {
        if (visit->m_kind == Work && visit->m_life.get() == life)
            visit->leave();
    }
}

const TaskVisit *TaskVisit::endingOf(const TaskLife *life)
{
    const TaskVisit *visit = innermostVisit;
    while (visit && (visit->m_endedRun == 0 || visit->m_life.get() != life))
        visit = visit->m_outer;
    return visit;
}

int TaskVisit::countOnThisThread(const TaskLife *life, size_t kind)
{
    int count = 0;
    for (const TaskVisit *visit = innermostVisit; visit; visit = visit->m_outer)
        count += visit->m_isInside && visit->m_kind == kind && visit->m_life.get() == life;
    return count;
}

} // namespace zel
