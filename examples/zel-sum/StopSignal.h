#pragma once

#include <QObject>

/**
 * Brings SIGINT and SIGTERM into the event loop. One instance at most.
 *
 * The second signal of a kind ends the process.
 */
class StopSignal : public QObject {
    Q_OBJECT
public:
    explicit StopSignal(QObject *parent = nullptr);

    /// Readable from the signal on, until received() is emitted.
    int descriptor() const;

Q_SIGNALS:
    /// A signal came, in the event loop.
    void received();
};
