#include <zel/common/ErrorCancelable.h>

#include <QMutex>

namespace zel {

class ErrorCancelable::Private {
public:
    /// Guards both. Nothing else is locked, and nobody called, while it is held.
    mutable QMutex mutex;
    Error error;
    bool canceled = false;
};

ErrorCancelable::ErrorCancelable(QObject *parent) : QObject(parent), d(std::make_unique<Private>()) { }

ErrorCancelable::~ErrorCancelable() = default;

Error ErrorCancelable::error() const
{
    const QMutexLocker locker(&d->mutex);
    return d->error;
}

bool ErrorCancelable::hasError() const
{
    const QMutexLocker locker(&d->mutex);
    return d->error.hasError();
}

void ErrorCancelable::setError(const Error &error)
{
    // A copy: the handlers get the value even when one of them replaces the error or deletes the object.
    const Error current = error;
    storeError(current);
    Q_EMIT errorChanged(current);
}

void ErrorCancelable::storeError(Error error)
{
    const QMutexLocker locker(&d->mutex);
    if (error.equals(Canceled))
        d->canceled = true;
    else if (!error.hasError())
        d->canceled = false;
    // The replaced one is destroyed with the argument, after the lock.
    std::swap(d->error, error);
}

bool ErrorCancelable::isCanceled() const
{
    const QMutexLocker locker(&d->mutex);
    return d->canceled;
}

void ErrorCancelable::setCanceled(bool canceled)
{
    const QMutexLocker locker(&d->mutex);
    d->canceled = canceled;
}

} // namespace zel
