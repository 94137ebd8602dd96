#include <zel/tasks/BaseTask.h>

#include "BaseTask_p.h"
#include "GroupChild.h"
#include "Interleaving.h"
#include "Task_p.h"
#include "TasksLog.h"
#include "TasksQueueShare.h"

#include <zel/common/ProgressBarOutputInterface.h>
#include <zel/tasks/ComplexTask.h>
#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>
#include <QMetaEnum>
#include <QScopeGuard>
#include <QSet>
#include <QThread>

#include <utility>

namespace zel {

namespace {

const char *stateKey(BaseTask::State state)
{
    return QMetaEnum::fromType<BaseTask::State>().valueToKey(state);
}

// Whether what happens to target reaches task through bind().
bool follows(const BaseTask *task, const BaseTask *target, const auto &sourcesOf)
{
    QSet<const BaseTask *> seen;
    QList<const BaseTask *> open{task};
    while (!open.isEmpty()) {
        const BaseTask *current = open.takeLast();
        if (current == target)
            return true;
        if (!current || seen.contains(current))
            continue;
        seen.insert(current);
        for (const QPointer<const BaseTask> &source : sourcesOf(current))
            open.append(source);
    }
    return false;
}

// Operations invoked by name find their argument types by the names that the signatures spell.
void registerMetaTypes()
{
    qRegisterMetaType<std::chrono::milliseconds>("std::chrono::milliseconds");
    // A queue spells its own alike; both are an int.
    qRegisterMetaType<BaseTask::State>("State");
}
Q_CONSTRUCTOR_FUNCTION(registerMetaTypes)

} // namespace

BaseTask::Private::Private(BaseTask *task) : QObject(task), q(task), life(std::make_shared<TaskLife>(task)) { }

BaseTask::Private::~Private() = default;

Task *BaseTask::Private::executableOf(BaseTask *task)
{
    const bool isExecutable = task && (task->d->kind == Executable || task->d->kind == Complex);
    return isExecutable ? static_cast<Task *>(task) : nullptr;
}

ComplexTask *BaseTask::Private::complexOf(BaseTask *task)
{
    return task && task->d->kind == Complex ? static_cast<ComplexTask *>(task) : nullptr;
}

GroupTask *BaseTask::Private::groupOf(BaseTask *task)
{
    return task && task->d->kind == Group ? static_cast<GroupTask *>(task) : nullptr;
}

bool BaseTask::Private::refusesSource(const BaseTask *source) const
{
    if (!source) {
        qCWarning(tasksLog) << "Task" << q->name() << "cannot be bound to a null task";
        return true;
    }
    const auto sourcesOf = [](const BaseTask *task) -> const auto &
    {
        return of(task)->sources;
    };
    if (follows(source, q, sourcesOf)) {
        qCWarning(tasksLog) << "Task" << q->name() << "cannot be bound to task" << source->name()
                            << "which is itself or follows it";
        return true;
    }
    return false;
}

const std::shared_ptr<TaskLife> &TaskLife::of(const BaseTask *task)
{
    return task->d->life;
}

void TaskLife::deleteLater(BaseTask *task)
{
    task->d->isDoomed = true;
    task->deleteLater();
}

// Nothing is posted that the task would be destroyed with: Qt would search all that is posted for it.
void BaseTask::Private::postDeletion()
{
    if (isDoomed)
        return;
    const auto deleteUnlessTakenBack = [this, finishedRun = life->run()] {
        if (deleteOnFinished && life->run() == finishedRun && q->isFinished())
            q->deleteLater();
    };
    QMetaObject::invokeMethod(this, deleteUnlessTakenBack, Qt::QueuedConnection);
}

void BaseTask::Private::wakeWaits(bool isAnnounced) const
{
    interleavingPoint("wake waits");
    if (!life->hasWatchers())
        return;
    const QMutexLocker locker(life->mutex());
    life->notifyEnded(q, isAnnounced);
}

void BaseTask::Private::announceFinished()
{
    wakeWaits(true);
    Q_EMIT finished();
}

Error BaseTask::Private::destroyedError()
{
    return Error(GeneralError, BaseTask::tr("The task was destroyed before it finished."));
}

std::shared_ptr<TasksQueueShare> BaseTask::Private::queueShare() const
{
    const QMutexLocker locker(life->mutex());
    return queue;
}

void BaseTask::Private::finish(const Error &error, bool isCancel)
{
    TaskVisit visit(life);
    endRun(visit, error, {}, isCancel);
}

void BaseTask::Private::finishRun(quint64 run, const Error &error)
{
    TaskVisit visit(life);
    endRun(visit, error, run, false);
}

void BaseTask::Private::finishRun(TaskVisit &visit, quint64 run, const Error &error)
{
    endRun(visit, error, run, false);
}

// The one way in which a run ends with finished(). A handler may delete the task, or set it idle or running again: what
// follows belongs to this run.
void BaseTask::Private::endRun(TaskVisit &visit, const Error &error, std::optional<quint64> meantRun, bool isCancel)
{
    const std::shared_ptr<TaskLife> &shared = visit.life();
    BaseTask *const task = visit.task();
    // canceled() comes before the error is there.
    const bool cancels = error.equals(Canceled);
    const quint64 run = task ? shared->claimEnd(meantRun, cancels ? nullptr : &error) : 0;
    if (run == 0)
        return;
    const quint64 outerRun = visit.endedRun();
    visit.setEndedRun(run);
    const auto through = qScopeGuard([&visit, outerRun] { visit.setEndedRun(outerRun); });
    auto abandoned = qScopeGuard([&shared, run] { shared->releaseEnd(run); });
    const auto goesOn = [&shared, run] { return shared->isIn(run); };

    if (isCancel)
        qCInfo(tasksLog) << "Task" << task->name() << "=> Canceled";
    if (cancels && shared->setCanceled(run))
        Q_EMIT task->canceled();
    if (!goesOn())
        return;
    if (error.hasError())
        qCDebug(tasksLog) << "Setting error" << error;
    if (cancels && !shared->storeError(run, error))
        return;
    Q_EMIT task->errorChanged(error);
    if (!goesOn())
        return;
    const bool deleteAfterwards = task->d->deleteOnFinished;
    task->finalize();
    if (!goesOn())
        return;
    Error failure = task->doFinish();
    if (failure.hasError()) {
        failure.ecatch("void zel::BaseTask::finish(zel::Err)", __FILE__, __LINE__);
        if (!shared->storeError(run, failure))
            return;
        Q_EMIT task->errorChanged(failure);
    }
    if (!goesOn())
        return;
    qCDebug(tasksLog) << "Task" << task->name() << "finished.";
    // The outcome is taken before any handler can destroy the task.
    const Error outcome = shared->hasFollowers() ? task->error() : failure.hasError() ? failure : error;
    TaskLife::Followers followers;
    const auto change = shared->complete(run, &followers);
    if (!change)
        return;
    abandoned.dismiss();
    const quint64 over = change->run;
    const auto isOver = [&shared, over] { return shared->isIn(over); };
    task->d->announceState(shared, *change, Finished);
    if (isOver())
        task->d->announceFinished();
    if (isOver())
        Q_EMIT task->finished();
    reportEnd(shared, followers, over, outcome);
    if (deleteAfterwards && isOver())
        Q_EMIT task->selfDelete(BaseTask::QPrivateSignal());
}

bool BaseTask::Private::finishQuietly()
{
    BaseTask *const task = q;
    TaskVisit visit(life);
    const std::shared_ptr<TaskLife> &shared = visit.life();
    const quint64 run = visit.isInside() ? shared->claimEnd() : 0;
    if (run == 0)
        return false;
    visit.setEndedRun(run);
    const auto abandoned = qScopeGuard([&shared, run] { shared->releaseEnd(run); });
    task->finalize();
    const auto change = shared->complete(run);
    if (!change)
        return false;
    announceState(shared, *change, Finished);
    return true;
}

void BaseTask::Private::changeState(State state, std::optional<quint64> expectedRun)
{
    changeState(TaskVisit(life), state, expectedRun);
}

void BaseTask::Private::changeState(const TaskVisit &visit, State state, std::optional<quint64> expectedRun)
{
    BaseTask *const task = q;
    const std::shared_ptr<TaskLife> &shared = visit.life();
    const auto change = shared->change(state, expectedRun);
    if (!change)
        return;
    if (state != Idle || change->left == Idle) {
        announceState(shared, *change, state);
        return;
    }
    // Queue and groups are told by a call: idle again, the task may be started, and its run is over for them.
    const auto followers = shared->followers();
    const std::shared_ptr<TasksQueueShare> dispatching = Task::Private::leaveRun(task, change->isReset);
    for (const auto &child : followers)
        GroupChild::noteIdle(child);
    announceState(shared, *change, state);
    // What had finished is told of by its end.
    for (const auto &child : followers) {
        if (change->isReset && change->left != Finished)
            GroupChild::reportEnd(child, change->run, Error());
    }
    if (dispatching)
        TasksQueueShare::dispatch(dispatching);
}

// Called after the change; the task may be gone when it returns.
void BaseTask::Private::announceState(const std::shared_ptr<TaskLife> &shared, const TaskLife::Change &change,
                                      State state)
{
    BaseTask *const task = q;
    interleavingPoint("state changed");
    qCInfo(tasksLog) << "Task" << task->name() << ":" << stateKey(change.left) << "=>" << task->stateString();
    Q_EMIT task->stateChanged(state);
    if (change.isQuietEnd && shared->task())
        wakeWaits(false);
}

// A handler may end the run, or pause the task, which then was not started.
void BaseTask::Private::announceRunning(const std::shared_ptr<TaskLife> &shared, const TaskLife::Change &change)
{
    BaseTask *const task = q;
    announceState(shared, change, Running);
    if (!shared->isIn(change.run) || shared->state() != Running)
        return;
    const State left = change.left;
    if (left == Idle || left == Finished) {
        Q_EMIT task->started();
        reportStart(shared);
    }
    if (shared->isIn(change.run) && left == Finished)
        Q_EMIT task->restarted();
}

// Groups, queue and coroutines are told behind the handlers, of which one may have destroyed the task.
void BaseTask::Private::reportStart(const std::shared_ptr<TaskLife> &shared)
{
    if (!shared->task())
        return;
    for (const auto &child : shared->followers())
        GroupChild::reportStart(child);
}

void BaseTask::Private::reportEnd(const std::shared_ptr<TaskLife> &shared, const TaskLife::Followers &followers,
                                  quint64 run, const Error &outcome)
{
    for (const auto &child : followers)
        GroupChild::reportEnd(child, run, outcome);
    if (BaseTask *task = shared->task())
        Task::Private::reportEnd(task, run);
    if (!shared->hasWatchersToTellLast())
        return;
    const QMutexLocker locker(shared->mutex());
    if (const BaseTask *task = shared->task())
        shared->notifyAnnounced(task);
}

void BaseTask::Private::announceProgress(int value, int total)
{
    if (!life->hasFollowers()) {
        Q_EMIT q->progress(value, total);
        return;
    }
    const std::shared_ptr<TaskLife> shared = life;
    Q_EMIT q->progress(value, total);
    for (const auto &child : shared->followers())
        GroupChild::reportProgress(child, value, total);
}

// Of a task that this one is bound to.
void BaseTask::Private::passOnStarted()
{
    const std::shared_ptr<TaskLife> shared = life;
    Q_EMIT q->started();
    reportStart(shared);
}

void BaseTask::Private::passOnFinished()
{
    const TaskVisit visit(life);
    const std::shared_ptr<TaskLife> &shared = visit.life();
    const TaskLife::Followers followers = shared->followers();
    const Error outcome = followers.isEmpty() ? Error() : q->error();
    Q_EMIT q->finished();
    if (const quint64 run = shared->endedRun())
        reportEnd(shared, followers, run, outcome);
}

BaseTask::BaseTask(QObject *parent) : ErrorCancelable(parent), d(std::make_unique<Private>(this)) { }

BaseTask::~BaseTask()
{
    qCDebug(tasksLog) << "Deleting" << name();
    d->life->retire();
    d->life->waitForVisitors(this);
    d->life->setDestroyed();
    if (d->life->hasWatchers()) {
        const Error error = Private::destroyedError();
        const QMutexLocker locker(d->life->mutex());
        d->life->notifyDestroyed(this, error);
    }
    // On its own thread nothing is delivered meanwhile.
    if (thread() != QThread::currentThread())
        QCoreApplication::removePostedEvents(d.get());
    // Deleted with the other children: by itself it would send an event to its parent, through the thread of that.
    static_cast<void>(d.release());
}

QString BaseTask::name() const
{
    const QMutexLocker locker(d->life->mutex());
    return d->name;
}

void BaseTask::setName(const QString &name)
{
    QString replaced = name;
    const QMutexLocker locker(d->life->mutex());
    d->name.swap(replaced);
}

BaseTask::State BaseTask::state() const
{
    return d->life->state();
}

BaseTask::State BaseTask::previousState() const
{
    return d->life->previousState();
}

QString BaseTask::stateString() const
{
    return QString::fromLatin1(stateKey(state()));
}

bool BaseTask::isIdle() const
{
    return state() == Idle;
}

bool BaseTask::isRunning() const
{
    return state() == Running;
}

bool BaseTask::isPaused() const
{
    return state() == Paused;
}

bool BaseTask::isFinalizing() const
{
    return state() == Finalizing;
}

bool BaseTask::isFinished() const
{
    return state() == Finished;
}

bool BaseTask::isSuccessful() const
{
    return isFinished() && !hasError();
}

QVariant BaseTask::variantResult() const
{
    const QMutexLocker locker(d->life->mutex());
    return d->result;
}

void BaseTask::setVariantResult(const QVariant &result)
{
    // Compared, and the replaced one destroyed, without the lock: values of the user's have code of their own.
    if (result == variantResult())
        return;
    QVariant replaced = result;
    {
        const QMutexLocker locker(d->life->mutex());
        d->result.swap(replaced);
    }
    Q_EMIT d->resultChanged(QVariant(result));
}

bool BaseTask::deleteOnFinished() const
{
    return d->deleteOnFinished;
}

void BaseTask::setDeleteOnFinished(bool deleteOnFinished)
{
    d->deleteOnFinished = deleteOnFinished;
    disconnect(this, &BaseTask::selfDelete, d.get(), nullptr);
    if (deleteOnFinished)
        connect(this, &BaseTask::selfDelete, d.get(), &Private::postDeletion, Qt::DirectConnection);
}

TasksQueue *BaseTask::queue() const
{
    const std::shared_ptr<TasksQueueShare> share = d->queueShare();
    return share ? share->queue() : nullptr;
}

void BaseTask::setQueue(TasksQueue *queue)
{
    std::shared_ptr<TasksQueueShare> replaced = TasksQueueShare::of(queue);
    const QMutexLocker locker(d->life->mutex());
    d->queue.swap(replaced);
}

void BaseTask::bind(const BaseTask *source)
{
    if (d->refusesSource(source))
        return;
    d->sources.removeAll(nullptr);
    d->sources.append(source);

    const Private *from = source->d.get();
    connect(source, &BaseTask::finalizing, this, &BaseTask::finalizing);
    connect(from, &Private::finished, d.get(), &Private::announceFinished);
    connect(source, &BaseTask::finished, d.get(), &Private::passOnFinished);
    connect(source, &BaseTask::stateChanged, this, &BaseTask::setState);
    connect(source, &BaseTask::progressInitiated, this, &BaseTask::progressInitiated);
    connect(source, &BaseTask::progress, d.get(), &Private::announceProgress);
    connect(source, &BaseTask::progressTextChanged, this, &BaseTask::progressTextChanged);
    connect(source, &BaseTask::errorChanged, this, &BaseTask::setError);
    connect(from, &Private::resultChanged, this, &BaseTask::setVariantResult);
    connect(source, &BaseTask::started, d.get(), &Private::passOnStarted);
    connect(source, &BaseTask::canceled, this, [this] {
        setCanceled(true);
        Q_EMIT canceled();
    });
    connect(source, &BaseTask::paused, this, &BaseTask::paused);
    connect(source, &BaseTask::resumed, this, &BaseTask::resumed);
    connect(source, &BaseTask::restarted, this, &BaseTask::restarted);
}

void BaseTask::connectTo(ProgressBarOutputInterface *output, Qt::ConnectionType type)
{
    connect(this, &BaseTask::progress, output, &ProgressBarOutputInterface::showProgress, type);
    connect(this, &BaseTask::progressTextChanged, output, &ProgressBarOutputInterface::showProgressText, type);
    connect(output, &ProgressBarOutputInterface::cancelRequested, this, &BaseTask::cancel, type);
}

void BaseTask::setWaitMode(WaitMode mode)
{
    d->waitMode = mode;
}

void BaseTask::cancel()
{
    d->finish(Error(Canceled, tr("Canceled")), true);
}

void BaseTask::pause()
{
    const std::shared_ptr<TaskLife> life = d->life;
    const quint64 run = life->run();
    const State left = state();
    if (left == Paused)
        return;
    qCInfo(tasksLog) << "Task" << name() << "=> Paused";
    Q_EMIT paused();
    // Whoever moved the task on meanwhile has decided: pausing now would revive a task that was finished.
    if (!life->isIn(run) || life->state() != left)
        return;
    if (const auto change = life->change(Paused, run))
        d->announceState(life, *change, Paused);
}

void BaseTask::resume()
{
    if (!isPaused())
        return;
    const std::shared_ptr<TaskLife> life = d->life;
    const quint64 run = life->run();
    const State left = life->pausedState();
    qCInfo(tasksLog) << "Task" << name() << "=> Resumed";
    Q_EMIT resumed();
    if (life->isIn(run) && life->state() == Paused)
        d->changeState(left, run);
}

void BaseTask::finalize()
{
    qCDebug(tasksLog) << "Task" << name() << "=> Finalizing";
    // finish() means the run that it ends, which may be over by now.
    std::optional<TaskVisit> own;
    const TaskVisit *visit = TaskVisit::endingOf(d->life.get());
    const auto meantRun = visit ? std::optional(visit->endedRun()) : std::nullopt;
    if (!visit)
        visit = &own.emplace(d->life);
    d->changeState(*visit, Finalizing, meantRun);
    if (visit->life()->task())
        Q_EMIT finalizing();
}

void BaseTask::finish(Err err)
{
    d->finish(err);
}

void BaseTask::setIdle()
{
    setState(Idle);
}

void BaseTask::setRunning()
{
    const std::shared_ptr<TaskLife> life = d->life;
    if (const auto change = life->change(Running))
        d->announceRunning(life, *change);
}

void BaseTask::setFinished()
{
    setState(Finished);
}

int BaseTask::currentProgress() const
{
    return d->figures.load().value;
}

int BaseTask::totalProgress() const
{
    return d->figures.load().total;
}

void BaseTask::setProgress(int value, int total)
{
    d->figures = {value, total};
    d->announceProgress(value, total);
}

QString BaseTask::progressText() const
{
    const QMutexLocker locker(d->life->mutex());
    return d->progressText;
}

void BaseTask::setProgressText(const QString &text)
{
    QString current = text;
    {
        QString replaced = text;
        const QMutexLocker locker(d->life->mutex());
        d->progressText.swap(replaced);
    }
    Q_EMIT progressTextChanged(current);
}

void BaseTask::clearError()
{
    setError(Error(NoError));
}

void BaseTask::setState(State state)
{
    d->changeState(state);
}

Error BaseTask::doFinish()
{
    return Error(NoError);
}

} // namespace zel
