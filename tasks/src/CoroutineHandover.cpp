#include "CoroutineHandover.h"

#include <utility>

namespace zel {

namespace {

thread_local CoroutineHandover *innermostHandover = nullptr;

} // namespace

CoroutineHandover::CoroutineHandover() : m_outer(std::exchange(innermostHandover, this)) { }

CoroutineHandover::~CoroutineHandover()
{
    innermostHandover = m_outer;
    for (const auto &weak : m_suspended) {
        if (const auto suspended = weak.lock())
            suspended->onHandedOver();
    }
}

bool CoroutineHandover::tells(std::weak_ptr<Suspended> suspended)
{
    if (innermostHandover)
        innermostHandover->m_suspended.push_back(std::move(suspended));
    return innermostHandover;
}

} // namespace zel
