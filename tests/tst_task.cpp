#include "support/EventLog.h"
#include "support/Rows.h"
#include "support/Waiting.h"

#include <zel/tasks/Task.h>
#include <zel/tasks/TaskTestUtils.h>

#include <QPointer>
#include <QThread>

#include <memory>
#include <optional>
#include <stdexcept>

using namespace Qt::StringLiterals;
using namespace zel;

static_assert(std::is_same_v<std::underlying_type_t<Task::ExecutionMode>, int>);
static_assert(Task::Synchronous == 0 && Task::WorkingThread == 1 && Task::Coroutine == 2 && Task::Asynchronous == 3);

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
        Task none(nullptr);
        Task plain([] { return Error(Timeout); });
        Task knowing([](Task *task) { return Error(task->isRunning() ? Timeout : GeneralError); }, Task::Synchronous,
                     this);
        Task code([] { return Timeout; });
        Task blank(TaskTestUtils::blankFunc);
        Task coroutine([]() -> QCoro::Task<Error> { co_return Error(Timeout); });
        Task knowingCoroutine([](Task *) -> QCoro::Task<Error> { co_return Error(Timeout); }, this);
        for (Task *task : {&none, &blank, &plain, &knowing, &code, &coroutine, &knowingCoroutine}) {
            task->exec();
            QVERIFY(task->error().equals(task == &none || task == &blank ? NoError : Timeout));
        }
    }

    void modeDecidesWhereWorkRunsAndWhatEndsTheTask_data()
    {
        const std::optional<Error> none, good = Error(), bad = Error(GeneralError, u"x"_s);
        const QString success = u"errorChanged(NoError) "_s + endOfRun;
        const QString failure = u"errorChanged(GeneralError) "_s + endOfRun;
        addRows<Execution>({
            {"synchronous, no work", {Task::Synchronous, none, true, u"nowhere"_s, success}},
            {"synchronous, fails", {Task::Synchronous, bad, true, u"here"_s, failure}},
            {"thread, no work", {Task::WorkingThread, none, false, u"nowhere"_s, success}},
            {"thread, succeeds", {Task::WorkingThread, good, false, u"elsewhere"_s, success}},
            {"coroutine, function without a factory", {Task::Coroutine, bad, true, u"nowhere"_s, success}},
            {"asynchronous, no work", {Task::Asynchronous, none, false, u"nowhere"_s, QString()}},
            {"asynchronous, succeeds", {Task::Asynchronous, good, false, u"here"_s, QString()}},
            {"asynchronous, fails", {Task::Asynchronous, bad, true, u"here"_s, failure}},
            {"no such mode, succeeds", {7, good, false, u"here"_s, QString()}},
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

    void functionAndFactoryStandSideBySide()
    {
        EventLog runs;
        Task task([&] { return runs.add(u"function"_s), Error(); });
        task.setFunction([&]() -> QCoro::Task<Error> {
            runs.add(u"factory"_s);
            co_return Error();
        });
        task.exec();
        task.setExecutionMode(Task::Synchronous);
        task.exec();
        QCOMPARE(runs.take(), u"factory function"_s);
    }

    void handlerThatEndsTheTaskStartsNothing()
    {
        for (const QString &event : {u"stateChanged(Running)"_s, u"started"_s, u"restarted"_s}) {
            for (const auto mode : allModes) {
                int runs = 0;
                Task task;
                task.exec(); // so that there is a restart
                task.setFunction([&]() -> QCoro::Task<Error> {
                    ++runs;
                    co_return Error();
                });
                task.setFunction([&] { return ++runs, Error(); }, mode);
                EventLog events(&task);
                events.on(event, [&] { task.finish(Error(Timeout)); });
                task.exec();
                QVERIFY(task.isFinished());
                drainEvents();
                QCOMPARE(runs, 0);
                QVERIFY(task.error().equals(Timeout));
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

    void workMayEndItsOwnTask()
    {
        for (const auto mode : {Task::Synchronous, Task::Asynchronous}) {
            Task task([](Task *self) { return self->finish(Error(Timeout)), Error(GeneralError); }, mode);
            EventLog events(&task);
            task.exec();
            QVERIFY(task.error().equals(Timeout));
            QCOMPARE(events.take().count(u" finished"), 1);
        }
    }

    void lateResultDoesNotEndALaterRun()
    {
        for (const bool throughIdle : {false, true}) {
            Task task([&](Task *self) {
                throughIdle ? self->setIdle() : self->finish();
                self->setFunction([] { return Error(); }, Task::Asynchronous);
                self->exec();
                return Error(GeneralError, u"of the first run"_s);
            });
            task.exec();
            QVERIFY(task.isRunning());
            task.finish();
            QVERIFY(task.isSuccessful());
        }
    }

    void replacedFunctionLivesToItsEnd()
    {
        const auto token = std::make_shared<int>(1);
        Task task;
        task.setFunction([token, &task] {
            task.setFunction([] { return Error(Timeout); });
            return Error(ErrorCode(1000 + *token));
        });
        task.exec();
        QVERIFY(task.error().equals(ErrorCode(1001)));
        QCOMPARE(token.use_count(), 1);
        task.exec();
        QVERIFY(task.error().equals(Timeout));
    }

    void exceptionLeavesTheTaskRunning()
    {
        for (const auto mode : {Task::Synchronous, Task::Asynchronous}) {
            Task task([]() -> Error { throw std::runtime_error("work"); }, mode);
            QVERIFY_THROWS_EXCEPTION(std::runtime_error, task.exec());
            QVERIFY(task.isRunning());
            task.setFunction([] { return Error(Timeout); });
            task.exec();
            QVERIFY(task.isFinished() && task.error().equals(Timeout));
        }
    }

    void emptyFunctionIsNoWork()
    {
        for (const auto mode : {Task::Synchronous, Task::WorkingThread, Task::Coroutine}) {
            Task task;
            task.setFunction(std::function<QCoro::Task<Error>(Task *)>());
            task.setFunction(std::function<Error()>(), mode);
            task.exec();
            QTRY_VERIFY(task.isSuccessful());
        }
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
        EventLog events(task);
        events.on(u"aboutToDestroy"_s, [&] {
            QCOMPARE(task->priority(), 1);
            task->setPriority(2);
            task->cancel();
        });
        task->exec();
        events.take();
        delete task;
        QCOMPARE(events.take(), u"aboutToDestroy priorityChanged(2) canceled errorChanged(Canceled) "_s + endOfRun);
    }
};

QTEST_GUILESS_MAIN(TaskTest)
#include "tst_task.moc"
