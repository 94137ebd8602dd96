#include "Complaint.h"

#include "ChecksumLine.h"

#include <QString>

QByteArray complaint(const QByteArray &text)
{
    return "zel-sum: " + text + '\n';
}

QByteArray complaint(const QByteArray &path, const QByteArray &reason)
{
    return complaint(EscapedName(path).name + ": " + reason);
}

QByteArray reasonOf(int error)
{
    return qt_error_string(error).toLocal8Bit();
}
