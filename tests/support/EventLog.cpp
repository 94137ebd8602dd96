#include "EventLog.h"

#include <QMetaEnum>

#include <algorithm>
#include <utility>

using namespace Qt::StringLiterals;
using namespace zel;

namespace {

template <typename Value>
QString argumentText(const Value &value)
{
    return QString::number(value);
}

QString argumentText(const QString &value)
{
    return value;
}

QString argumentText(const Error &error)
{
    return Error::codeName(error.code());
}

QString argumentText(BaseTask::State state)
{
    return QString::fromLatin1(QMetaEnum::fromType<BaseTask::State>().valueToKey(state));
}

QString argumentText(TasksQueue::State state)
{
    return QStringList({u"Idle"_s, u"Working"_s, u"Paused"_s}).value(state);
}

template <typename Sender, typename... Arguments>
void record(EventLog *log, QObject *context, Sender *sender, void (Sender::*signal)(Arguments...), const QString &name)
{
    QObject::connect(
        sender, signal, context,
        [log, name](const std::decay_t<Arguments> &...arguments) {
            const QStringList texts{argumentText(arguments)...};
            log->add(texts.isEmpty() ? name : name + u'(' + texts.join(u',') + u')');
        },
        Qt::DirectConnection);
}

} // namespace

void EventLog::watch(BaseTask *task, const QString &who)
{
    const QString prefix = who.isEmpty() ? QString() : who + u':';
    record<ErrorCancelable>(this, &m_context, task, &ErrorCancelable::errorChanged, prefix + u"errorChanged"_s);
    record<ErrorCancelable>(this, &m_context, task, &ErrorCancelable::canceled, prefix + u"canceled"_s);
    record(this, &m_context, task, &BaseTask::finalizing, prefix + u"finalizing"_s);
    record(this, &m_context, task, &BaseTask::finished, prefix + u"finished"_s);
    record(this, &m_context, task, &BaseTask::progressInitiated, prefix + u"progressInitiated"_s);
    record(this, &m_context, task, &BaseTask::progress, prefix + u"progress"_s);
    record(this, &m_context, task, &BaseTask::progressTextChanged, prefix + u"progressTextChanged"_s);
    record(this, &m_context, task, &BaseTask::stateChanged, prefix + u"stateChanged"_s);
    record(this, &m_context, task, &BaseTask::paused, prefix + u"paused"_s);
    record(this, &m_context, task, &BaseTask::resumed, prefix + u"resumed"_s);
    record(this, &m_context, task, &BaseTask::started, prefix + u"started"_s);
    record(this, &m_context, task, &BaseTask::restarted, prefix + u"restarted"_s);
    if (auto *executable = qobject_cast<Task *>(task)) {
        record(this, &m_context, executable, &Task::priorityChanged, prefix + u"priorityChanged"_s);
        record(this, &m_context, executable, &Task::aboutToDestroy, prefix + u"aboutToDestroy"_s);
    }
}

void EventLog::watch(TasksQueue *queue, const QString &who)
{
    const QString prefix = who.isEmpty() ? QString() : who + u':';
    record(this, &m_context, queue, &TasksQueue::stateChanged, prefix + u"stateChanged"_s);
}

void EventLog::add(const QString &event)
{
    const QString name = event.section(u'(', 0, 0);
    if (!m_kept.isEmpty() && !m_kept.contains(name) && !m_kept.contains(name.section(u':', -1)))
        return;
    // Outside the lock: the reaction may make further events.
    if (const auto reaction = dueReaction(event))
        reaction();
}

std::function<void()> EventLog::dueReaction(const QString &event)
{
    const QMutexLocker locker(&m_mutex);
    const qsizetype index = m_events.size();
    m_events.append(event);
    const auto due = std::find_if(m_reactions.begin(), m_reactions.end(), [&](const Reaction &reaction) {
        return reaction.event == event || reaction.index == index;
    });
    if (due == m_reactions.end())
        return nullptr;
    auto run = std::move(due->run);
    m_reactions.erase(due);
    return run;
}

void EventLog::on(const QString &event, std::function<void()> reaction)
{
    const QMutexLocker locker(&m_mutex);
    m_reactions.append({event, -1, std::move(reaction)});
}

void EventLog::at(int index, std::function<void()> reaction)
{
    const QMutexLocker locker(&m_mutex);
    m_reactions.append({QString(), index, std::move(reaction)});
}

QStringList EventLog::events() const
{
    const QMutexLocker locker(&m_mutex);
    return m_events;
}

QString EventLog::take()
{
    const QMutexLocker locker(&m_mutex);
    return std::exchange(m_events, {}).join(u' ');
}
