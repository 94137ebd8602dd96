// A queue with a limit: what starts when, by priority, and a task that does not count towards the limit.

#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>
#include <QStringList>
#include <QTimer>

#include <chrono>
#include <cstdio>

using namespace std::chrono_literals;
using namespace zel;

namespace {

class Workshop : public QObject {
public:
    Workshop()
    {
        m_queue.setMaxRunningTasksCount(2);
        connect(&m_queue, &TasksQueue::stateChanged, this, [](TasksQueue::State state) {
            std::puts(state == TasksQueue::Idle ? "queue is idle" : "queue works");
            if (state == TasksQueue::Idle)
                QCoreApplication::quit();
        });
    }

    Task *add(const char *name, int priority, std::chrono::milliseconds duration)
    {
        auto *task = new Task(
            [duration](Task *self) {
                QTimer::singleShot(duration, self, [self] { self->finish(); });
                return Error();
            },
            Task::Asynchronous, this);
        task->setName(QString::fromLatin1(name));
        task->setPriority(priority);
        connect(task, &Task::started, this, [this, name] { say("starts", name); });
        connect(task, &Task::finished, this, [this, name] { say("ends", name); });
        m_tasks.append(task);
        return task;
    }

    void run() { m_queue.append(m_tasks); }

private:
    void say(const char *what, const char *name)
    {
        std::printf("%-12s %-7s %d running, %d pending\n", name, what, m_queue.runningTasksCount(),
                    m_queue.pendingTasksCount());
    }

    QList<Task *> m_tasks;
    TasksQueue m_queue;
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    Workshop workshop;
    // A smaller number goes first; tasks of one priority go in the order in which they came.
    workshop.add("sweep", 5, 40ms);
    workshop.add("saw", 1, 120ms);
    workshop.add("glue", 1, 640ms);
    workshop.add("plan", 0, 60ms);
    workshop.add("radio", 0, 10s)->setCountAsRunning(false);
    workshop.run();
    return QCoreApplication::exec();
}
