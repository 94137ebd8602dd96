#include "Complaint.h"

#include "ChecksumLine.h"

#include <QString>

QByteArray complaint(const QByteArray &text)
{
    return "zel-sum: " + text + '\n';
}

QByteArray complaint(const QByteArray &path, int error)
{
    return complaint(EscapedName(path).name + ": " + qt_error_string(error).toLocal8Bit());
}
