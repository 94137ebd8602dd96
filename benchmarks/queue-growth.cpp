// queue-growth: what an operation of a queue costs per task, in a queue of 10,000 and in one of 1,000,000 tasks.
//
// Each measurement is a process of its own: one that comes later in the same process would find memory that earlier
// ones left mapped, warm or scattered, and measure that.

#include <zel/tasks/Task.h>
#include <zel/tasks/TaskTestUtils.h>
#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QProcess>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <vector>

#include <malloc.h>

using namespace Qt::StringLiterals;
using zel::Task;
using zel::TasksQueue;

namespace {

struct Size {
    int tasks;
    int runs;
};
constexpr Size small{10'000, 31};
constexpr Size large{1'000'000, 5};

void expect(bool isTrue, const char *what)
{
    if (!isTrue)
        qFatal("queue-growth: %s", what);
}

/// Makes the system map the memory that \a count tasks and their connections will take: that is its work, not ours.
void mapMemory(int count)
{
    constexpr size_t perTask = 4096;
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, -1);
    void *memory = std::malloc(perTask * size_t(count));
    std::memset(memory, 1, perTask * size_t(count));
    std::free(memory);
}

/// A paused queue and tasks for it, which stand before anything is timed.
class Bench {
public:
    explicit Bench(int count) : m_tasks(count)
    {
        std::generate(m_tasks.begin(), m_tasks.end(),
                      [] { return std::make_unique<Task>(zel::TaskTestUtils::blankFunc); });
        m_queue.pause();
    }

    void append()
    {
        for (const auto &task : m_tasks)
            m_queue.append(task.get());
        expect(m_queue.pendingTasksCount() == int(m_tasks.size()), "not all tasks are pending");
    }

    void changePriorities()
    {
        int number = 0;
        for (const auto &task : m_tasks)
            task->setPriority(2 + number++ % 8);
        QCoreApplication::sendPostedEvents();
        expect(m_queue.pendingTasksCount() == int(m_tasks.size()), "not all tasks are pending");
    }

    void clear()
    {
        m_queue.clear();
        expect(m_queue.isEmpty(), "not all tasks were cleared");
    }

    void drain()
    {
        QEventLoop loop;
        QObject::connect(&m_queue, &TasksQueue::stateChanged, &loop, [&loop](TasksQueue::State state) {
            if (state == TasksQueue::Idle)
                loop.quit();
        });
        m_queue.resume();
        loop.exec();
        expect(m_tasks.back()->isSuccessful(), "not all tasks were run");
    }

private:
    std::vector<std::unique_ptr<Task>> m_tasks;
    TasksQueue m_queue;
};

struct Operation {
    const char *name;
    bool isOnPending;
    void (Bench::*call)();
};
constexpr Operation operations[] = {
    {"append", false, &Bench::append},
    {"drain", true, &Bench::drain},
    {"setPriority", true, &Bench::changePriorities},
    {"clear", true, &Bench::clear},
};

/// Prints the nanoseconds per task.
void measure(const Operation &operation, int count)
{
    mapMemory(count);
    Bench bench(count);
    if (operation.isOnPending)
        bench.append();
    QElapsedTimer timer;
    timer.start();
    (bench.*operation.call)();
    std::printf("%f\n", double(timer.nsecsElapsed()) / count);
    std::fflush(stdout);
    // Taking the world down again is no part of it.
    std::_Exit(0);
}

double medianCost(int operation, const Size &size)
{
    std::vector<double> costs;
    for (int run = 0; run < size.runs; ++run) {
        QProcess process;
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.start(QCoreApplication::applicationFilePath(),
                      {QString::number(operation), QString::number(size.tasks)});
        expect(process.waitForFinished(-1) && process.exitCode() == 0, "a measurement failed");
        costs.push_back(process.readAllStandardOutput().trimmed().toDouble());
    }
    const auto middle = costs.begin() + size.runs / 2;
    std::nth_element(costs.begin(), middle, costs.end());
    return *middle;
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    if (argc == 3)
        measure(operations[atoi(argv[1])], atoi(argv[2]));

    std::printf("ns per task, medians of %d and %d processes\n\n", small.runs, large.runs);
    std::printf("%-12s %10d %10d %7s\n", "operation", small.tasks, large.tasks, "ratio");
    for (int operation = 0; operation < int(std::size(operations)); ++operation) {
        const double few = medianCost(operation, small);
        const double many = medianCost(operation, large);
        std::printf("%-12s %10.0f %10.0f %7.2f\n", operations[operation].name, few, many, many / few);
        std::fflush(stdout);
    }
}
