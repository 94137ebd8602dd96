#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    zel::TasksQueue queue;
    queue.setMaxRunningTasksCount(1);
    queue.pause();

    const auto add = [&queue](const char *name, int priority, std::function<zel::Error()> work) {
        auto *task = new zel::Task(std::move(work), zel::Task::WorkingThread, &queue);
        task->setPriority(priority);
        QObject::connect(task, &zel::Task::finished, task, [=] { qInfo() << name << task->error(); });
        queue.append(task);
        return task;
    };
    const zel::Task *last = add("clean up", 5, [] { return zel::Error(); });
    add("load settings", 0, [] { return zel::Error(zel::NotFound, QStringLiteral("There are none.")); });
    add("compute", 1, [] { return zel::Error(); });

    queue.resume();
    return last->waitForFinished().hasError();
}
