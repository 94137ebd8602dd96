#pragma once

#include <QByteArray>
#include <QCryptographicHash>

#include <optional>
#include <vector>

/// What the command line asks for.
struct Options {
    QCryptographicHash::Algorithm algorithm = QCryptographicHash::Sha256;
    int jobs = 1;                   ///< number of working threads
    std::optional<QByteArray> list; ///< the checksum list to verify
    bool failsFast = false;
    bool showsProgress = false;
    std::vector<QByteArray> paths;
};

/// Reads the command line. Without a value everything is said already, and \a exitStatus is set.
std::optional<Options> parseOptions(int argc, char **argv, int &exitStatus);
