#include "ChecksumList.h"

#include "ChecksumLine.h"
#include "Complaint.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace {

constexpr qsizetype blockSize = 64 * 1024;

} // namespace

ChecksumList::ChecksumList(const QByteArray &path, qsizetype hexLength)
    : m_path(path)
    , m_hexLength(hexLength)
    , m_file(path == "-" ? ::dup(STDIN_FILENO) : ::open(path.constData(), O_RDONLY | O_CLOEXEC))
{
    if (m_file < 0) {
        m_error = errno;
        m_isAtEnd = true;
    }
}

ChecksumList::~ChecksumList()
{
    if (m_file >= 0)
        ::close(m_file);
}

Source::Next ChecksumList::next(Item &item)
{
    for (;;) {
        QByteArrayView line;
        if (takeLine(line)) {
            ++m_lineNumber;
            if (line.isEmpty() || line.startsWith('#'))
                continue;
            return parse(line, item) ? File : Problem;
        }
        if (const int error = std::exchange(m_error, 0)) {
            item = {m_path, 0, {}, reasonOf(error)};
            return Problem;
        }
        if (m_isAtEnd)
            return End;
        if (!fill())
            return Wait;
    }
}

bool ChecksumList::takeLine(QByteArrayView &line)
{
    const QByteArrayView rest = QByteArrayView(m_text).sliced(m_position);
    const qsizetype end = rest.indexOf('\n');
    // What is as long as a block and has no end is no line of a list; it must not fill the memory.
    if (end < 0 && (rest.isEmpty() || (!m_isAtEnd && rest.size() < blockSize)))
        return false;
    line = end < 0 ? rest : rest.first(end);
    m_position += line.size() + (end < 0 ? 0 : 1);
    if (line.endsWith('\r'))
        line.chop(1);
    return true;
}

/// Returns false when there is nothing to read at the moment.
bool ChecksumList::fill()
{
    pollfd readable = {m_file, POLLIN, 0};
    if (::poll(&readable, 1, 0) == 0)
        return false;
    m_text.remove(0, std::exchange(m_position, 0));
    const qsizetype kept = m_text.size();
    m_text.resize(kept + blockSize);
    const ssize_t length = ::read(m_file, m_text.data() + kept, blockSize);
    m_text.resize(kept + qMax<ssize_t>(length, 0));
    if (length < 0 && errno != EINTR)
        m_error = errno;
    m_isAtEnd = length == 0 || m_error != 0;
    return true;
}

bool ChecksumList::parse(QByteArrayView line, Item &item) const
{
    const auto checksum = parseChecksumLine(line, m_hexLength);
    if (!checksum) {
        item = {m_path + ':' + QByteArray::number(m_lineNumber), 0, {}, "not a checksum line of this algorithm"};
        return false;
    }
    struct stat status;
    const bool isKnown = ::stat(checksum->path.constData(), &status) == 0;
    item = {checksum->path, isKnown ? status.st_size : 0, checksum->hex, {}};
    return true;
}
