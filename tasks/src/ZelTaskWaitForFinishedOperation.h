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
 * The awaiting coroutine resumes from the event loop of the thread in which the task lives, after the task's
 * finished() handlers have run, and gets the task's error. It does not suspend when the task has finished already.
 * When the task is destroyed meanwhile, the coroutine resumes with GeneralError; when it is set finished without
 * finished(), with the task's error. A coroutine that is destroyed while it is suspended here is not resumed.
 */
class ZEL_TASKS_EXPORT ZelTaskWaitForFinishedOperation {
public:
    explicit ZelTaskWaitForFinishedOperation(const zel::BaseTask &task);
    explicit ZelTaskWaitForFinishedOperation(const zel::BaseTask *task);
    ZelTaskWaitForFinishedOperation(ZelTaskWaitForFinishedOperation &&other) noexcept;
    ZelTaskWaitForFinishedOperation &operator=(ZelTaskWaitForFinishedOperation &&other) noexcept;
    ~ZelTaskWaitForFinishedOperation();

    bool await_ready() const;
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
