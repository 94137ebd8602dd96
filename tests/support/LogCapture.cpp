#include "LogCapture.h"

#include <QLoggingCategory>
#include <QMutex>

#include <utility>

using namespace Qt::StringLiterals;

static QMutex mutex;
static QStringList lines;
static QtMessageHandler previousHandler = nullptr;

static void handleMessage(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (qstrcmp(context.category, "zel.tasks") != 0)
        return previousHandler(type, context, message);
    const QString level = QStringList({u"debug"_s, u"warning"_s, u"critical"_s, u"fatal"_s, u"info"_s}).value(type);
    const QMutexLocker locker(&mutex);
    lines.append(level + u' ' + message);
}

LogCapture::LogCapture()
{
    previousHandler = qInstallMessageHandler(handleMessage);
    take();
    QLoggingCategory::setFilterRules(u"zel.tasks=true"_s);
}

LogCapture::~LogCapture()
{
    QLoggingCategory::setFilterRules(QString());
    qInstallMessageHandler(previousHandler);
}

QStringList LogCapture::take()
{
    const QMutexLocker locker(&mutex);
    return std::exchange(lines, {});
}

QStringList LogCapture::take(const QString &level)
{
    QStringList result;
    for (const QString &line : take()) {
        if (line.startsWith(level + u' '))
            result.append(line.mid(level.size() + 1));
    }
    return result;
}
