// Long runs: many tasks and many threads leave nothing behind. ZEL_ENDURANCE multiplies their numbers, which are small
// by default: 20 stands for a million tasks and a hundred thousand threads.

#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSemaphore>
#include <QTest>
#include <QThread>

#include <memory>
#include <vector>

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace zel;

namespace {

int manyTimes(int count)
{
    return count * qMax(qEnvironmentVariableIntValue("ZEL_ENDURANCE"), 1);
}

/// Bytes of the heap that are in use; 0 under sanitizers, which have a heap of their own.
size_t heapInUse()
{
    return mallinfo2().uordblks;
}

int entriesOf(const QString &folder)
{
    return int(QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System).size());
}

} // namespace

class EnduranceTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void tasksComeAndGoInConstantMemory();
    void threadsLeaveNothing();
    void threadsThatAreRefusedAreErrors();
    void manyThreadsAtOnce();
};

void EnduranceTest::tasksComeAndGoInConstantMemory()
{
    constexpr int batch = 1'000;
    const int batches = manyTimes(50);
    int ended = 0;
    size_t afterTheFirst = 0;
    TasksQueue queue;
    queue.setCleanupMode(TasksQueue::DeleteFinished);
    for (int round = 0; round < batches; ++round) {
        for (int number = 0; number < batch; ++number) {
            auto *task = new Task([] { return Error(); });
            connect(task, &Task::finished, this, [&ended] { ++ended; });
            queue.append(task);
        }
        QTRY_COMPARE_WITH_TIMEOUT(queue.state(), TasksQueue::Idle, 60'000);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        if (round == 2)
            afterTheFirst = heapInUse();
    }
    QCOMPARE(ended, batches * batch);
    QCOMPARE_LE(heapInUse(), afterTheFirst + 10'000);
}

void EnduranceTest::threadsLeaveNothing()
{
    const auto runOne = [] {
        Task task([] { return Error(); }, Task::WorkingThread);
        task.exec();
        return task.waitForFinished(60'000);
    };
    const auto freeThreads = [] { QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); };
    const auto countHandles = [] { return entriesOf(u"/proc/self/fd"_s); };
    // One that has finished may take a moment to go.
    const auto countThreads = [] { return entriesOf(u"/proc/self/task"_s); };
    size_t heapBefore = 0;
    int handlesBefore = 0;
    int threadsBefore = 0;
    const int count = manyTimes(5'000);
    for (int number = 0; number < count; ++number) {
        QVERIFY(!runOne().hasError());
        freeThreads();
        if (number == 100) {
            heapBefore = heapInUse();
            handlesBefore = countHandles();
            threadsBefore = countThreads();
        }
    }
    QCOMPARE(countHandles(), handlesBefore);
    QTRY_COMPARE_LE_WITH_TIMEOUT(countThreads(), threadsBefore, 30'000);
    QCOMPARE_LE(heapInUse(), heapBefore + 10'000);
}

// In a process of its own, which may have few threads. Root may have any number, so that process is nobody's.
void EnduranceTest::threadsThatAreRefusedAreErrors()
{
    QProcess process;
    process.setChildProcessModifier([] {
        const rlimit limit{12, 12};
        if (setrlimit(RLIMIT_NPROC, &limit) != 0 || (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)))
            _exit(1);
    });
    process.start(QCoreApplication::applicationFilePath(), {u"manyThreadsAtOnce"_s});
    if (!process.waitForStarted())
        QSKIP("This program cannot be run by another user.");
    QVERIFY(process.waitForFinished(120'000));
    const QByteArray printed = process.readAll();
    QVERIFY2(process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0, printed);
    QVERIFY2(printed.contains("some were refused"), printed);
}

// Each ends once, as what it returns or as an error of its own, and a queue goes on.
void EnduranceTest::manyThreadsAtOnce()
{
    QSemaphore release;
    TasksQueue queue;
    queue.setMaxRunningTasksCount(30);
    std::vector<std::unique_ptr<Task>> tasks;
    int refused = 0;
    int ended = 0;
    for (int number = 0; number < 60; ++number) {
        const auto work = [&release] {
            release.acquire();
            return Error();
        };
        tasks.push_back(std::make_unique<Task>(work, Task::WorkingThread));
        Task *task = tasks.back().get();
        task->setThreadTerminationEnabled(false);
        connect(task, &Task::finished, this, [&, task] {
            ++ended;
            refused += int(task->error().equals(GeneralError));
        });
        queue.append(task);
    }
    release.release(60);
    QTRY_COMPARE_WITH_TIMEOUT(queue.state(), TasksQueue::Idle, 60'000);
    QCOMPARE(ended, 60);
    qInfo() << (refused > 0 ? "some were refused" : "none was refused");
}

QTEST_GUILESS_MAIN(EnduranceTest)
#include "tst_endurance.moc"
