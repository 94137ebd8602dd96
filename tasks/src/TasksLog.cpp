#include "TasksLog.h"

namespace zel {

Q_LOGGING_CATEGORY(tasksLog, "zel.tasks", QtFatalMsg)

} // namespace zel
