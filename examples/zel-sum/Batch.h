#pragma once

#include "Source.h"
#include "WorkDone.h"

#include <zel/common/Error.h>

#include <QCryptographicHash>

#include <vector>

/**
 * Files that are hashed by one task, and what came out.
 *
 * The run fills the items, the work fills the rest; the run looks at it when the task has ended by itself.
 */
struct Batch {
    std::vector<Item> items;
    qint64 size = 0; ///< of all items together, in bytes

    WorkDone done;         ///< how far the work is
    QByteArray lines;      ///< for the standard output
    QByteArray complaints; ///< for the standard error output
    int failures = 0;      ///< number of files that could not be read or have another digest

    bool isDone = false; ///< only for the run
};

/// Hashes the files of \a batch; the error stands for all failures. With \a failsFast it stops at the first one.
zel::Error hashBatch(Batch &batch, QCryptographicHash::Algorithm algorithm, bool failsFast);
