// What becomes of five tasks when one of them fails: all failure policies of a group and both ways to stop children.
//
// A queue runs two of them at a time. There is no real work: a clock of the program ends each task when its time is up.

#include <zel/tasks/GroupTask.h>
#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>

#include <cstdio>
#include <iterator>

using namespace Qt::StringLiterals;
using namespace zel;

namespace {

struct Plan {
    const char *name;
    int duration;
    Error outcome;
};
const Plan plans[] = {
    {"mail", 1, NoError},     {"photos", 2, Error(OutOfResources, u"disk full"_s)},
    {"music", 3, NoError},    {"letters", 1, NoError},
    {"settings", 2, NoError},
};

/// One run of the five, under one pair of settings.
class Backup {
public:
    Backup(GroupTask::ChildFailurePolicy policy, GroupTask::CancelSubtasksMode mode)
    {
        m_queue.setMaxRunningTasksCount(2);
        m_group.setChildFailurePolicy(policy);
        m_group.setCancelSubtasksMode(mode);
        // The tasks belong to this object, which looks at them when the group has ended.
        m_group.setCleanupPolicy(GroupTask::SelfDelete);
        for (const Plan &plan : plans)
            add(plan);
    }

    /// What became of each task and when, then the error of the group.
    QStringList run()
    {
        const QList<Task *> tasks = m_group.executableSubtasks();
        m_queue.append(tasks);
        QStringList outcomes(tasks.size());
        for (int time = 1; !m_group.isFinished(); ++time) {
            for (Task *task : tasks)
                advance(task);
            QCoreApplication::processEvents();
            for (qsizetype index = 0; index < tasks.size(); ++index) {
                if (outcomes[index].isEmpty() && tasks[index]->isFinished())
                    outcomes[index] = u"%1 at %2"_s.arg(outcomeOf(tasks[index])).arg(time);
            }
        }
        return outcomes << m_group.error().displayText();
    }

private:
    void add(const Plan &plan)
    {
        auto *task = new Task(Task::Asynchronous, &m_owner);
        task->setName(QString::fromLatin1(plan.name));
        task->setProgress(0, plan.duration);
        QObject::connect(task, &Task::finished, task, [task] { task->setVariantResult(true); });
        m_group.append(task);
    }

    void advance(Task *task)
    {
        if (!task->isRunning())
            return;
        task->setProgress(task->currentProgress() + 1, task->totalProgress());
        if (task->currentProgress() == task->totalProgress())
            task->finish(plans[m_group.subtasks().indexOf(task)].outcome);
    }

    // A task that was stopped quietly has neither an error nor a finished().
    static QString outcomeOf(const Task *task)
    {
        if (!task->variantResult().toBool())
            return u"stopped"_s;
        return task->isCanceled() ? u"canceled"_s : task->hasError() ? u"failed"_s : u"done"_s;
    }

    QObject m_owner;
    TasksQueue m_queue;
    GroupTask m_group;
};

void printRow(const QString &policy, const QStringList &cells)
{
    QString row = policy.leftJustified(21);
    for (const QString &cell : cells)
        row += u' ' + cell.leftJustified(13);
    std::puts(qPrintable(row.trimmed()));
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    QStringList names;
    for (const Plan &plan : plans)
        names.append(QString::fromLatin1(plan.name));
    constexpr const char *policies[] = {"FailFast", "ContinueOnFailure", "CancelIdleOnFailure"};
    constexpr const char *modes[] = {"CancelSubtasks", "FinishSubtasks"};
    for (int mode = 0; mode < int(std::size(modes)); ++mode) {
        printRow(QString::fromLatin1(modes[mode]), names + QStringList{u"the group"_s});
        for (int policy = 0; policy < int(std::size(policies)); ++policy) {
            Backup backup{GroupTask::ChildFailurePolicy(policy), GroupTask::CancelSubtasksMode(mode)};
            printRow(QString::fromLatin1(policies[policy]), backup.run());
        }
    }
}
