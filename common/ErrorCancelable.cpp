#include <zel/common/ErrorCancelable.h>

namespace zel {

class ErrorCancelable::Private {
public:
    Error error;
    bool canceled = false;
};

ErrorCancelable::ErrorCancelable(QObject *parent) : QObject(parent), d(std::make_unique<Private>())
{
    // Whoever emits the signal, a subclass or a relay, and on whichever thread, the status follows at once.
    connect(
        this, &ErrorCancelable::canceled, this, [this] { d->canceled = true; }, Qt::DirectConnection);
}

ErrorCancelable::~ErrorCancelable() = default;

Error ErrorCancelable::error() const
{
    return d->error;
}

bool ErrorCancelable::hasError() const
{
    return d->error.hasError();
}

void ErrorCancelable::setError(const Error &error)
{
    // A copy: the handlers get the value even when one of them replaces the error or deletes the object.
    const Error current = error;
    d->error = current;
    if (current.equals(Canceled))
        d->canceled = true;
    else if (!current.hasError())
        d->canceled = false;
    Q_EMIT errorChanged(current);
}

bool ErrorCancelable::isCanceled() const
{
    return d->canceled;
}

void ErrorCancelable::setCanceled(bool canceled)
{
    d->canceled = canceled;
}

} // namespace zel
