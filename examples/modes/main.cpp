// The four ways to run work, side by side: the state right after exec(), the thread of the work, and the end.

#include <zel/tasks/Task.h>

#include <QCoro/QCoroTimer>

#include <QCoreApplication>
#include <QThread>
#include <QTimer>

#include <chrono>
#include <cstdio>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace zel;

namespace {

/// The work, the same in all modes: it keeps as the result whether it is in the main thread.
Error lookAround(Task *task)
{
    const bool isMainThread = QThread::currentThread() == QCoreApplication::instance()->thread();
    task->setVariantResult(isMainThread ? u"main thread"_s : u"thread of its own"_s);
    return NoError;
}

QCoro::Task<Error> lookAroundAndPause(Task *task)
{
    QTimer timer;
    timer.start(10ms);
    co_await timer;
    co_return lookAround(task);
}

void show(const char *mode, Task &task)
{
    task.exec();
    const QString afterExec = task.stateString();
    const bool isSuccessful = !task.waitForFinished(5s).hasError();
    std::printf("%-15s %-12s %-18s %s\n", mode, qPrintable(afterExec), qPrintable(task.variantResult().toString()),
                isSuccessful ? "done" : qPrintable(task.error().displayText()));
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    std::printf("%-15s %-12s %-18s %s\n", "mode", "after exec()", "work ran in", "outcome");

    Task synchronous(lookAround);
    show("Synchronous", synchronous);

    Task workingThread(lookAround, Task::WorkingThread);
    show("WorkingThread", workingThread);

    Task coroutine(lookAroundAndPause);
    show("Coroutine", coroutine);

    // The work only begins something; who sees its end finishes the task.
    const auto begin = [](Task *task) {
        QTimer::singleShot(10ms, task, [task] { task->finish(); });
        return lookAround(task);
    };
    Task asynchronous(begin, Task::Asynchronous);
    show("Asynchronous", asynchronous);
}
