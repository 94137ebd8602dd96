#pragma once

#include <QByteArray>

#include <optional>

/// A digest and the file it belongs to, as a line of a checksum list says it.
struct Checksum {
    QByteArray hex; ///< lower case
    QByteArray path;
};

/**
 * The name of a file on a line of its own.
 *
 * Line breaks and backslashes are written as \\n, \\r and \\\\; a backslash before the whole line says that there are
 * any.
 */
struct EscapedName {
    explicit EscapedName(const QByteArray &path);

    QByteArray mark; ///< goes before the line: a backslash or nothing
    QByteArray name;
};

/// The line for \a path, in the format of sha256sum and its siblings, with the line break.
QByteArray checksumLine(const QByteArray &hex, const QByteArray &path);

/// Reads a line without its line break. \a hexLength is the number of digits of the digest.
std::optional<Checksum> parseChecksumLine(QByteArrayView line, qsizetype hexLength);
