#pragma once

#include <functional>

namespace zel::departure {

/// Called by whoever has left an object that is being destroyed.
void announce();
/// Returns when \a isAlone does, which is looked at after each departure; \a onDelay is called once when that takes
/// seconds.
void wait(const std::function<bool()> &isAlone, const std::function<void()> &onDelay = {});

} // namespace zel::departure
