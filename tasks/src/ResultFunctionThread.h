#pragma once

#include "FunctionThread.h"

#include <QMutex>

#include <optional>

namespace zel {

/// A thread that calls one function and keeps what it returned.
template <typename T>
class ResultFunctionThread : public FunctionThread<T> {
public:
    using FunctionThread<T>::FunctionThread;

    /// What the function returned; empty as long as it has not. May be called from any thread.
    std::optional<T> result() const
    {
        const QMutexLocker locker(&resultMutex);
        return m_result;
    }

protected:
    void run() override
    {
        if (!this->function)
            return;
        T result = this->callFunction();
        const QMutexLocker locker(&resultMutex);
        m_result = std::move(result);
    }

private:
    std::optional<T> m_result;
    mutable QMutex resultMutex;
};

} // namespace zel
