#include "TaskRef.h"

namespace zel {

void TaskRef::add(TaskWatcher *watcher)
{
    watcher->m_next = m_watchers;
    watcher->m_link = &m_watchers;
    if (m_watchers)
        m_watchers->m_link = &watcher->m_next;
    m_watchers = watcher;
}

void TaskRef::remove(TaskWatcher *watcher)
{
    if (!watcher->m_link)
        return;
    *watcher->m_link = watcher->m_next;
    if (watcher->m_next)
        watcher->m_next->m_link = watcher->m_link;
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
