#pragma once

#include <zel/common/zel_common_export.h>

namespace zel {

/// Something that can be canceled and remembers whether it was.
class ZEL_COMMON_EXPORT Cancelable {
public:
    virtual ~Cancelable();

    /// Whether the object counts as canceled.
    virtual bool isCanceled() const = 0;
    /// Sets the canceled status without canceling anything.
    virtual void setCanceled(bool canceled) = 0;
    /// Stops what the object is doing.
    virtual void cancel() = 0;
};

} // namespace zel
