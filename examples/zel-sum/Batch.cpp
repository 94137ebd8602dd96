#include "Batch.h"

#include "ChecksumLine.h"
#include "Complaint.h"
#include "FileHasher.h"

#include <zel/common/UnifiedError.h>

#include <QSet>
#include <QString>

namespace {

QByteArray verdictLine(const Item &item, const QByteArray &verdict)
{
    const EscapedName escaped(item.path);
    return escaped.mark + escaped.name + ": " + verdict + '\n';
}

QByteArray resultLine(const Item &item, const FileHash &hash)
{
    if (item.expected.isEmpty())
        return hash.error ? QByteArray() : checksumLine(hash.hex, item.path);
    if (hash.error)
        return verdictLine(item, "FAILED to read");
    return verdictLine(item, hash.hex == item.expected ? "OK" : "FAILED, the digest differs");
}

zel::Error failureOf(const Item &item, const FileHash &hash)
{
    if (hash.error)
        return {zel::ReadError, QString::fromLocal8Bit(reasonOf(hash.error))};
    if (!item.expected.isEmpty() && hash.hex != item.expected)
        return {zel::FormatError, QStringLiteral("the digest differs")};
    return {};
}

} // namespace

zel::Error hashBatch(Batch &batch, QCryptographicHash::Algorithm algorithm, bool failsFast)
{
    FileHasher hasher(algorithm, &batch.done);
    QSet<zel::Error> failures;
    for (const Item &item : batch.items) {
        const FileHash hash = hasher.hash(item.path);
        if (hash.isInterrupted)
            return zel::Canceled;
        batch.done.files.fetch_add(1, std::memory_order_relaxed);
        batch.lines += resultLine(item, hash);
        if (hash.error)
            batch.complaints += complaint(item.path, reasonOf(hash.error));
        const zel::Error failure = failureOf(item, hash);
        if (!failure.hasError())
            continue;
        ++batch.failures;
        failures.insert(failure);
        if (failsFast)
            break;
    }
    return zel::UnifiedError::computeUnifiedError(failures);
}
