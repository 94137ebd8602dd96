#pragma once

#include <QByteArray>
#include <QDeadlineTimer>

#include <functional>
#include <utility>

/**
 * Writes lines to a descriptor.
 *
 * A reader that takes nothing holds a write up, but not a stop signal: what was not written then is kept.
 */
class Output {
public:
    /// \a stopDescriptor becomes readable with a stop signal.
    Output(int descriptor, int stopDescriptor);

    /// Called before each write, for what else stands on the same terminal.
    void setBeforeWrite(std::function<void()> beforeWrite) { m_beforeWrite = std::move(beforeWrite); }
    /// Waits until all is written, an error comes up or there is a stop signal.
    void write(const QByteArray &lines);
    /// From now on a write waits until then, whatever the signals. What an earlier one has left is written first.
    void setDeadline(QDeadlineTimer deadline);
    /// Whether a write ended before all was written.
    bool hasRest() const { return !m_rest.isEmpty(); }
    /// The errno of the write that failed; zero while there was none. Nothing is written after it.
    int error() const { return m_error; }

private:
    void writeRest();
    void writePiece();

    const int m_descriptor;
    const int m_stopDescriptor;
    std::function<void()> m_beforeWrite;
    QDeadlineTimer m_deadline = QDeadlineTimer::Forever;
    QByteArray m_rest;
    int m_error = 0;
};
