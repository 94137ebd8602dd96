#include "support/EventLog.h"
#include "support/LogCapture.h"
#include "support/Waiting.h"

#include <zel/tasks/Task.h>
#include <zel/tasks/TaskTestUtils.h>

#include <QPointer>
#include <QTest>
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

class OpenTask : public Task {
public:
    using Task::doExec;
    using Task::Task;
};

enum Place {
    Nowhere,
    Here,
    Elsewhere,
};

} // namespace

class TaskTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { failOnQtWarnings(); }

    void constructorsChooseModeAndWork()
    {
        QObject parent;
        const auto plain = [] { return Error(Timeout); };
        const auto withTask = [](Task *task) { return Error(GeneralError, task->name()); };
        const auto factory = []() -> QCoro::Task<Error> { co_return Error(Interrupted); };
        const auto factoryWithTask = [](Task *) -> QCoro::Task<Error> { co_return Error(Busy); };

        Task none(nullptr);
        Task child(&parent);
        Task asynchronous(Task::Asynchronous, &parent);
        Task synchronous(plain);
        Task threaded(plain, Task::WorkingThread);
        Task knowing(withTask, Task::Synchronous, &parent);
        Task coroutine(factory);
        Task knowingCoroutine(factoryWithTask, &parent);
        Task code([] { return Canceled; });
        Task blank(TaskTestUtils::blankFunc);

        for (Task *task : {&child, &asynchronous, &knowing, &knowingCoroutine})
            QCOMPARE(task->parent(), &parent);
        QCOMPARE(asynchronous.executionMode(), Task::Asynchronous);
        QCOMPARE(threaded.executionMode(), Task::WorkingThread);
        for (Task *task : {&none, &synchronous, &knowing, &code, &blank})
            QCOMPARE(task->executionMode(), Task::Synchronous);
        QCOMPARE(coroutine.executionMode(), Task::Coroutine);
        QCOMPARE(knowingCoroutine.executionMode(), Task::Coroutine);

        for (Task *task : {&none, &synchronous, &knowing, &code, &blank})
            task->exec();
        QVERIFY(none.isSuccessful() && blank.isSuccessful());
        QVERIFY(synchronous.error().equals(Timeout) && knowing.error().equals(GeneralError));
        QVERIFY(code.error().equals(Canceled) && code.isCanceled());
    }

    void modeDecidesWhereWorkRunsAndWhatEndsTheTask_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<std::optional<Error>>("result"); // of the work, where there is any
        QTest::addColumn<bool>("endsInExec");
        QTest::addColumn<int>("place");
        QTest::addColumn<QString>("eventsAfterStart");

        using Result = std::optional<Error>;
        const Result none;
        const Result good = Error();
        const Result bad = Error(GeneralError, u"x"_s);
        const QString success = u"errorChanged(NoError) "_s + endOfRun;
        const QString failure = u"errorChanged(GeneralError) "_s + endOfRun;

        QTest::newRow("synchronous, no work") << int(Task::Synchronous) << none << true << int(Nowhere) << success;
        QTest::newRow("synchronous, succeeds") << int(Task::Synchronous) << good << true << int(Here) << success;
        QTest::newRow("synchronous, fails") << int(Task::Synchronous) << bad << true << int(Here) << failure;
        QTest::newRow("thread, no work") << int(Task::WorkingThread) << none << false << int(Nowhere) << success;
        QTest::newRow("thread, succeeds") << int(Task::WorkingThread) << good << false << int(Elsewhere) << success;
        QTest::newRow("thread, fails") << int(Task::WorkingThread) << bad << false << int(Elsewhere) << failure;
        // The function stands beside the coroutine factory, which is missing here.
        QTest::newRow("coroutine, function only") << int(Task::Coroutine) << bad << true << int(Nowhere) << success;
        for (const int mode : {int(Task::Asynchronous), 7, -1}) {
            QTest::addRow("mode %d, no work", mode) << mode << none << false << int(Nowhere) << QString();
            QTest::addRow("mode %d, succeeds", mode) << mode << good << false << int(Here) << QString();
            QTest::addRow("mode %d, fails", mode) << mode << bad << true << int(Here) << failure;
        }
    }

    void modeDecidesWhereWorkRunsAndWhatEndsTheTask()
    {
        QFETCH(int, mode);
        QFETCH(std::optional<Error>, result);
        QFETCH(bool, endsInExec);
        QFETCH(int, place);
        QFETCH(QString, eventsAfterStart);

        int ranAt = Nowhere;
        Task task(Task::ExecutionMode(mode), nullptr);
        if (result) {
            task.setFunction([&] {
                ranAt = QThread::currentThread() == task.thread() ? Here : Elsewhere;
                return *result;
            });
        }
        EventLog events(&task);
        task.exec();
        QCOMPARE(task.isFinished(), endsInExec);
        QVERIFY(endsInExec || task.isRunning());
        if (!eventsAfterStart.isEmpty())
            QTRY_VERIFY(task.isFinished());
        drainEvents();
        QCOMPARE(events.take().trimmed(), QString(start + eventsAfterStart).trimmed());
        QCOMPARE(ranAt, place);
        if (task.isFinished())
            return;

        task.finish(Error(Timeout));
        QCOMPARE(events.take(), u"errorChanged(Timeout) "_s + endOfRun);
    }

    void functionAndFactoryStandSideBySide()
    {
        int plainRuns = 0;
        int factoryRuns = 0;
        Task task([&] {
            ++plainRuns;
            return Error();
        });
        task.setFunction([&]() -> QCoro::Task<Error> {
            ++factoryRuns;
            co_return Error();
        });
        QCOMPARE(task.executionMode(), Task::Coroutine);
        task.exec();
        QVERIFY(task.isSuccessful());
        QCOMPARE(plainRuns, 0);
        QCOMPARE(factoryRuns, 1);

        task.setExecutionMode(Task::Synchronous);
        task.exec();
        QVERIFY(task.isSuccessful());
        QCOMPARE(plainRuns, 1);
        QCOMPARE(factoryRuns, 1);
    }

    void handlerThatEndsTheTaskStartsNothing_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<QString>("event");
        for (const char *event : {"stateChanged(Running)", "started", "restarted"}) {
            for (const int mode : {Task::Synchronous, Task::WorkingThread, Task::Coroutine, Task::Asynchronous})
                QTest::addRow("mode %d, %s", mode, event) << mode << QString::fromLatin1(event);
        }
    }

    void handlerThatEndsTheTaskStartsNothing()
    {
        QFETCH(int, mode);
        QFETCH(QString, event);
        int runs = 0;
        Task task;
        task.exec(); // so that there is a restart
        task.setFunction([&]() -> QCoro::Task<Error> {
            ++runs;
            co_return Error();
        });
        task.setFunction(
            [&] {
                ++runs;
                return Error();
            },
            Task::ExecutionMode(mode));

        EventLog events(&task);
        events.on(event, [&] { task.finish(Error(Timeout)); });
        task.exec();
        QVERIFY(task.isFinished());
        drainEvents();
        QCOMPARE(runs, 0);
        QVERIFY(task.error().equals(Timeout));
        QCOMPARE(events.take().count(u" finished"), 1);
    }

    void workOfATaskThatDoesNotRunIsRefused()
    {
        bool ran = false;
        OpenTask task([&] {
            ran = true;
            return Error();
        });
        QCOMPARE(task.doExec(), Error(GeneralError, u"Task is not running"_s));

        EventLog events(&task);
        events.on(u"started"_s, [&] { task.pause(); });
        task.exec();
        QCOMPARE(task.error(), Error(GeneralError, u"Task is not running"_s));
        QVERIFY(task.isFinished());
        QVERIFY(!ran);
    }

    void workMayEndItsOwnTask()
    {
        Task task([](Task *self) {
            self->finish(Error(Timeout));
            return Error(GeneralError);
        });
        for (const auto mode : {Task::Synchronous, Task::Asynchronous}) {
            task.setExecutionMode(mode);
            EventLog events(&task);
            task.exec();
            QVERIFY(task.error().equals(Timeout));
            QCOMPARE(events.take().count(u" finished"), 1);
        }
    }

    void lateResultDoesNotEndALaterRun_data()
    {
        QTest::addColumn<bool>("throughIdle");
        QTest::newRow("finished and run again") << false;
        QTest::newRow("set idle and run again") << true;
    }

    void lateResultDoesNotEndALaterRun()
    {
        QFETCH(bool, throughIdle);
        int runs = 0;
        Task task([&](Task *self) {
            if (++runs > 1)
                return Error();
            throughIdle ? self->setIdle() : self->finish();
            self->setExecutionMode(Task::Asynchronous);
            self->exec();
            return Error(GeneralError, u"of the first run"_s);
        });
        task.exec();
        QVERIFY(task.isRunning());
        task.finish();
        QVERIFY(task.isSuccessful());
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
        bool throws = true;
        Task task;
        for (const auto mode : {Task::Synchronous, Task::Asynchronous}) {
            throws = true;
            task.setFunction(
                [&] {
                    if (throws)
                        throw std::runtime_error("work");
                    return Error(Timeout);
                },
                mode);
            QVERIFY_THROWS_EXCEPTION(std::runtime_error, task.exec());
            QVERIFY(task.isRunning());
            throws = false;
            task.exec();
            QVERIFY(task.isFinished());
            QVERIFY(task.error().equals(Timeout));
        }
    }

    void emptyFunctionIsNoWork()
    {
        for (const auto mode : {Task::Synchronous, Task::WorkingThread, Task::Coroutine}) {
            Task task;
            task.setFunction(std::function<QCoro::Task<Error>()>());
            task.setFunction(std::function<Error()>(), mode);
            task.exec();
            QTRY_VERIFY(task.isSuccessful());
            task.setFunction(std::function<QCoro::Task<Error>(Task *)>());
            task.setFunction(std::function<Error(Task *)>(), mode);
            task.exec();
            QTRY_VERIFY(task.isSuccessful());
        }
    }

    void handlerMayDeleteTheTask_data()
    {
        QTest::addColumn<int>("mode");
        for (const int mode : {Task::Synchronous, Task::WorkingThread, Task::Coroutine, Task::Asynchronous})
            QTest::addRow("mode %d", mode) << mode;
    }

    void handlerMayDeleteTheTask()
    {
        QFETCH(int, mode);
        const auto makeTask = [mode] {
            auto *task = new Task([] { return Error(GeneralError); }, Task::ExecutionMode(mode));
            task->setFunction([]() -> QCoro::Task<Error> { co_return Error(Canceled); });
            task->setExecutionMode(Task::ExecutionMode(mode));
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
