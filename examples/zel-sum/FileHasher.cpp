#include "FileHasher.h"

#include <QThread>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr size_t blockSize = 256 * 1024;

int openForReading(const QByteArray &path)
{
    return path == "-" ? ::dup(STDIN_FILENO) : ::open(path.constData(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
}

} // namespace

FileHasher::FileHasher(QCryptographicHash::Algorithm algorithm, WorkDone *done)
    : m_hash(algorithm)
    , m_block(new char[blockSize])
    , m_done(done)
{
}

FileHash FileHasher::hash(const QByteArray &path)
{
    const int file = openForReading(path);
    if (file < 0)
        return {{}, errno, false};
    const FileHash result = hash(file);
    ::close(file);
    return result;
}

FileHash FileHasher::hash(int file)
{
    m_hash.reset();
    while (!QThread::currentThread()->isInterruptionRequested()) {
        const ssize_t length = ::read(file, m_block.get(), blockSize);
        if (length == 0)
            return {m_hash.result().toHex(), 0, false};
        if (length < 0 && errno != EINTR)
            return {{}, errno, false};
        if (length < 0)
            continue;
        m_hash.addData(QByteArrayView(m_block.get(), length));
        if (m_done)
            m_done->bytes.fetch_add(length, std::memory_order_relaxed);
    }
    return {{}, 0, true};
}
