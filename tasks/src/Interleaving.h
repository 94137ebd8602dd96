#pragma once

namespace zel {

inline void interleavingPoint(const char *) { }

} // namespace zel
