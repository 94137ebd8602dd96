#include "Skeleton.h"
#include "workloads.h"

#include <zel/tasks/Task.h>

#include <QCoro/QCoroSignal>
#include <QCoro/QCoroTask>

#include <QCoreApplication>

#include <array>
#include <coroutine>

using namespace zel;

namespace {

/// A signal to wait for.
class Emitter : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

Q_SIGNALS:
    void fired();
};

Emitter *emitter()
{
    static Emitter instance;
    return &instance;
}

/// Suspends until a posted call resumes.
struct QueuedCall {
    bool await_ready() const { return false; }
    void await_suspend(std::coroutine_handle<> awaiting) const
    {
        QMetaObject::invokeMethod(
            emitter(), [awaiting] { awaiting.resume(); }, Qt::QueuedConnection);
    }
    void await_resume() const { }
};

QCoro::Task<Error> completeAtOnce()
{
    co_return Error();
}

QCoro::Task<Error> awaitQueuedCall()
{
    co_await QueuedCall();
    co_return Error();
}

QCoro::Task<Error> awaitSignal()
{
    co_await qCoro(emitter(), &Emitter::fired);
    co_return Error();
}

void callNothing() { }

void handlePosted()
{
    QCoreApplication::sendPostedEvents();
}

// The connection is queued.
void emitSignal()
{
    Q_EMIT emitter()->fired();
    QCoreApplication::sendPostedEvents();
}

using Coroutine = QCoro::Task<Error> (*)();
using Resume = void (*)();

template <Coroutine coroutine, Resume resume>
void runCoroutine(benchmark::State &state)
{
    for (auto _ : state) {
        Task task(coroutine);
        task.exec();
        resume();
        if (!task.isFinished())
            state.SkipWithError("the coroutine has not completed");
    }
}

template <Coroutine coroutine, Resume resume>
void runCoroutineSkeleton(benchmark::State &state)
{
    for (auto _ : state) {
        Skeleton task;
        task.start();
        static_cast<void>(coroutine().then([&task](const Error &) { task.end(); }));
        resume();
    }
}

/// What awaits the end of a skeleton by the contract of awaiting a task: resumed from the event loop when the task has
/// finished, when it is set finished without that signal, and when it is destroyed.
class SkeletonAwaiter {
public:
    explicit SkeletonAwaiter(Skeleton *task) : m_task(task) { }

    bool await_ready() const { return false; }
    void await_suspend(std::coroutine_handle<> awaiting)
    {
        SkeletonPrivate *internals = m_task->internals();
        m_connections[0] = QObject::connect(
            m_task, &Skeleton::finished, internals, [this, awaiting] { resume(awaiting); }, Qt::QueuedConnection);
        m_connections[1] = QObject::connect(
            m_task, &Skeleton::stateChanged, internals, [](int) {}, Qt::DirectConnection);
        m_connections[2] = QObject::connect(
            internals, &QObject::destroyed, internals, [] {}, Qt::DirectConnection);
    }
    Error await_resume() const { return Error(); }

private:
    void resume(std::coroutine_handle<> awaiting)
    {
        for (const QMetaObject::Connection &connection : m_connections)
            QObject::disconnect(connection);
        awaiting.resume();
    }

    Skeleton *m_task;
    std::array<QMetaObject::Connection, 3> m_connections;
};

QCoro::Task<> awaitTask(Task *task)
{
    co_await task;
}

QCoro::Task<> awaitSkeleton(Skeleton *task)
{
    SkeletonAwaiter end(task);
    co_await end;
}

void coAwait(benchmark::State &state)
{
    for (auto _ : state) {
        Task task(Task::Asynchronous);
        task.exec();
        const auto awaiting = awaitTask(&task);
        task.finish();
        QCoreApplication::sendPostedEvents();
        if (!awaiting.isReady())
            state.SkipWithError("the coroutine was not resumed");
    }
}

void coAwaitSkeleton(benchmark::State &state)
{
    for (auto _ : state) {
        Skeleton task;
        task.start();
        const auto awaiting = awaitSkeleton(&task);
        task.end();
        QCoreApplication::sendPostedEvents();
        if (!awaiting.isReady())
            state.SkipWithError("the coroutine was not resumed");
    }
}

template <Coroutine coroutine, Resume resume>
Workload resumed(const char *name, double ratioGoal = 1.25)
{
    return {.name = name,
            .ours = runCoroutine<coroutine, resume>,
            .baseline = runCoroutineSkeleton<coroutine, resume>,
            .ratioGoal = ratioGoal};
}

} // namespace

std::vector<Workload> coroutineWorkloads()
{
    return {
        resumed<completeAtOnce, callNothing>("coroutine, completes at once", 1.5),
        resumed<awaitQueuedCall, handlePosted>("coroutine, queued call"),
        resumed<awaitSignal, emitSignal>("coroutine, signal"),
        {.name = "co_await on a task", .ours = coAwait, .baseline = coAwaitSkeleton, .ratioGoal = 1.5},
    };
}

#include "coroutines.moc"
