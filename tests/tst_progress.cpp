#include "support/EventLog.h"
#include "support/Waiting.h"

#include <zel/common/ProgressBarOutputInterface.h>
#include <zel/tasks/Task.h>

#include <QTest>
#include <QThread>

#include <memory>

using namespace Qt::StringLiterals;
using namespace zel;

namespace {

/// Notes what it is told, and where.
class Display : public ProgressBarOutputInterface {
public:
    explicit Display(EventLog *log) : m_log(log) { }
    void showProgress(int value, int total) override { note(u"%1/%2"_s.arg(value).arg(total)); }
    void showProgressText(const QString &text) override { note(text); }

private:
    void note(const QString &what) { m_log->add(what + (QThread::currentThread() == thread() ? u""_s : u"!"_s)); }

    EventLog *const m_log;
};

} // namespace

class tst_progress : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void displayFollowsFromTheNextReport_data();
    void displayFollowsFromTheNextReport();
    void reportsOfManyThreadsReachTheDisplayInItsThread();
    void displayCancels_data();
    void displayCancels();
};

void tst_progress::displayFollowsFromTheNextReport_data()
{
    QTest::addColumn<Qt::ConnectionType>("type");
    QTest::addColumn<QString>("atOnce");
    QTest::addRow("direct") << Qt::DirectConnection << u"1/4 half"_s;
    QTest::addRow("queued") << Qt::QueuedConnection << QString();
}

void tst_progress::displayFollowsFromTheNextReport()
{
    QFETCH(const Qt::ConnectionType, type);
    QFETCH(const QString, atOnce);
    EventLog log;
    Display display(&log);
    Task task;
    task.setProgress(3, 4);
    task.connectTo(&display, type);
    drainEvents();
    task.setProgress(1, 4);
    task.setProgressText(u"half"_s);
    QCOMPARE(log.take(), atOnce);
    drainEvents();
    QCOMPARE(atOnce + log.take(), u"1/4 half"_s);
}

void tst_progress::reportsOfManyThreadsReachTheDisplayInItsThread()
{
    EventLog log;
    Display display(&log);
    std::vector<std::unique_ptr<Task>> tasks;
    for (int number = 0; number < 4; ++number) {
        tasks.push_back(std::make_unique<Task>(
            [](Task *self) {
                for (int block = 1; block <= 100; ++block)
                    self->setProgress(block, 100);
                return Error();
            },
            Task::WorkingThread));
        tasks.back()->connectTo(&display);
        tasks.back()->exec();
    }
    QTRY_COMPARE_WITH_TIMEOUT(log.events().count(u"100/100"_s), 4, 30'000);
    QCOMPARE(log.events().size(), 400);
    for (const auto &task : tasks)
        QVERIFY(!task->waitForFinished(30'000).hasError());
}

void tst_progress::displayCancels_data()
{
    QTest::addColumn<Qt::ConnectionType>("type");
    QTest::addColumn<bool>("hasFinished");
    QTest::addRow("direct") << Qt::DirectConnection << false;
    QTest::addRow("queued") << Qt::QueuedConnection << false;
    QTest::addRow("finished already") << Qt::DirectConnection << true;
}

void tst_progress::displayCancels()
{
    QFETCH(const Qt::ConnectionType, type);
    QFETCH(const bool, hasFinished);
    EventLog log;
    Display display(&log);
    Task task(Task::Asynchronous);
    task.connectTo(&display, type);
    task.exec();
    if (hasFinished)
        task.finish();
    Q_EMIT display.cancelRequested();
    QCOMPARE(task.isFinished(), type == Qt::DirectConnection);
    drainEvents();
    QVERIFY(task.isFinished());
    QCOMPARE(task.error().equals(Canceled), !hasFinished);
}

QTEST_GUILESS_MAIN(tst_progress)
#include "tst_progress.moc"
