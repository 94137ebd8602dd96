#include "Output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace {

/// Whole lines, unless the first is too long; never more than a pipe that can be written takes without waiting.
qsizetype pieceSize(const QByteArray &text)
{
    if (text.size() <= PIPE_BUF)
        return text.size();
    const qsizetype lineEnd = text.lastIndexOf('\n', PIPE_BUF - 1);
    return lineEnd < 0 ? PIPE_BUF : lineEnd + 1;
}

} // namespace

Output::Output(int descriptor, int stopDescriptor) : m_descriptor(descriptor), m_stopDescriptor(stopDescriptor) { }

void Output::write(const QByteArray &lines)
{
    if (m_error != 0)
        return;
    if (m_beforeWrite && !lines.isEmpty())
        m_beforeWrite();
    m_rest += lines;
    writeRest();
}

void Output::setDeadline(QDeadlineTimer deadline)
{
    m_deadline = deadline;
    writeRest();
}

void Output::writeRest()
{
    while (!m_rest.isEmpty()) {
        pollfd descriptors[] = {{m_descriptor, POLLOUT, 0}, {m_stopDescriptor, POLLIN, 0}};
        const int watched = m_deadline.isForever() ? 2 : 1;
        const int ready = ::poll(descriptors, watched, static_cast<int>(m_deadline.remainingTime()));
        if (ready == 0 || descriptors[1].revents)
            return;
        if (ready > 0)
            writePiece();
    }
}

void Output::writePiece()
{
    const ssize_t length = ::write(m_descriptor, m_rest.constData(), pieceSize(m_rest));
    if (length >= 0) {
        m_rest.remove(0, length);
    } else if (errno != EINTR && errno != EAGAIN) {
        m_error = errno;
        m_rest.clear();
    }
}
