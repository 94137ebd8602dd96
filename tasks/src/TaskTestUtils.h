#pragma once

#include <zel/common/Error.h>
#include <zel/tasks/zel_tasks_export.h>

#include <functional>

namespace zel::TaskTestUtils {

/// A work function that does nothing and succeeds.
extern ZEL_TASKS_EXPORT std::function<Error()> blankFunc;

} // namespace zel::TaskTestUtils
