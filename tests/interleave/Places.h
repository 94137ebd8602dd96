#pragma once

#include <zel/tasks/BaseTask.h>

#include <QEvent>
#include <QObject>

#include <atomic>
#include <memory>
#include <utility>

class Actor;

/// A sequence of each thread, that follows from the seed of the round.
class Random {
public:
    explicit Random(quint64 seed = 0) : m_state(seed) { }

    int operator()(int bound)
    {
        m_state += 0x9e3779b97f4a7c15;
        quint64 value = (m_state ^ (m_state >> 30)) * 0xbf58476d1ce4e5b9;
        value = (value ^ (value >> 27)) * 0x94d049bb133111eb;
        return int((value >> 33) % quint64(bound));
    }

private:
    quint64 m_state;
};

/**
 * Where an object of the library stands that several threads know.
 *
 * Who uses the object keeps others from destroying it, as every program has to in some way. Not a lock: those who use
 * an object are not ordered by it, so that the library has to order them.
 */
template <typename T>
class Place {
public:
    class Use {
    public:
        Use() = default;
        explicit Use(Place *place) : m_place(place)
        {
            m_place->m_uses.fetch_add(1, std::memory_order_relaxed);
            m_object = m_place->m_object.load(std::memory_order_acquire);
        }
        Use(Use &&other) noexcept : m_place(std::exchange(other.m_place, nullptr)), m_object(other.m_object) { }
        Use &operator=(Use &&other) noexcept
        {
            std::swap(m_place, other.m_place);
            m_object = other.m_object;
            return *this;
        }
        ~Use()
        {
            if (m_place)
                m_place->m_uses.fetch_sub(1, std::memory_order_release);
        }

        T *get() const { return m_object; }
        T *operator->() const { return m_object; }
        explicit operator bool() const { return m_object; }
        Place *place() const { return m_place; }

    private:
        Place *m_place = nullptr;
        T *m_object = nullptr;
    };

    void put(T *object) { m_object.store(object, std::memory_order_release); }
    bool isEmpty() const { return !m_object && m_takers == 0 && !m_object; }
    /// To destroy the object; null when there is none, or others use it.
    T *tryTake()
    {
        ++m_takers;
        T *object = m_object.exchange(nullptr);
        if (object && m_uses.load(std::memory_order_acquire) > 0)
            put(std::exchange(object, nullptr));
        --m_takers;
        return object;
    }
    /// Empties the place if the object is \a object; whether nobody uses what was here.
    bool close(const QObject *object)
    {
        if (m_object.load(std::memory_order_relaxed) == object)
            m_object.store(nullptr);
        return m_uses.load(std::memory_order_acquire) == 0;
    }

    /// Where the object lives. The place of a queue changes its home with it.
    std::atomic<Actor *> home = nullptr;
    int number = 0;

private:
    std::atomic<T *> m_object = nullptr;
    std::atomic<int> m_uses = 0;
    /// Who has the object out to look whether it may be destroyed.
    std::atomic<int> m_takers = 0;
};

/// Empties the place of an object when deleteLater() has come to it, and puts its destruction off until nobody uses it.
template <typename T>
class Farewell : public QObject {
public:
    Farewell(T *object, Place<T> *place) : QObject(object), m_place(place) { object->installEventFilter(this); }

    bool eventFilter(QObject *object, QEvent *event) override
    {
        if (event->type() != QEvent::DeferredDelete || m_place->close(object))
            return false;
        destroyLater();
        return true;
    }

private:
    // Not by waiting here: those who use the object may wait for this thread.
    void destroyLater()
    {
        const auto destroy = [this] {
            if (m_place->close(parent()))
                delete parent();
            else
                destroyLater();
        };
        QMetaObject::invokeMethod(this, destroy, Qt::QueuedConnection);
    }

    Place<T> *const m_place;
};

/// What happened to a task. Counted in handlers, looked at when nothing moves any more.
struct Watch {
    enum Kind {
        Synchronous,
        Asynchronous,
        WorkingThread,
        Coroutine,
        Complex,
    };

    int number = 0;
    Kind kind = Synchronous;
    std::atomic<int> works = 0;      ///< calls of its work
    std::atomic<int> handExecs = 0;  ///< calls of exec() other than by queues
    std::atomic<int> starts = 0;     ///< started()
    std::atomic<int> restarts = 0;   ///< runs that began after an end
    std::atomic<int> idles = 0;      ///< stateChanged(Idle)
    std::atomic<int> pauses = 0;     ///< paused()
    std::atomic<int> ends = 0;       ///< stateChanged(Finished)
    std::atomic<int> finishes = 0;   ///< finished()
    std::atomic<int> callbacks = 0;  ///< of a complex task: subtasks that succeeded
    std::atomic<int> waiters = 0;    ///< who waits for it or awaits it
    std::atomic<bool> isOdd = false; ///< its error was set by hand, or its count toggled: some checks do not hold
    std::atomic<int> starter = 0;    ///< the number of the limited queue that started it

    void follow(const zel::BaseTask *task, const std::shared_ptr<Watch> &self);
    /// What is wrong with the figures; null when nothing is.
    const char *complaint() const;
};
