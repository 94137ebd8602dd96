// The code in README.md and in the guides that is no program of its own. It is built, run, and its output compared with
// expected.txt; a test looks that the texts show it as it stands here.

#include <zel/common/ProgressBarOutputInterface.h>
#include <zel/tasks/CustomComplexTask.h>
#include <zel/tasks/GroupTask.h>
#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QLibraryInfo>
#include <QLocale>
#include <QPointer>
#include <QThread>
#include <QTimer>
#include <QTranslator>

#include <chrono>
#include <cstdio>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace zel;

namespace {

void print(const QString &line)
{
    std::puts(qPrintable(line));
}

Error compute(int)
{
    return NoError;
}

Error load()
{
    return Error(NotFound, u"There are no settings."_s);
}

void tenTasks()
{
    TasksQueue queue;
    queue.setMaxRunningTasksCount(4);

    GroupTask all;
    QObject::connect(&all, &GroupTask::progress, [](int value, int total) {
        if (value == total)
            print(u"%1 of %2 are done"_s.arg(value).arg(total));
    });
    for (int number = 1; number <= 10; ++number) {
        auto *task = new Task([number] { return compute(number); }, Task::WorkingThread);
        task->setThreadTerminationEnabled(false); // cancel() lets the work end
        task->setProgress(0, 1);
        QObject::connect(task, &Task::finished, task, [task] { task->setProgress(1, 1); });
        all.append(task); // deletes it when it has finished
        queue.append(task);
    }

    const Error error = all.waitForFinished(30s);
    if (error.equals(Timeout))
        all.cancel();
    print(error.hasError() ? error.displayText() : u"all went well"_s);
}

void runOnAThread()
{
    Task task([] { return load(); }, Task::WorkingThread);
    QObject::connect(&task, &Task::finished, &task,
                     [&task] { print(task.isSuccessful() ? u"loaded"_s : task.error().displayText()); });
    task.exec();
    task.waitForFinished();
}

QCoro::Task<Error> loadAndShow()
{
    Task task(load, Task::WorkingThread);
    task.exec();
    const Error error = co_await &task;
    print(u"load: "_s + error.displayText());
    co_return error;
}

void runACoroutine()
{
    Task task(loadAndShow);
    task.exec();
    task.waitForFinished();
}

Error indexFiles(int count)
{
    for (int file = 0; file < count; ++file) {
        if (QThread::currentThread()->isInterruptionRequested())
            return Canceled;
        QThread::msleep(1); // the work on one file
    }
    return NoError;
}

void cancelSafely()
{
    Task task([] { return indexFiles(1'000'000); }, Task::WorkingThread);
    task.setThreadTerminationEnabled(false); // never by force
    task.setThreadWaitTime(2s);              // how long cancel() waits for the work to notice
    task.exec();
    task.cancel();
    print(task.error().displayText());
}

void cancelWithTimeOut()
{
    Task task([] { return indexFiles(1'000'000); }, Task::WorkingThread);
    task.setThreadWaitTime(2s);
    task.exec();
    QTimer::singleShot(20ms, &task, &Task::cancel);
    print(task.waitForFinished().displayText());
}

void finishLater()
{
    Task task(
        [](Task *self) {
            QTimer::singleShot(10ms, self, [self] { self->finish(Error(NotFound, u"Nobody answers."_s)); });
            return NoError;
        },
        Task::Asynchronous);
    task.exec();
    print(task.waitForFinished().displayText());
}

class Console : public ProgressBarOutputInterface {
public:
    void showProgress(int value, int total) override { print(u"%1 %"_s.arg(100 * value / total)); }
    void showProgressText(const QString &text) override { print(text); }
};

void reportProgress()
{
    const auto work = [](Task *task) {
        task->setProgressText(u"Sorting"_s);
        for (int step = 1; step <= 2; ++step)
            task->setProgress(step, 2);
        return Error();
    };
    Task task(work, Task::WorkingThread);
    Console console;
    task.connectTo(&console); // a button of the console may cancel the task
    task.exec();
    task.waitForAllFinished();
    QCoreApplication::processEvents();
}

void stopEverything()
{
    TasksQueue queue;
    QObject owner;
    for (int i = 0; i < 3; ++i)
        queue.append(new Task([] { return indexFiles(1'000'000); }, Task::WorkingThread, &owner));
    const auto tasks = owner.findChildren<Task *>();
    for (Task *task : tasks)
        task->setThreadWaitTime(2s);

    queue.clear(TasksQueue::Cancel);
    print(u"%1 tasks are left in the queue"_s.arg(queue.count()));
}

void raiseTheLimit()
{
    TasksQueue queue;
    queue.setMaxRunningTasksCount(0);
    Task task;
    queue.append(&task);

    queue.setMaxRunningTasksCount(2); // starts nothing by itself
    queue.tryExec();
    print(task.stateString());
}

void waitUntilIdle()
{
    TasksQueue queue;
    Task task([] { return compute(1); }, Task::WorkingThread);
    queue.append(&task);

    QEventLoop loop;
    QObject::connect(&queue, &TasksQueue::stateChanged, &loop, [&loop](TasksQueue::State state) {
        if (state == TasksQueue::Idle)
            loop.quit();
    });
    if (queue.count() > 0) // an empty queue emits nothing
        loop.exec();
    print(task.stateString());
}

void runAgain()
{
    int runs = 0;
    Task task([&runs] { return ++runs < 3 ? Error(Busy) : Error(); });
    do
        task.exec();
    while (task.error().equals(Busy));
    print(u"%1 runs"_s.arg(runs));
}

void deleteItself()
{
    auto *task = new Task([] { return compute(1); }, Task::WorkingThread);
    task->setDeleteOnFinished(true);
    task->exec();

    QEventLoop loop;
    QObject::connect(task, &QObject::destroyed, &loop, &QEventLoop::quit);
    loop.exec();
    print(u"gone"_s);
}

void translate(const QString &translationsFolder)
{
    QTranslator translator;
    if (translator.load(QLocale(), u"zel_tasks"_s, u"_"_s, translationsFolder))
        QCoreApplication::installTranslator(&translator);
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    tenTasks();
    runOnAThread();
    runACoroutine();
    cancelSafely();
    cancelWithTimeOut();
    finishLater();
    reportProgress();
    stopEverything();
    raiseTheLimit();
    waitUntilIdle();
    runAgain();
    deleteItself();
    translate(QLibraryInfo::path(QLibraryInfo::TranslationsPath));
}
