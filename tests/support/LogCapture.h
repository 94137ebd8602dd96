#pragma once

#include <QMessageLogger>
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
    /// Of the lines since the last call those of the level info, without it, each with a line feed before it.
    QString takeInfos();
    /// Of the lines since the last call those of the level warning, without it.
    QStringList takeWarnings();

private:
    QtMessageHandler m_previous;
};
