#include "EventLog.h"

#include <QMetaEnum>
#include <QMetaMethod>

#include <algorithm>
#include <utility>

using namespace Qt::StringLiterals;
using namespace zel;

namespace {

template <typename Value>
QString argumentText(const Value &value)
{
    if constexpr (std::is_same_v<Value, Error>)
        return Error::codeName(value.code());
    else if constexpr (std::is_same_v<Value, BaseTask::State>)
        return QString::fromLatin1(QMetaEnum::fromType<BaseTask::State>().valueToKey(value));
    else if constexpr (std::is_same_v<Value, TasksQueue::State>)
        return QStringList({u"Idle"_s, u"Working"_s, u"Paused"_s}).value(value);
    else if constexpr (std::is_same_v<Value, QString>)
        return value;
    else
        return QString::number(value);
}

template <typename Sender, typename... Arguments>
void record(EventLog *log, QObject *context, const QString &who, std::type_identity_t<Sender> *sender,
            void (Sender::*signal)(Arguments...))
{
    const QString name = (who.isEmpty() ? who : who + u':')
        + QString::fromLatin1(QMetaMethod::fromSignal(signal).name());
    const auto add = [log, name](const std::decay_t<Arguments> &...arguments) {
        const QStringList texts{argumentText(arguments)...};
        log->add(texts.isEmpty() ? name : name + u'(' + texts.join(u',') + u')');
    };
    QObject::connect(sender, signal, context, add, Qt::DirectConnection);
}

} // namespace

void EventLog::watch(BaseTask *task, const QString &who)
{
    const auto recordAll = [&](auto *sender, auto... signal) { (record(this, &m_context, who, sender, signal), ...); };
    recordAll(task, &ErrorCancelable::errorChanged, &ErrorCancelable::canceled, &BaseTask::finalizing,
              &BaseTask::finished, &BaseTask::progressInitiated, &BaseTask::progress, &BaseTask::progressTextChanged,
              &BaseTask::stateChanged, &BaseTask::paused, &BaseTask::resumed, &BaseTask::started, &BaseTask::restarted);
    if (auto *executable = qobject_cast<Task *>(task))
        recordAll(executable, &Task::priorityChanged, &Task::aboutToDestroy);
}

void EventLog::watch(TasksQueue *queue, const QString &who)
{
    record(this, &m_context, who, queue, &TasksQueue::stateChanged);
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
    // Nothing shared, which the next event would look at without the lock of whoever has it.
    return {m_events.cbegin(), m_events.cend()};
}

QString EventLog::take()
{
    const QMutexLocker locker(&m_mutex);
    return std::exchange(m_events, {}).join(u' ');
}
