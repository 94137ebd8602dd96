// baseline-sum PATH...: prints what `zel-sum PATH...` does, with a plain parallel map over the list of all files.

#include <ChecksumLine.h>
#include <FileHasher.h>
#include <FolderWalk.h>

#include <QByteArrayList>
#include <QtConcurrentMap>

#include <unistd.h>

namespace {

QByteArrayList allFiles(int argc, char **argv)
{
    FolderWalk walk(std::vector<QByteArray>(argv + 1, argv + argc));
    QByteArrayList files;
    Item item;
    for (Source::Next next; (next = walk.next(item)) != Source::End;) {
        if (next == Source::File)
            files.append(item.path);
    }
    return files;
}

QByteArray lineFor(const QByteArray &path)
{
    thread_local FileHasher hasher(QCryptographicHash::Sha256);
    const FileHash hash = hasher.hash(path);
    return hash.error ? QByteArray() : checksumLine(hash.hex, path);
}

bool writeAll(QByteArrayView text)
{
    while (!text.isEmpty()) {
        const ssize_t length = ::write(STDOUT_FILENO, text.data(), text.size());
        if (length < 0)
            return false;
        text = text.sliced(length);
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    const auto lines = QtConcurrent::blockingMapped<QByteArrayList>(allFiles(argc, argv), lineFor);
    return writeAll(lines.join()) ? 0 : 1;
}
