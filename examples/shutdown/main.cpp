// An application that is told to quit while its queue is at work: nothing more begins, running work is asked to stop
// and waited for, and what was not done is known at the end.

#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>
#include <QThread>

#include <chrono>
#include <cstdio>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace zel;

namespace {

// Polls, as work that may be canceled should.
Error copyBlocks(int blocks)
{
    for (int block = 0; block < blocks; ++block) {
        if (QThread::currentThread()->isInterruptionRequested())
            return Canceled;
        QThread::msleep(1);
    }
    return NoError;
}

class Copier : public QObject {
public:
    Copier() { m_queue.setMaxRunningTasksCount(2); }

    Task *add(const QString &name, int blocks)
    {
        auto *task = new Task([blocks] { return copyBlocks(blocks); }, Task::WorkingThread, this);
        task->setName(name);
        // The work obeys: there is time for it to do so, and no need for force.
        task->setThreadWaitTime(5s);
        task->setThreadTerminationEnabled(false);
        m_tasks.append(task);
        m_queue.append(task);
        return task;
    }

    // While the event loop is still there. Tasks that have not begun are canceled without having run; those that run
    // are interrupted, and cancel() waits for their threads.
    void shutDown()
    {
        m_queue.clear(TasksQueue::Cancel);
        for (const Task *task : std::as_const(m_tasks)) {
            const char *outcome = task->isCanceled() ? "not copied" : "copied";
            std::printf("%-7s %s\n", qPrintable(task->name()), outcome);
        }
    }

private:
    QList<Task *> m_tasks;
    // After the list and before the tasks, which are children of this object: it is destroyed first.
    TasksQueue m_queue;
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    Copier copier;
    QObject::connect(&application, &QCoreApplication::aboutToQuit, &copier, &Copier::shutDown);
    const Task *notes = copier.add(u"notes"_s, 1);
    copier.add(u"films"_s, 1'000'000);
    copier.add(u"photos"_s, 1'000'000);
    copier.add(u"music"_s, 1);
    // Here it is the end of a task that makes the application quit; it may be a window or a signal as well.
    QObject::connect(notes, &Task::finished, &application, &QCoreApplication::quit, Qt::QueuedConnection);
    return QCoreApplication::exec();
}
