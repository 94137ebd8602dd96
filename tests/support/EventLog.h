#pragma once

#include <zel/tasks/BaseTask.h>
#include <zel/tasks/TasksQueue.h>

#include <QMutex>

#include <functional>

/**
 * Records what tasks and queues emit, in order, as one string such as "stateChanged(Running) started".
 *
 * Events are recorded in the thread that emits them. Reactions run there too, inside the emission.
 */
class EventLog {
public:
    EventLog() = default;
    explicit EventLog(zel::BaseTask *task) { watch(task); }

    /// Records every signal, as "who:signal" when \a who is given.
    void watch(zel::BaseTask *task, const QString &who = QString());
    void watch(zel::TasksQueue *queue, const QString &who = QString());
    /// Drops all later events but these, given as "signal" or as "who:signal".
    void keepOnly(const QStringList &names) { m_kept = names; }
    /// Records something that is no signal.
    void add(const QString &event);

    /// Runs \a reaction once, at the next \a event, or at the event number \a index, counted from zero.
    void on(const QString &event, std::function<void()> reaction);
    void at(int index, std::function<void()> reaction);

    QStringList events() const;
    /// What was recorded since the last call.
    QString take();

private:
    struct Reaction {
        QString event;
        int index;
        std::function<void()> run;
    };

    std::function<void()> dueReaction(const QString &event);

    QObject m_context;
    QStringList m_kept;
    mutable QMutex m_mutex;
    QStringList m_events;
    QList<Reaction> m_reactions;
};
