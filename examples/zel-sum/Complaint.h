#pragma once

#include <QByteArray>

/// A line for the standard error output.
QByteArray complaint(const QByteArray &text);
/// A line that names a file and says the reason.
QByteArray complaint(const QByteArray &path, const QByteArray &reason);
/// The system's text for an errno.
QByteArray reasonOf(int error);
