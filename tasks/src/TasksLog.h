#pragma once

#include <QLoggingCategory>

namespace zel {

/// The library's one category, "zel.tasks": nothing below fatal is shown until a logging rule enables it.
const QLoggingCategory &tasksLog();

} // namespace zel
