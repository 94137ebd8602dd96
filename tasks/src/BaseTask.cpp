#include <zel/tasks/BaseTask.h>

#include "BaseTask_p.h"
#include "TaskUse.h"
#include "TasksLog.h"

#include <zel/common/ProgressBarOutputInterface.h>
#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>
#include <QMetaEnum>
#include <QScopeGuard>
#include <QSet>
#include <QThread>

#include <atomic>

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
}
Q_CONSTRUCTOR_FUNCTION(registerMetaTypes)

} // namespace

std::atomic<quint64> BaseTask::Private::resets{0};

BaseTask::Private::Private(BaseTask *task) : QObject(task), q(task) { }

BaseTask::Private::~Private() = default;

quint64 BaseTask::Private::nextRun() const
{
    return state == Finished || state == Idle ? run + 1 : run;
}

bool BaseTask::Private::isEnding() const
{
    return endingRun == run;
}

bool BaseTask::Private::announcesEnd() const
{
    return endedRun == run;
}

std::shared_ptr<TaskRef> BaseTask::Private::ref()
{
    const QMutexLocker locker(&mutex);
    if (!sharedRef)
        sharedRef = std::make_shared<TaskRef>(q);
    knownRef = sharedRef.get();
    return sharedRef;
}

bool BaseTask::Private::clearRef()
{
    const QMutexLocker locker(&mutex);
    return sharedRef && sharedRef->clear();
}

bool BaseTask::Private::refusesSource(const BaseTask *source) const
{
    if (!source) {
        qCWarning(tasksLog) << "Task" << name << "cannot be bound to a null task";
        return true;
    }
    const auto sourcesOf = [](const BaseTask *task) -> const auto &
    {
        return of(task)->sources;
    };
    if (follows(source, q, sourcesOf)) {
        qCWarning(tasksLog) << "Task" << name << "cannot be bound to task" << source->name()
                            << "which is itself or follows it";
        return true;
    }
    return false;
}

void BaseTask::Private::postDeletion()
{
    const auto deleteUnlessTakenBack = [this, finishedRun = run] {
        if (deleteOnFinished && run == finishedRun && q->isFinished())
            q->deleteLater();
    };
    QMetaObject::invokeMethod(this, deleteUnlessTakenBack, Qt::QueuedConnection);
}

