#pragma once

#include <zel/common/Error.h>
#include <zel/common/zel_common_export.h>

#include <QSet>

namespace zel {

/// Makes one error out of several.
class ZEL_COMMON_EXPORT UnifiedError {
public:
    UnifiedError() = delete;

    /**
     * One error that stands for all of \a errors; it does not depend on their order.
     *
     * Values without error are skipped. Cancellations beside other errors are their consequences and are left out;
     * where there are only cancellations the result is Canceled. One error left is returned as it is. Several give
     * their common code or else GeneralError, their distinct texts ordered by code and text, one a line, and their
     * distinct warnings.
     */
    static Error computeUnifiedError(const QSet<Error> &errors);
};

} // namespace zel
