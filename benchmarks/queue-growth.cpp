// queue-growth: what the operations of a queue cost per task, in queues of 10,000 and of 1,000,000 tasks.
//
// A million tasks do not fit into the processor's caches, which slows down whatever touches them. So the large queue
// is compared with a small one, and with a hundred small ones that hold as many tasks together: the second ratio shows
// the queue alone.

#include <zel/tasks/Task.h>
#include <zel/tasks/TaskTestUtils.h>
#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>
#include <memory>
#include <vector>

using zel::Task;
using zel::TasksQueue;

namespace {

constexpr const char *operationNames[] = {"append", "drain", "setPriority", "clear"};

/// Nanoseconds per task of each operation.
using Costs = std::array<double, std::size(operationNames)>;

void expect(bool isTrue, const char *what)
{
    if (!isTrue)
        qFatal("queue-growth: %s", what);
}

/// A paused queue and the tasks for it.
struct TestQueue {
    explicit TestQueue(int size) : tasks(size)
    {
        queue.pause();
        for (auto &task : tasks)
            task = std::make_unique<Task>(zel::TaskTestUtils::blankFunc);
    }

    std::vector<std::unique_ptr<Task>> tasks;
    TasksQueue queue;
};

/// Queues of the same size.
class Queues {
public:
    Queues(int count, int size) : m_queues(count), m_tasksCount(double(count) * size)
    {
        for (auto &queue : m_queues)
            queue = std::make_unique<TestQueue>(size);
    }

    /// Does \a operation to each queue. Returns the nanoseconds per task.
    template <typename Operation>
    double cost(Operation operation)
    {
        QElapsedTimer timer;
        timer.start();
        for (auto &queue : m_queues)
            operation(*queue);
        return double(timer.nsecsElapsed()) / m_tasksCount;
    }

private:
    std::vector<std::unique_ptr<TestQueue>> m_queues;
    const double m_tasksCount;
};

void append(TestQueue &test)
{
    for (const auto &task : test.tasks)
        test.queue.append(task.get());
}

void drain(TestQueue &test)
{
    QEventLoop loop;
    QObject::connect(&test.queue, &TasksQueue::stateChanged, &loop, [&loop](TasksQueue::State state) {
        if (state == TasksQueue::Idle)
            loop.quit();
    });
    test.queue.resume();
    loop.exec();
    expect(test.tasks.front()->isSuccessful() && test.tasks.back()->isSuccessful(), "not all tasks were run");
}

void changePriorities(TestQueue &test)
{
    int number = 0;
    for (const auto &task : test.tasks)
        task->setPriority(2 + number++ % 8);
    QCoreApplication::sendPostedEvents();
    expect(test.queue.pendingTasksCount() == number, "not all tasks are pending");
}

void clear(TestQueue &test)
{
    test.queue.clear();
    expect(test.queue.isEmpty(), "not all tasks were cleared");
}

template <typename Operation>
double costAfterAppend(int queues, int size, Operation operation)
{
    Queues filled(queues, size);
    filled.cost(append);
    return filled.cost(operation);
}

Costs measure(int queues, int size)
{
    return {Queues(queues, size).cost(append), costAfterAppend(queues, size, drain),
            costAfterAppend(queues, size, changePriorities), costAfterAppend(queues, size, clear)};
}

Costs medianCosts(int queues, int size, int runs)
{
    std::vector<Costs> all(runs);
    std::generate(all.begin(), all.end(), [queues, size] { return measure(queues, size); });
    Costs result;
    for (size_t operation = 0; operation < result.size(); ++operation) {
        const auto middle = all.begin() + runs / 2;
        std::nth_element(all.begin(), middle, all.end(), [operation](const Costs &left, const Costs &right) {
            return left[operation] < right[operation];
        });
        result[operation] = (*middle)[operation];
    }
    return result;
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const Costs one = medianCosts(1, 10'000, 51);
    const Costs hundred = medianCosts(100, 10'000, 3);
    const Costs large = medianCosts(1, 1'000'000, 3);
    std::printf("Nanoseconds per task (medians of 51, 3 and 3 runs)\n\n");
    std::printf("%-12s %10s %12s %13s %10s %12s\n", "", "10,000", "100x 10,000", "1x 1,000,000", "to 10,000",
                "to 100x");
    for (size_t i = 0; i < large.size(); ++i) {
        std::printf("%-12s %10.0f %12.0f %13.0f %10.2f %12.2f\n", operationNames[i], one[i], hundred[i], large[i],
                    large[i] / one[i], large[i] / hundred[i]);
    }
}
