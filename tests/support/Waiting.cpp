#include "Waiting.h"

#include "EventLog.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QPointer>
#include <QRegularExpression>
#include <QTest>
#include <QThread>

using namespace Qt::StringLiterals;

void drainEvents()
{
    // Many rounds, because each leaves what is posted meanwhile to the next.
    for (int round = 0; round < 32; ++round) {
        QCoreApplication::sendPostedEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCoreApplication::processEvents();
    }
}

bool pollUntil(const std::function<bool()> &condition)
{
    for (const QDeadlineTimer deadline(30'000); !deadline.hasExpired(); QThread::msleep(1)) {
        if (condition())
            return true;
    }
    return false;
}

void failOnQtWarnings()
{
    QTest::failOnWarning(QRegularExpression(u"."_s));
}

QString eventsAfterDeletion(const std::function<zel::BaseTask *()> &makeTask,
                            const std::function<void(zel::BaseTask *)> &operation)
{
    for (int index = 0;; ++index) {
        const QPointer<zel::BaseTask> task = makeTask();
        QStringList rest;
        {
            EventLog log(task);
            log.at(index, [&] { delete task.data(); });
            operation(task);
            rest = log.events().mid(index);
        }
        if (task) {
            // The operation has fewer events: all of them were tried.
            delete task.data();
            return QString();
        }
        rest.removeAll(u"aboutToDestroy"_s);
        if (rest.size() > 1)
            return u"deleted at "_s + rest.join(u' ');
    }
}
