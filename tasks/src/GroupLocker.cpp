#include "GroupLocker.h"

#include "Interleaving.h"
#include "TasksLog.h"

#include <cxxabi.h>

#include <deque>
#include <exception>

namespace zel {

namespace {

thread_local int heldLocks = 0;
thread_local std::deque<std::function<void()>> putOff;

} // namespace

bool GroupLocker::isAnyHeld()
{
    return heldLocks > 0;
}

GroupLocker::GroupLocker(Mutex mutex) : m_mutex(std::move(mutex))
{
    interleavingPoint("lock group");
    m_mutex->lock();
    ++heldLocks;
}

GroupLocker::GroupLocker(Mutex mutex, std::adopt_lock_t) : m_mutex(std::move(mutex))
{
    ++heldLocks;
}

GroupLocker::~GroupLocker()
{
    m_mutex->unlock();
    --heldLocks;
    interleavingPoint("unlocked group");
}

void GroupLocker::callUnlocked(std::function<void()> call)
{
    if (isAnyHeld())
        putOff.push_back(std::move(call));
    else
        call();
}

// Once for each call that was put off, also by one of these.
void GroupLocker::callPutOff()
{
    while (!isAnyHeld() && !putOff.empty()) {
        const auto call = std::move(putOff.front());
        putOff.pop_front();
        try {
            call();
        } catch (...) {
            // What it throws does not take the others with it.
            callPutOffAfterThrow();
            throw;
        }
    }
}

void GroupLocker::callPutOffAfterThrow()
{
    while (!isAnyHeld() && !putOff.empty()) {
        const auto call = std::move(putOff.front());
        putOff.pop_front();
        try {
            call();
        } catch (const abi::__forced_unwind &) {
            throw;
        } catch (const std::exception &exception) {
            qCCritical(tasksLog) << "Unhandled exception:" << exception.what();
        } catch (...) {
            qCCritical(tasksLog) << "Unhandled exception:"
                                 << "unknown exception";
        }
    }
}

} // namespace zel
