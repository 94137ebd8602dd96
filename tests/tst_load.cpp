#include "support/Waiting.h"

#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QRandomGenerator>
#include <QTest>
#include <QThread>

#include <deque>
#include <memory>

using namespace zel;

namespace {

/// What a thread does to two queues of another thread with tasks of its own, until the time is over.
void useQueues(TasksQueue *queued, TasksQueue *direct, quint32 seed)
{
    QRandomGenerator random(seed);
    std::deque<std::unique_ptr<Task>> tasks;
    const auto any = [&] { return tasks.at(size_t(random.bounded(int(tasks.size())))).get(); };
    for (const QDeadlineTimer end(1500); !end.hasExpired();) {
        const auto mode = random.bounded(30) == 0 ? Task::WorkingThread : Task::Synchronous;
        tasks.push_back(std::make_unique<Task>([] { return Error(); }, mode));
        (random.bounded(4) ? queued : direct)->append(tasks.back().get());
        switch (random.bounded(6)) {
        case 0:
            tasks.erase(tasks.begin() + random.bounded(int(tasks.size())));
            break;
        case 1:
            any()->setPriority(random.bounded(10));
            break;
        case 2:
            queued->removeTask(any());
            break;
        case 3:
            any()->setCountAsRunning(random.bounded(2));
            break;
        case 4:
            random.bounded(50) ? void(direct->count()) : queued->clear();
            break;
        case 5:
            QCoreApplication::processEvents();
            break;
        }
        if (tasks.size() > 100)
            tasks.pop_front();
    }
}

} // namespace

class tst_load : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void tasksOfOtherThreadsMayGoAtAnyTime();
};

// Under the address sanitizer it shows that no queue touches a task that is gone, and here that no slot is lost.
void tst_load::tasksOfOtherThreadsMayGoAtAnyTime()
{
    const quint32 seed = QRandomGenerator::global()->generate();
    qInfo() << "seed" << seed;
    TasksQueue queued;
    TasksQueue direct;
    direct.setConnectionType(Qt::DirectConnection);
    std::vector<std::unique_ptr<QThread>> threads;
    for (quint32 number = 0; number < 3; ++number) {
        threads.emplace_back(QThread::create(useQueues, &queued, &direct, seed + number));
        threads.back()->start();
    }
    for (const auto &thread : threads)
        QTRY_VERIFY_WITH_TIMEOUT(thread->isFinished(), 60'000);
    for (const TasksQueue *queue : {&queued, &direct}) {
        QTRY_COMPARE_WITH_TIMEOUT(queue->state(), TasksQueue::Idle, 10'000);
        QCOMPARE(queue->count(), 0);
    }
}

QTEST_GUILESS_MAIN(tst_load)
#include "tst_load.moc"
