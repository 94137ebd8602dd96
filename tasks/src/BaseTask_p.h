#pragma once

#include "TaskRef.h"

#include <zel/tasks/BaseTask.h>

#include <QList>
#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QVariant>

#include <atomic>
#include <memory>
#include <optional>

namespace zel {

/// A child of the task, so that it moves to other threads with it; deleted by the task's destructor.
class Q_DECL_HIDDEN BaseTask::Private : public QObject {
    Q_OBJECT
public:
    explicit Private(BaseTask *task);
    ~Private() override;

    static Private *of(const BaseTask *task) { return task->d.get(); }

    /// The number that a run has which is set running now.
    quint64 nextRun() const;
    /// Whether finish() is at work on the present run.
    bool isEnding() const;
    /// Whether the task is Finished by finish(), which emits finished() next or has done so.
    bool announcesEnd() const;

    /// How others hold on to the task; made by the first of them. May be called from any thread.
    std::shared_ptr<TaskRef> ref();
    /// Called when the task's destructor begins.
    /// Returns whether somebody may hold on to the task.
    bool clearRef();

    bool refusesSource(const BaseTask *source) const;
    void postDeletion();
    Error wait(Qt::ConnectionType wakeUp, int msec);
    /// Tells whoever waits for the task that it has ended: by finish(), or without finished().
    void wakeWaits(bool isAnnounced) const;
    void announceFinished();
    /// What whoever waits gets when the task is destroyed first.
    static Error destroyedError();

    /// How often any task was set idle after it had been something else.
    static std::atomic<quint64> resets;

    BaseTask *const q;
    /// Guards the two that follow.
    mutable QMutex mutex;
    QPointer<TasksQueue> queue;
    std::shared_ptr<TaskRef> sharedRef;
    /// The same for those who only look whether there is one.
    std::atomic<TaskRef *> knownRef = nullptr;
    /// Written by setState() alone; atomically, because work on another thread reads it.
    State state = Idle;
    State previousState = Idle;
    /// What resume() returns to: the state that was left for Paused.
    State pausedState = Idle;
    QVariant result;
    QString name;
    QString progressText;
    int currentProgress = 0;
    int totalProgress = 0;
    bool deleteOnFinished = false;
    /// Whether a working thread was ever started, which may emit signals of the task.
    bool hadWorkingThread = false;
    WaitMode waitMode = ProcessAllEvents;
    /// Tells runs apart: changes when a run begins, when it ends, and when the task becomes idle again.
    quint64 run = 0;
    /// The run that finish() is about to end, and what its number becomes with the end.
    std::optional<quint64> endingRun;
    std::optional<quint64> endedRun;
    /// The tasks that this one is bound to.
    QList<QPointer<const BaseTask>> sources;

Q_SIGNALS:
    /// Before the public finished(): passes on to tasks that are bound to this one.
    void finished();
    void resultChanged(const QVariant &result);
};

} // namespace zel
