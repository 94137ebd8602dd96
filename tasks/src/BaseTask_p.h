#pragma once

#include "TaskLife.h"

#include <zel/tasks/BaseTask.h>

#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QVariant>

#include <atomic>
#include <memory>
#include <optional>

namespace zel {

class ComplexTask;
class GroupTask;
class Task;
class TasksQueueShare;

/// A child of the task, so that it moves to other threads with it; deleted by the task's destructor.
class Q_DECL_HIDDEN BaseTask::Private : public QObject {
    Q_OBJECT
public:
    /// Known without a virtual call, which the destructor of a subclass might cross on another thread.
    enum Kind : quint8 {
        Plain,
        Executable,
        Complex, ///< and executable
        Group,
    };

    struct Figures {
        int value = 0;
        int total = 0;
    };

    explicit Private(BaseTask *task);
    ~Private() override;

    static Private *of(const BaseTask *task) { return task->d.get(); }
    static quint64 runOf(const BaseTask *task) { return task->d->life->run(); }
    /// These are null for null, and for other tasks.
    static Task *executableOf(BaseTask *task);
    static ComplexTask *complexOf(BaseTask *task);
    static GroupTask *groupOf(BaseTask *task);

    bool refusesSource(const BaseTask *source) const;
    Error wait(Qt::ConnectionType wakeUp, int msec);
    /// Tells whoever waits for the task that it has ended: by finish(), or without finished().
    void wakeWaits(bool isAnnounced) const;
    void announceFinished();
    /// What whoever waits gets when the task is destroyed first.
    static Error destroyedError();

    void finish(const Error &error, bool isCancel = false);
    /// Unless another run has begun.
    void finishRun(quint64 run, const Error &error);
    static void finishRun(TaskVisit &visit, quint64 run, const Error &error);
    /// Ends the run without finished(), unless somebody else ends it. Returns whether it did.
    bool finishQuietly();
    void announceRunning(const std::shared_ptr<TaskLife> &shared, const TaskLife::Change &change);
    /// Of \a expectedRun only, if one is given.
    void changeState(State state, std::optional<quint64> expectedRun = {});
    void changeState(const TaskVisit &visit, State state, std::optional<quint64> expectedRun);
    std::shared_ptr<TasksQueueShare> queueShare() const;

    BaseTask *const q;
    Kind kind = Plain;
    const std::shared_ptr<TaskLife> life;
    // Guarded by the mutex of the life.
    std::shared_ptr<TasksQueueShare> queue;
    QVariant result;
    QString name;
    QString progressText;
    /// In one piece: a pair that was never set is never read.
    std::atomic<Figures> figures{};
    static_assert(std::atomic<Figures>::is_always_lock_free);
    std::atomic<bool> deleteOnFinished = false;
    /// A queue or a group has handed the task to deleteLater().
    std::atomic<bool> isDoomed = false;
    std::atomic<WaitMode> waitMode = ProcessAllEvents;
    /// The tasks that this one is bound to.
    QList<QPointer<const BaseTask>> sources;

Q_SIGNALS:
    /// Before the public finished(): passes on to tasks that are bound to this one.
    void finished();
    void resultChanged(const QVariant &result);

private:
    class Wait;
    static void endRun(TaskVisit &visit, const Error &error, std::optional<quint64> meantRun, bool isCancel);
    void announceState(const std::shared_ptr<TaskLife> &shared, const TaskLife::Change &change, State state);
    void postDeletion();
    static void reportStart(const std::shared_ptr<TaskLife> &shared);
    static void reportEnd(const std::shared_ptr<TaskLife> &shared, const TaskLife::Followers &followers, quint64 run,
                          const Error &outcome);
    void announceProgress(int value, int total);
    void passOnStarted();
    void passOnFinished();

    friend class BaseTask;
};

} // namespace zel
