#include <zel/common/Cancelable.h>

namespace zel {

Cancelable::~Cancelable() = default;

} // namespace zel
