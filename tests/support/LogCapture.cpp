#include "LogCapture.h"

#include <QLoggingCategory>
#include <QMutex>

#include <utility>

using namespace Qt::StringLiterals;

namespace {

QMutex mutex;
QStringList lines;
QtMessageHandler previousHandler = nullptr;

QString levelName(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return u"debug"_s;
    case QtInfoMsg:
        return u"info"_s;
    case QtWarningMsg:
        return u"warning"_s;
    case QtCriticalMsg:
        return u"critical"_s;
    case QtFatalMsg:
        break;
    }
    return u"fatal"_s;
}

void handleMessage(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (qstrcmp(context.category, "zel.tasks") != 0)
        return previousHandler(type, context, message);
    const QMutexLocker locker(&mutex);
    lines.append(levelName(type) + u' ' + message);
}

QStringList ofLevel(const QStringList &taken, const QString &level)
{
    QStringList result;
    for (const QString &line : taken) {
        if (line.startsWith(level))
            result.append(line.mid(level.size()));
    }
    return result;
}

} // namespace

LogCapture::LogCapture() : m_previous(qInstallMessageHandler(handleMessage))
{
    previousHandler = m_previous;
    take();
    QLoggingCategory::setFilterRules(u"zel.tasks=true"_s);
}

LogCapture::~LogCapture()
{
    QLoggingCategory::setFilterRules(QString());
    qInstallMessageHandler(m_previous);
}

QStringList LogCapture::take()
{
    const QMutexLocker locker(&mutex);
    return std::exchange(lines, {});
}

QString LogCapture::takeInfos()
{
    const QStringList infos = ofLevel(take(), u"info "_s);
    return infos.isEmpty() ? QString() : u'\n' + infos.join(u'\n');
}

QStringList LogCapture::takeWarnings()
{
    return ofLevel(take(), u"warning "_s);
}
