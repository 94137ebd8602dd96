// A program of a user: every way to get the library has to build and run it.

#include <zel/tasks/GroupTask.h>
#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>
#include <QTranslator>

#include <cstdio>

static QCoro::Task<zel::Error> half(zel::Task *whole)
{
    co_return (co_await whole).hasError() ? zel::Error(zel::Canceled) : zel::Error();
}

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    QTranslator translator;
    if (argc > 1 && translator.load(QString::fromLocal8Bit(argv[1])))
        application.installTranslator(&translator);

    zel::TasksQueue queue;
    auto *work = new zel::Task([] { return zel::Error(); }, zel::Task::WorkingThread, &queue);
    zel::GroupTask group;
    group.append(work);
    group.append(half(work));
    queue.append(work);
    if (group.waitForFinished().hasError())
        return 1;

    zel::Task canceled;
    canceled.cancel();
    std::puts(qPrintable(canceled.error().displayText()));
    return 0;
}
