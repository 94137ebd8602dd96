#include "Batch.h"

#include "ChecksumLine.h"
#include "Complaint.h"
#include "FileHasher.h"

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

bool isFailure(const Item &item, const FileHash &hash)
{
    return hash.error || (!item.expected.isEmpty() && hash.hex != item.expected);
}

} // namespace

zel::Error hashBatch(Batch &batch, QCryptographicHash::Algorithm algorithm, bool failsFast, WorkDone &done)
{
    FileHasher hasher(algorithm, &done);
    for (const Item &item : batch.items) {
        const FileHash hash = hasher.hash(item.path);
        if (hash.isInterrupted)
            return zel::Canceled;
        done.files.fetch_add(1, std::memory_order_relaxed);
        batch.lines += resultLine(item, hash);
        if (hash.error)
            batch.complaints += complaint(item.path, hash.error);
        batch.failures += isFailure(item, hash);
        if (batch.failures && failsFast)
            break;
    }
    return batch.failures ? zel::ReadError : zel::NoError;
}
