#pragma once

#include <QByteArray>
#include <QCryptographicHash>

#include <optional>

/// The algorithm of that name, such as "sha256".
std::optional<QCryptographicHash::Algorithm> algorithmByName(QByteArrayView name);

/// All names, separated by spaces.
QByteArray algorithmNames();