void BaseTask::Private::wakeWaits(bool isAnnounced) const
{
    const TaskRef *ref = knownRef;
    if (!ref)
        return;
    const QMutexLocker locker(ref->mutex());
    ref->notifyEnded(q, isAnnounced);
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

BaseTask::BaseTask(QObject *parent) : ErrorCancelable(parent), d(std::make_unique<Private>(this))
{
    // What guarded pointers share is made here, because Qt makes it unsynchronised when two threads make the first
    // ones.
    const QPointer<BaseTask> guard(this);
}

BaseTask::~BaseTask()
{
    qCDebug(tasksLog) << "Deleting" << d->name;
    if (d->clearRef())
        TaskUse::waitForOthers(this);
    if (const TaskRef *ref = d->knownRef) {
        const Error error = Private::destroyedError();
        const QMutexLocker locker(ref->mutex());
        ref->notifyDestroyed(this, error);
    }
    QCoreApplication::removePostedEvents(d.get());
    // Deleted with the other children: by itself it would send an event to its parent, through the thread of that.
    static_cast<void>(d.release());
}

QString BaseTask::name() const
{
    return d->name;
}

void BaseTask::setName(const QString &name)
{
    d->name = name;
}

BaseTask::State BaseTask::state() const
{
    return std::atomic_ref(d->state).load();
}

BaseTask::State BaseTask::previousState() const
{
    return d->previousState;
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

const QVariant &BaseTask::variantResult() const
{
    return d->result;
}

void BaseTask::setVariantResult(const QVariant &result)
{
    if (result == d->result)
        return;
    d->result = result;
    Q_EMIT d->resultChanged(QVariant(d->result));
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
    const QMutexLocker locker(&d->mutex);
    return d->queue;
}

void BaseTask::setQueue(TasksQueue *queue)
{
    const QMutexLocker locker(&d->mutex);
    d->queue = queue;
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
    connect(source, &BaseTask::finished, this, &BaseTask::finished);
    connect(source, &BaseTask::stateChanged, this, &BaseTask::setState);
    connect(source, &BaseTask::progressInitiated, this, &BaseTask::progressInitiated);
    connect(source, &BaseTask::progress, this, &BaseTask::progress);
    connect(source, &BaseTask::progressTextChanged, this, &BaseTask::progressTextChanged);
    connect(source, &BaseTask::errorChanged, this, &BaseTask::setError);
    connect(from, &Private::resultChanged, this, &BaseTask::setVariantResult);
    connect(source, &BaseTask::started, this, &BaseTask::started);
    connect(source, &BaseTask::canceled, this, &BaseTask::canceled);
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
    if (isFinished() || d->isEnding())
        return;
    qCInfo(tasksLog) << "Task" << d->name << "=> Canceled";
    finish(Error(Canceled, tr("Canceled")));
}

void BaseTask::pause()
{
    const State left = state();
    if (left == Paused)
        return;
    qCInfo(tasksLog) << "Task" << d->name << "=> Paused";
    const QPointer<BaseTask> self(this);
    Q_EMIT paused();
    // A handler that moved the task on has decided: pausing now would revive a task that it finished.
    if (self && state() == left)
        setState(Paused);
}

void BaseTask::resume()
{
    if (!isPaused())
        return;
    qCInfo(tasksLog) << "Task" << d->name << "=> Resumed";
    const QPointer<BaseTask> self(this);
    const State left = d->pausedState;
    Q_EMIT resumed();
    if (self && isPaused())
        setState(left);
}

void BaseTask::finalize()
{
    qCDebug(tasksLog) << "Task" << d->name << "=> Finalizing";
    const QPointer<BaseTask> self(this);
    setState(Finalizing);
    if (self)
        Q_EMIT finalizing();
}

void BaseTask::finish(Err err)
{
    if (isFinished() || d->isEnding())
        return;
    const QPointer<BaseTask> self(this);
    std::optional<TaskUse> use;
    if (thread() != QThread::currentThread())
        use.emplace(this);
    const quint64 run = d->run;
    d->endingRun = run;
    const auto ended = qScopeGuard([&self, run] {
        if (!self || self->d->endingRun != run)
            return;
        self->d->endingRun.reset();
        self->d->endedRun.reset();
    });

    // A handler may have deleted the task, or set it idle or running again: what follows belongs to this run.
    const auto goesOn = [&self, run] { return self && self->d->run == run; };
    if (err.equals(Canceled))
        Q_EMIT canceled();
    if (!goesOn())
        return;
    if (err.hasError())
        qCDebug(tasksLog) << "Setting error" << err;
    setError(err);
    if (!goesOn())
        return;
    const bool deleteAfterwards = d->deleteOnFinished;
    finalize();
    if (!goesOn())
        return;
    Error failure = doFinish();
    if (!goesOn())
        return;
    if (failure.hasError())
        setError(failure.ecatch(Q_FUNC_INFO, __FILE__, __LINE__));
    if (!goesOn())
        return;
    qCDebug(tasksLog) << "Task" << d->name << "finished.";
    const quint64 over = ++d->run;
    d->endedRun = over;
    setState(Finished);

    const auto isOver = [&self, over] { return self && self->d->run == over; };
    if (isOver())
        d->announceFinished();
    if (isOver())
        Q_EMIT finished();
    if (deleteAfterwards && isOver())
        Q_EMIT selfDelete(QPrivateSignal());
}

void BaseTask::setIdle()
{
    setState(Idle);
}

void BaseTask::setRunning()
{
    const QPointer<BaseTask> self(this);
    setState(Running);
    if (!self)
        return;
    const State left = d->previousState;
    if (left == Idle || left == Finished)
        Q_EMIT started();
    if (self && left == Finished)
        Q_EMIT restarted();
}

void BaseTask::setFinished()
{
    setState(Finished);
}

int BaseTask::currentProgress() const
{
    return d->currentProgress;
}

int BaseTask::totalProgress() const
{
    return d->totalProgress;
}

void BaseTask::setProgress(int value, int total)
{
    d->currentProgress = value;
    d->totalProgress = total;
    Q_EMIT progress(value, total);
}

QString BaseTask::progressText() const
{
    return d->progressText;
}

void BaseTask::setProgressText(const QString &text)
{
    d->progressText = text;
    Q_EMIT progressTextChanged(QString(d->progressText));
}

void BaseTask::clearError()
{
    setError(Error(NoError));
}

void BaseTask::setState(State state)
{
    const State left = d->state;
    const bool begins = state == Running && (left == Idle || left == Finished);
    const bool isReset = state == Idle && left != Idle;
    const bool isResumed = left == Paused && d->pausedState == state;
    // While finish() is at work, it says itself when the run is over.
    const bool ends = state == Finished && left != Finished && !isResumed && !d->isEnding() && !d->announcesEnd();
    if (begins || isReset || ends)
        ++d->run;
    if (isReset)
        Private::resets.fetch_add(1);
    if (left == Finished && (begins || isReset))
        setCanceled(false);
    if (state == Paused && left != Paused)
        d->pausedState = left;
    d->previousState = left;
    std::atomic_ref(d->state).store(state);
    qCInfo(tasksLog) << "Task" << d->name << ":" << stateKey(left) << "=>" << stateString();
    if (state != Finished || d->announcesEnd()) {
        Q_EMIT stateChanged(state);
        return;
    }
    const QPointer<BaseTask> self(this);
    Q_EMIT stateChanged(state);
    if (self)
        d->wakeWaits(false);
}

Error BaseTask::doFinish()
{
    return Error(NoError);
}

} // namespace zel
