#pragma once

#include "TaskLife.h"

namespace zel {

class TasksQueueShare;

/**
 * One start of a task that was claimed, on the stack of the thread that makes it, until exec() returns.
 *
 * exec() uses the claim of the innermost start of its task on its own thread: one that was taken back meanwhile lets it
 * do nothing, and one on another thread is not its business. A start without a task stands for an event loop, whose
 * dispatch owes nothing to the starts below it.
 */
class TaskStart {
public:
    /// The caller keeps the life.
    TaskStart(TaskLife *life, quint64 claim, const TasksQueueShare *share);
    explicit TaskStart(const TasksQueueShare *share);
    /// Takes the claim back if nobody has used it.
    ~TaskStart();
    Q_DISABLE_COPY_MOVE(TaskStart)

    /// The innermost one of this thread, which stands below the caller as long as that runs. Null for none, here and below.
    static TaskStart *innermost();
    /// Among that one and those below it, with a claim that is to be used.
    static TaskStart *unusedOf(TaskStart *start, const TaskLife *life);
    static const TaskStart *innermostOf(const TasksQueueShare *share);
    /// The work of the task has returned, and exec() only ends it.
    static void setReturning(TaskStart *start, const TaskLife *life, bool isReturning);

    quint64 use();
    /// The queue that makes the start, null when nobody does.
    const TasksQueueShare *share() const { return m_share; }
    bool isOfTask() const { return m_life; }
    bool isReturning() const { return m_isReturning; }
    int loopLevel() const { return m_loopLevel; }
    /// How many starts of the same queue are on the stack, this one included.
    int depth() const { return m_depth; }

private:
    TaskLife *const m_life;
    const quint64 m_claim;
    const TasksQueueShare *const m_share;
    const int m_loopLevel;
    const int m_depth;
    bool m_isUsed = false;
    bool m_isReturning = false;
    TaskStart *const m_outer;
};

/// While it lives on this thread's stack, an exception of work that a queue starts becomes the error of its task: it
/// would reach nobody.
class NothingLeaves {
public:
    NothingLeaves();
    ~NothingLeaves();
    Q_DISABLE_COPY_MOVE(NothingLeaves)

    static bool isSaid();
};

} // namespace zel
