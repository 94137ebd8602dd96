#include "support/EventLog.h"
#include "support/Rows.h"
#include "support/Waiting.h"

#include <zel/tasks/Task.h>

#include <QPointer>
#include <QThread>

#include <memory>
#include <optional>

using namespace Qt::StringLiterals;
using namespace zel;

namespace {

const QString start = u"stateChanged(Running) started "_s;
const QString endOfRun = u"stateChanged(Finalizing) finalizing stateChanged(Finished) finished"_s;

struct Execution {
    int mode;
    std::optional<Error> result; // of the work, where there is any
    bool endsInExec;
    QString place;
    QString eventsAfterStart;
};

constexpr auto allModes = {Task::Synchronous, Task::WorkingThread, Task::Coroutine, Task::Asynchronous};

} // namespace

class TaskTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { failOnQtWarnings(); }

    void constructorsChooseModeAndWork()
    {
        Task plain([] { return Error(Timeout); });
        Task knowing([](Task *task) { return Error(task->isRunning() ? Timeout : GeneralError); });
        Task code([] { return Timeout; });
        Task coroutine([]() -> QCoro::Task<Error> { co_return Error(Timeout); });
        Task knowingCoroutine([](Task *) -> QCoro::Task<Error> { co_return Error(Timeout); });
        for (Task *task : {&plain, &knowing, &code, &coroutine, &knowingCoroutine}) {
            task->exec();
            QVERIFY(task->error().equals(Timeout));
        }
    }

    void modeDecidesWhereWorkRunsAndWhatEndsTheTask_data()
    {
        const std::optional<Error> none, good = Error(), bad = Error(GeneralError, u"x"_s);
        const QString success = u"errorChanged(NoError) "_s + endOfRun;
        const QString failure = u"errorChanged(GeneralError) "_s + endOfRun;
        addRows<Execution>({
            {"synchronous, fails", {Task::Synchronous, bad, true, u"here"_s, failure}},
            {"thread, succeeds", {Task::WorkingThread, good, false, u"elsewhere"_s, success}},
            {"coroutine, function without a factory", {Task::Coroutine, bad, true, u"nowhere"_s, success}},
            {"asynchronous, succeeds", {Task::Asynchronous, good, false, u"here"_s, QString()}},
            {"asynchronous, fails", {Task::Asynchronous, bad, true, u"here"_s, failure}},
        });
    }

    void modeDecidesWhereWorkRunsAndWhatEndsTheTask()
    {
        QFETCH(const Execution, row);
        QString place = u"nowhere"_s;
        Task task(Task::ExecutionMode(row.mode), nullptr);
        if (row.result) {
            task.setFunction([&] {
                place = QThread::currentThread() == task.thread() ? u"here"_s : u"elsewhere"_s;
                return *row.result;
            });
        }
        EventLog events(&task);
        task.exec();
        QCOMPARE(task.state(), row.endsInExec ? BaseTask::Finished : BaseTask::Running);
        if (!row.eventsAfterStart.isEmpty())
            QTRY_VERIFY(task.isFinished());
        drainEvents();
        QCOMPARE(events.take().trimmed(), QString(start + row.eventsAfterStart).trimmed());
        QCOMPARE(place, row.place);
        if (task.isRunning())
            task.finish(Error(Timeout));
    }

    void handlerThatEndsTheTaskStartsNothing()
    {
        for (const QString &event : {u"stateChanged(Running)"_s, u"started"_s, u"restarted"_s}) {
            for (const auto mode : allModes) {
                bool ran = false;
                Task task;
                task.exec(); // so that there is a restart
                task.setFunction([&]() -> QCoro::Task<Error> { co_return ran = true, Error(); });
                task.setFunction([&] { return ran = true, Error(); }, mode);
                EventLog events(&task);
                events.on(event, [&] { task.finish(Error(Timeout)); });
                task.exec();
                drainEvents();
                QVERIFY(task.error().equals(Timeout) && !ran);
                QCOMPARE(events.take().count(u" finished"), 1);
            }
        }
    }

    void workOfATaskThatDoesNotRunIsRefused()
    {
        bool ran = false;
        Task task([&] { return ran = true, Error(); });
        EventLog events(&task);
        events.on(u"started"_s, [&] { task.pause(); });
        task.exec();
        QCOMPARE(task.error(), Error(GeneralError, u"Task is not running"_s));
        QVERIFY(task.isFinished() && !ran);
    }

    void lateResultDoesNotEndALaterRun()
    {
        for (int bits = 0; bits < 4; ++bits) {
            const bool runsAgain = bits & 1;
            const auto work = [&](Task *self) {
                bits & 2 ? self->setIdle() : self->finish();
                self->setFunction([] { return Error(); }, Task::Asynchronous);
                if (runsAgain)
                    self->exec();
                return Error(GeneralError, u"of the first run"_s);
            };
            Task task(work);
            task.exec();
            QCOMPARE(task.isRunning(), runsAgain);
            task.finish();
            QVERIFY(task.isSuccessful());
        }
    }

    void replacedFunctionLivesToItsEnd()
    {
        const auto token = std::make_shared<int>(1);
        Task task;
        task.setFunction([token, &task] {
            task.setFunction(std::function<Error()>());
            return Error(ErrorCode(1000 + *token));
        });
        task.exec();
        QVERIFY(task.error().equals(ErrorCode(1001)));
        QCOMPARE(token.use_count(), 1);
    }

    void handlerMayDeleteTheTask()
    {
        for (const auto mode : allModes) {
            const auto makeTask = [mode] {
                auto *task = new Task([] { return Error(GeneralError); });
                task->setFunction([]() -> QCoro::Task<Error> { co_return Error(Canceled); });
                task->setExecutionMode(mode);
                task->setFinished(); // for a restart
                return task;
            };
            const auto exec = [](BaseTask *task) {
                const QPointer<BaseTask> guard = task;
                static_cast<Task *>(task)->exec();
                QVERIFY(QTest::qWaitFor([&] { return !guard || guard->isFinished(); }));
            };
            QCOMPARE(eventsAfterDeletion(makeTask, exec), QString());
        }
    }

    void destructionIsAnnouncedWhileTheTaskIsWhole()
    {
        auto *task = new Task(Task::Asynchronous);
        task->exec();
        EventLog events(task);
        events.on(u"aboutToDestroy"_s, [&] {
            task->setPriority(2);
            task->cancel();
        });
        delete task;
        QCOMPARE(events.take(), u"aboutToDestroy priorityChanged(2) canceled errorChanged(Canceled) "_s + endOfRun);
    }
};

QTEST_GUILESS_MAIN(TaskTest)
#include "tst_task.moc"
