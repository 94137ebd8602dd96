#include "ChecksumLine.h"

#include <algorithm>

namespace {

bool isHex(QByteArrayView digits)
{
    return std::all_of(digits.begin(), digits.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    });
}

std::optional<char> unescaped(char c)
{
    switch (c) {
    case '\\':
        return '\\';
    case 'n':
        return '\n';
    case 'r':
        return '\r';
    default:
        return std::nullopt;
    }
}

/// Empty when \a name is no escaped name.
QByteArray unescapedName(QByteArrayView name)
{
    QByteArray path;
    for (auto c = name.begin(); c != name.end(); ++c) {
        if (*c != '\\') {
            path += *c;
            continue;
        }
        const auto meant = ++c == name.end() ? std::nullopt : unescaped(*c);
        if (!meant)
            return {};
        path += *meant;
    }
    return path;
}

} // namespace

EscapedName::EscapedName(const QByteArray &path) : name(path)
{
    if (std::none_of(path.begin(), path.end(), [](char c) { return c == '\\' || c == '\n' || c == '\r'; }))
        return;
    mark = "\\";
    name.replace("\\", "\\\\").replace("\n", "\\n").replace("\r", "\\r");
}

QByteArray checksumLine(const QByteArray &hex, const QByteArray &path)
{
    const EscapedName escaped(path);
    return escaped.mark + hex + "  " + escaped.name + '\n';
}

std::optional<Checksum> parseChecksumLine(QByteArrayView line, qsizetype hexLength)
{
    const bool isEscaped = line.startsWith('\\');
    if (isEscaped)
        line = line.sliced(1);
    // Two blanks, or a blank and the asterisk of a file that was read in binary mode.
    if (line.size() <= hexLength + 2 || line[hexLength] != ' '
        || (line[hexLength + 1] != ' ' && line[hexLength + 1] != '*'))
        return std::nullopt;
    const QByteArrayView digits = line.first(hexLength);
    const QByteArrayView name = line.sliced(hexLength + 2);
    const QByteArray path = isEscaped ? unescapedName(name) : name.toByteArray();
    if (!isHex(digits) || path.isEmpty() || path.contains('\0'))
        return std::nullopt;
    return Checksum{digits.toByteArray().toLower(), path};
}
