#pragma once

#include <QRecursiveMutex>

#include <functional>
#include <memory>
#include <mutex>
#include <utility>

namespace zel {

/**
 * The locks of groups that the calling thread holds, and what waits until it holds none.
 *
 * A group emits its signals with its lock held. Whoever would need the lock of another group, or start work, in such a
 * handler has that put off: two threads that each want the other one's lock would wait for ever.
 */
class GroupLocker {
public:
    using Mutex = std::shared_ptr<QRecursiveMutex>;

    static bool isAnyHeld();
    /// Calls with the lock held; when it is the outermost one, then what was put off.
    template <typename Call>
    static void lockAndCall(const Mutex &mutex, Call &&call);
    /// The same for a notification that may wait: later, when another thread has the lock and this one holds others.
    template <typename Call>
    static void notify(const Mutex &mutex, Call call);
    /// Calls when this thread holds no lock of a group.
    static void callUnlocked(std::function<void()> call);

    /// Holds the lock where nothing of the user's is called; what is put off is then not called here.
    explicit GroupLocker(Mutex mutex);
    ~GroupLocker();
    Q_DISABLE_COPY_MOVE(GroupLocker)

private:
    GroupLocker(Mutex mutex, std::adopt_lock_t);
    static void callPutOff();
    static void callPutOffAfterThrow();

    /// Kept alive: a handler may delete the group while it is held.
    const Mutex m_mutex;
};

template <typename Call>
void GroupLocker::lockAndCall(const Mutex &mutex, Call &&call)
{
    try {
        const GroupLocker locker(mutex);
        call();
    } catch (...) {
        callPutOffAfterThrow();
        throw;
    }
    callPutOff();
}

template <typename Call>
void GroupLocker::notify(const Mutex &mutex, Call call)
{
    if (!isAnyHeld())
        return lockAndCall(mutex, call);
    if (!mutex->tryLock())
        return callUnlocked([mutex, call = std::move(call)]() mutable { lockAndCall(mutex, call); });
    // This thread holds another one: its owner calls what is put off.
    const GroupLocker locker(mutex, std::adopt_lock);
    call();
}

} // namespace zel
