#pragma once

#include <zel/common/zel_common_export.h>

#include <QObject>
#include <QString>

namespace zel {

/**
 * Shows the progress of something and may ask for its cancellation.
 *
 * Subclass it for a progress bar, a terminal line or a log, and hand it to BaseTask::connectTo(). The operations are
 * called in the thread that the connection type given there decides.
 */
class ZEL_COMMON_EXPORT ProgressBarOutputInterface : public QObject {
    Q_OBJECT
public:
    /// Shows nothing yet.
    explicit ProgressBarOutputInterface(QObject *parent = nullptr);
    ~ProgressBarOutputInterface() override;

    /// Shows that \a value of \a total is done. The figures are those of the task: any unit, no promise of range.
    virtual void showProgress(int value, int total) = 0;
    /// Takes the display back to its empty state. Never called by a task. The default does nothing.
    virtual void resetProgress();
    /// Shows what is being done.
    virtual void showProgressText(const QString &text) = 0;

Q_SIGNALS:
    /// The person in front of the display wants the work to stop.
    void cancelRequested() const;
};

} // namespace zel
