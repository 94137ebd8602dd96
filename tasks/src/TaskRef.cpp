#include "TaskRef.h"

namespace zel {

void TaskRef::add(TaskWatcher *watcher)
{
    watcher->m_next = nullptr;
    watcher->m_link = m_end;
    *m_end = watcher;
    m_end = &watcher->m_next;
}

void TaskRef::remove(TaskWatcher *watcher)
{
    if (!watcher->m_link)
        return;
    *watcher->m_link = watcher->m_next;
    (watcher->m_next ? watcher->m_next->m_link : m_end) = watcher->m_link;
    watcher->m_link = nullptr;
}

void TaskRef::notifyEnded(const BaseTask *task, bool isAnnounced) const
{
    for (TaskWatcher *watcher = m_watchers; watcher; watcher = watcher->m_next)
        watcher->onEnded(task, isAnnounced);
}

void TaskRef::notifyDestroyed(const BaseTask *task, const Error &error) const
{
    for (TaskWatcher *watcher = m_watchers; watcher; watcher = watcher->m_next)
        watcher->onDestroyed(task, error);
}

} // namespace zel
