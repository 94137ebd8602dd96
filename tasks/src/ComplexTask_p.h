#pragma once

#include "GroupChild.h"
#include "TaskLife.h"

#include <zel/tasks/ComplexTask.h>

#include <QList>
#include <QMutex>
#include <QPointer>

#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace zel {

class TasksQueueVisit;

/// What a complex task has called at the end of a subtask, until it is gone.
class SubtaskCallbacks {
public:
    SubtaskCallbacks(std::function<void()> onSuccess, std::function<void()> onFailure)
        : m_onSuccess(std::move(onSuccess))
        , m_onFailure(std::move(onFailure))
    {
    }

    /// Empty when there is none.
    std::function<void()> of(bool hasFailed) const;
    void drop();

private:
    mutable QMutex m_mutex;
    std::function<void()> m_onSuccess;
    std::function<void()> m_onFailure;
};

class Q_DECL_HIDDEN ComplexTask::Private {
public:
    /// A subtask to be started, in the run that it was in when the group was given it.
    struct Admitted {
        Task *task;
        std::shared_ptr<TaskLife> life;
        quint64 run;

        bool isToBeStarted() const { return life->isIn(run); }
    };

    explicit Private(ComplexTask *task) : q(task) { }

    static Private *of(const ComplexTask *task) { return task->d.get(); }
    /// Of the present group, for other threads; null when there is none.
    std::shared_ptr<TaskLife> groupLife() const;

    void setupGroupTask(GroupTask *group);
    GroupTask *ensureGroupTask();
    void onGroupFinished(const GroupTask *group, quint64 use, quint64 run);
    void postGroupFinished(GroupTask *group);
    /// Inside exec(), when the run has begun from that state and nobody has heard of it.
    void beginRun(BaseTask::State left);
    void succeed(quint64 run) const;
    void connectSubtaskCallbacks(Task *task, std::function<void()> onSuccess, std::function<void()> onFailure);
    QList<Admitted> admit(const QList<Task *> &tasks);
    static void startDirectly(const QList<Admitted> &subtasks);
    static void startThroughQueue(const QList<Admitted> &subtasks, const TasksQueueVisit &visit);

    /// May have been deleted by others.
    QPointer<GroupTask> groupTask;
    /// The same for other threads. Guarded by the mutex of the task's own.
    std::shared_ptr<TaskLife> sharedGroup;
    std::vector<std::weak_ptr<SubtaskCallbacks>> callbacks;
    ComplexTask *const q;
    /// That of the group; it stays when others delete that.
    std::shared_ptr<GroupNode> node;
    bool hasRun = false; ///< the present group has been used by a run
};

} // namespace zel
