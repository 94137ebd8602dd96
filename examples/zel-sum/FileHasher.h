#pragma once

#include "WorkDone.h"

#include <QByteArray>
#include <QCryptographicHash>

#include <memory>

/// What became of hashing one file.
struct FileHash {
    QByteArray hex;             ///< the digest in lower-case hexadecimal digits; empty when there is none
    int error = 0;              ///< errno of what failed
    bool isInterrupted = false; ///< the thread was asked to stop before the end of the file
};

/// Hashes files one after the other, block by block with the same buffer, whatever their size.
class FileHasher {
public:
    /// Adds what is read to \a done, if there is one.
    explicit FileHasher(QCryptographicHash::Algorithm algorithm, WorkDone *done = nullptr);

    /// Hashes the file, "-" being the standard input. Ends early, after a block, when the thread is asked to stop.
    FileHash hash(const QByteArray &path);

private:
    FileHash hash(int file);

    QCryptographicHash m_hash;
    const std::unique_ptr<char[]> m_block;
    WorkDone *const m_done;
};
