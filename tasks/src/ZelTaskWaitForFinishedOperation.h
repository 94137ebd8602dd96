#pragma once

#include <zel/common/Error.h>
#include <zel/tasks/zel_tasks_export.h>

#include <QCoro/QCoroTask>

#include <concepts>
#include <coroutine>
#include <memory>

namespace zel {
class BaseTask;
}

namespace QCoro::detail {

/**
 * Awaits the end of a task: what `co_await task` makes of a pointer to a zel::BaseTask or to one of its subclasses.
 *
 * The awaiting coroutine resumes from the event loop of the thread in which the task lives, after the handlers that
 * finished() calls directly, and gets the task's error. It does not suspend when the task has finished already.
 * When the task is destroyed meanwhile, the coroutine resumes with GeneralError; when it is set finished without
 * finished(), with the task's error. A coroutine that is destroyed while it is suspended here is not resumed.
 */
class ZEL_TASKS_EXPORT ZelTaskWaitForFinishedOperation {
public:
    /// Does not own the task. A null one counts as gone.
    ///@{
    explicit ZelTaskWaitForFinishedOperation(const zel::BaseTask &task);
    explicit ZelTaskWaitForFinishedOperation(const zel::BaseTask *task);
    ///@}
    /// Not while a coroutine is suspended here. A value that was moved from can be assigned to or destroyed.
    ///@{
    ZelTaskWaitForFinishedOperation(ZelTaskWaitForFinishedOperation &&other) noexcept;
    ZelTaskWaitForFinishedOperation &operator=(ZelTaskWaitForFinishedOperation &&other) noexcept;
    ///@}
    /// A coroutine that is suspended here is not resumed any more.
    ~ZelTaskWaitForFinishedOperation();

    /// Whether the task has finished, so that there is nothing to suspend for.
    bool await_ready() const;
    /// Has the coroutine resumed at the end of the task; at once, in here, when the task is gone or has finished.
    void await_suspend(std::coroutine_handle<> awaitingCoroutine);
    /// The task's error; Error() when the task was gone before the coroutine could suspend.
    zel::Error await_resume();

private:
    class Record;
    std::shared_ptr<Record> d;
};

template <typename T>
requires std::derived_from<T, zel::BaseTask>
struct awaiter_type<T *> {
    using type = ZelTaskWaitForFinishedOperation;
};

} // namespace QCoro::detail
