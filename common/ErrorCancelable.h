#pragma once

#include <zel/common/Cancelable.h>
#include <zel/common/Error.h>
#include <zel/common/zel_common_export.h>

#include <QObject>

#include <memory>

namespace zel {

/**
 * A QObject with a current error and a canceled status.
 *
 * Threads: error and status may be read and set from any thread; signals come on the thread that sets them.
 */
class ZEL_COMMON_EXPORT ErrorCancelable : public QObject, public Cancelable {
    Q_OBJECT
public:
    /// An object without error that does not count as canceled.
    explicit ErrorCancelable(QObject *parent = nullptr);
    ~ErrorCancelable() override;

    /// A copy of the current error; Error() in a new object.
    Error error() const;
    /// Whether the current error is one.
    bool hasError() const;
    /**
     * Makes \a error the current error and emits errorChanged(), also when it equals the present one.
     *
     * A Canceled error makes the object count as canceled, a value without error ends that; any other error leaves
     * the status alone.
     */
    void setError(const Error &error);

    /**
     * Whether the object counts as canceled.
     *
     * True after setCanceled(true) and after setError() with a Canceled error; false after setCanceled(false) and after
     * setError() with a value that carries no error. A canceled() that a subclass emits does not set it.
     */
    bool isCanceled() const override;
    /// Sets the canceled status alone: emits nothing, leaves the error as it is.
    void setCanceled(bool canceled) override;

Q_SIGNALS:
    /// There is a new current error, from setError(). The handler may delete the object.
    void errorChanged(const Error &error);
    /// The object was canceled. The handler may delete the object.
    void canceled();

protected:
    /// setError() without the signal.
    void storeError(Error error);

private:
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace zel
