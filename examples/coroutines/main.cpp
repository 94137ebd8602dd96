// A coroutine that prepares a report: it awaits a timer, a process and several tasks, one of them with a time-out.

#include <zel/tasks/Task.h>

#include <QCoro/QCoroProcess>
#include <QCoro/QCoroTimer>

#include <QCoreApplication>
#include <QProcess>
#include <QThread>
#include <QTimer>

#include <chrono>
#include <cstdio>
#include <memory>
#include <vector>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace zel;

namespace {

void say(const QString &line)
{
    std::puts(qPrintable(line));
}

QString describe(const Error &error)
{
    return error.hasError() ? u"%1 (%2)"_s.arg(Error::codeName(error.code()), error.displayText()) : u"done"_s;
}

// Stands for a computation; a task keeps its result for whoever asks.
Error addUp(Task *task, int last)
{
    qint64 sum = 0;
    for (int number = 1; number <= last; ++number)
        sum += number;
    task->setVariantResult(sum);
    return NoError;
}

// Work that would take for ever, and stops when it is asked to.
Error listenForever()
{
    while (!QThread::currentThread()->isInterruptionRequested())
        QThread::msleep(1);
    return Error(Interrupted);
}

QCoro::Task<Error> pause(std::chrono::milliseconds time)
{
    QTimer timer;
    timer.setSingleShot(true);
    timer.start(time);
    co_await timer;
    co_return NoError;
}

QCoro::Task<Error> printVersion()
{
    QProcess process;
    const QStringList arguments = u"version 1.0"_s.split(u' ');
    co_await qCoro(process).start(u"echo"_s, arguments);
    co_await qCoro(process).waitForFinished();
    say(u"process says: "_s + QString::fromLocal8Bit(process.readAll()).trimmed());
    co_return process.exitCode() == 0 ? Error() : Error(GeneralError, u"echo failed"_s);
}

QCoro::Task<Error> sumUp()
{
    std::vector<std::unique_ptr<Task>> tasks;
    for (const int last : {10, 100, 1000}) {
        tasks.push_back(std::make_unique<Task>([last](Task *task) { return addUp(task, last); }, Task::WorkingThread));
        tasks.back()->exec();
    }
    // All of them are under way; the order of the results is that of this loop.
    for (const auto &task : tasks) {
        if (const Error error = co_await task.get(); error.hasError())
            co_return error;
        say(u"sum: %1"_s.arg(task->variantResult().toLongLong()));
    }
    co_return NoError;
}

// A time-out is a timer that cancels the task: the awaiting coroutine gets the error Canceled.
QCoro::Task<Error> listen(std::chrono::milliseconds timeOut)
{
    Task listener(listenForever, Task::WorkingThread);
    listener.setThreadWaitTime(1s);
    listener.exec();
    QTimer::singleShot(timeOut, &listener, &Task::cancel);
    co_return co_await &listener;
}

QCoro::Task<Error> makeReport()
{
    say(u"pause: "_s + describe(co_await pause(10ms)));
    say(u"process: "_s + describe(co_await printVersion()));
    say(u"sums: "_s + describe(co_await sumUp()));
    say(u"listener: "_s + describe(co_await listen(50ms)));
    co_return Error(NotFound, u"no printer"_s);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    Task report(makeReport);
    QObject::connect(&report, &Task::finished, &app, &QCoreApplication::quit, Qt::QueuedConnection);
    report.exec();
    const int status = QCoreApplication::exec();
    say(u"report: "_s + describe(report.error()));
    return status;
}
