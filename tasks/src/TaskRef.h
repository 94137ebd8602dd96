#pragma once

#include "TaskUse.h"

#include <QMutex>
#include <QMutexLocker>

#include <atomic>
#include <optional>

namespace zel {

class BaseTask;

class Error;

/// Whoever waits for the end of a task. It is called on the thread that ends or destroys the task, with the lock of the
/// TaskRef: nothing of the user's may run in there.
class TaskWatcher {
public:
    /// \a isAnnounced: by finish(), which emits finished() next.
    virtual void onEnded(const BaseTask *task, bool isAnnounced) = 0;
    /// Not called after the reference was null already.
    virtual void onDestroyed(const BaseTask *task, const Error &error) = 0;

protected:
    TaskWatcher() = default;
    virtual ~TaskWatcher() = default;
    Q_DISABLE_COPY_MOVE(TaskWatcher)

private:
    friend class TaskRef;
    TaskWatcher *m_next = nullptr;
    /// What points here; null when nothing does.
    TaskWatcher **m_link = nullptr;
};

/// A task as others hold on to it: null once its destructor has begun, on whichever thread that is.
class TaskRef {
public:
    explicit TaskRef(BaseTask *task) : m_task(task) { }

    /// To be compared, or used by the thread that would destroy the task. Others take a TaskHold.
    BaseTask *get() const { return m_task; }
    /// Returns whether the reference was not null.
    bool clear()
    {
        const QMutexLocker locker(&m_mutex);
        return m_task.exchange(nullptr);
    }

    QMutex *mutex() const { return &m_mutex; }
    /// These are called with the mutex locked. A watcher is removed before it is destroyed.
    void add(TaskWatcher *watcher);
    void remove(TaskWatcher *watcher);
    void notifyEnded(const BaseTask *task, bool isAnnounced) const;
    void notifyDestroyed(const BaseTask *task, const Error &error) const;

private:
    friend class TaskHold;
    mutable QMutex m_mutex;
    std::atomic<BaseTask *> m_task;
    TaskWatcher *m_watchers = nullptr;
    TaskWatcher **m_end = &m_watchers;
};

/// The task of a reference, which no other thread destroys while this object lives. This one may, in a handler: look at
/// the reference again after every call.
class TaskHold {
public:
    explicit TaskHold(const TaskRef &ref)
    {
        const QMutexLocker locker(&ref.m_mutex);
        m_task = ref.m_task;
        if (m_task)
            m_use.emplace(m_task);
    }
    Q_DISABLE_COPY_MOVE(TaskHold)

    /// Null when the task is gone.
    BaseTask *task() const { return m_task; }

private:
    BaseTask *m_task;
    std::optional<TaskUse> m_use;
};

} // namespace zel
