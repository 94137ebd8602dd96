#pragma once

#include <QByteArray>

/// A line for the standard error output.
QByteArray complaint(const QByteArray &text);
/// A line that names a file and says the system's reason.
QByteArray complaint(const QByteArray &path, int error);
