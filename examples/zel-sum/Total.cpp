#include "Total.h"

#include "FolderWalk.h"

#include <QThread>

namespace {

zel::Error countFiles(FolderWalk walk, Total::Figures &figures)
{
    Item item;
    for (auto next = walk.next(item); next != Source::End; next = walk.next(item)) {
        if (QThread::currentThread()->isInterruptionRequested())
            return zel::Canceled;
        if (next != Source::File)
            continue;
        ++figures.files;
        figures.bytes += item.size;
    }
    return zel::NoError;
}

} // namespace

Total::Total(const std::vector<QByteArray> &paths)
    : m_task([paths, figures = m_figures] { return countFiles(FolderWalk(paths), *figures); }, zel::Task::WorkingThread)
{
    m_task.setThreadTerminationEnabled(false);
    m_task.exec();
}

const Total::Figures *Total::figures() const
{
    return m_task.isSuccessful() ? m_figures.get() : nullptr;
}
