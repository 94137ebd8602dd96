#pragma once

#include <QString>
#include <QStringList>

/**
 * Switches the category "zel.tasks" on and collects its lines, as "info Task \"load\" => Paused", while it lives.
 * Messages of other categories go where they went before. One at a time.
 */
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    Q_DISABLE_COPY_MOVE(LogCapture)

    /// The lines since the last call.
    QStringList take();
    /// Of the lines since the last call those of \a level, without it.
    QStringList take(const QString &level);
    QStringList takeWarnings() { return take(QStringLiteral("warning")); }
};
