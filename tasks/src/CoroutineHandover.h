#pragma once

#include <QtGlobal>

#include <memory>
#include <vector>

namespace zel {

/**
 * While it lives on this thread's stack, coroutines are passed from caller to caller, which QCoro does without any lock.
 * What is suspended meanwhile, to be resumed in another thread, is not resumed before.
 */
class CoroutineHandover {
public:
    class Suspended {
    public:
        /// The callers are through. Called on the thread on which the coroutine was suspended.
        virtual void onHandedOver() = 0;

    protected:
        Suspended() = default;
        ~Suspended() = default;
        Q_DISABLE_COPY_MOVE(Suspended)
    };

    CoroutineHandover();
    ~CoroutineHandover();
    Q_DISABLE_COPY_MOVE(CoroutineHandover)

    /// Whether \a suspended is told; not where nobody of ours is on the stack.
    static bool tells(std::weak_ptr<Suspended> suspended);

private:
    std::vector<std::weak_ptr<Suspended>> m_suspended;
    CoroutineHandover *const m_outer;
};

} // namespace zel
