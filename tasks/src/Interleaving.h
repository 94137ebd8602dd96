#pragma once

#ifdef ZEL_INTERLEAVING
#include <zel/tasks/zel_tasks_export.h>

#include <QtGlobal>
#endif

namespace zel {

#ifdef ZEL_INTERLEAVING

/**
 * A place where the calling thread may be held up for some milliseconds, so that others go first.
 *
 * Stands where a lock is taken or let go, something is claimed, posted or arrives, and around calls of user code; not
 * where a lock is held that is never held for long. \a name is a literal.
 */
ZEL_TASKS_EXPORT void interleavingPoint(const char *name);

/// Has points hold threads up, by a random sequence of each thread that follows from \a seed and the thread's number.
ZEL_TASKS_EXPORT void startInterleaving(quint64 seed);
ZEL_TASKS_EXPORT void stopInterleaving();
/// Writes to stderr which points each thread has passed last.
ZEL_TASKS_EXPORT void reportInterleaving();

/// Gives the calling thread its number. Threads without one get some at their first point.
class ZEL_TASKS_EXPORT InterleavingThread {
public:
    InterleavingThread(int number, const char *name);
    ~InterleavingThread();
    Q_DISABLE_COPY_MOVE(InterleavingThread)
};

#else

inline void interleavingPoint(const char *) { }

#endif

/// A point here and at the end of the block: declared before what locks a mutex, it passes them without that mutex.
class [[maybe_unused]] InterleavingScope {
public:
    explicit InterleavingScope([[maybe_unused]] const char *name)
#ifdef ZEL_INTERLEAVING
        : m_name(name)
    {
        interleavingPoint(m_name);
    }
    ~InterleavingScope()
    {
        interleavingPoint(m_name);
    }

private:
    const char *const m_name;
#else
    {
    }
#endif
};

} // namespace zel
