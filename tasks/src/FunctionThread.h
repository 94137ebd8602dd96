#pragma once

#include <QThread>

#include <functional>
#include <utility>

namespace zel {

/// A thread that calls one function.
template <typename T>
class FunctionThread : public QThread {
public:
    explicit FunctionThread(std::function<T()> work, QObject *parent = nullptr)
        : QThread(parent)
        , function(std::move(work))
    {
    }

protected:
    void run() override
    {
        if (function)
            callFunction();
    }

    /// The result of the work, once no termination can hit this thread any more.
    T callFunction()
    {
        T result = function();
        // A termination request that is still pending would strike inside Qt's clean-up of the thread, which may not
        // be unwound, and take the process with it.
        QThread::setTerminationEnabled(false);
        return result;
    }

    const std::function<T()> function;
};

} // namespace zel
