#include "Algorithm.h"

#include <algorithm>

namespace {

struct Entry {
    const char *name;
    QCryptographicHash::Algorithm algorithm;
};

constexpr Entry entries[] = {
    {"md4", QCryptographicHash::Md4},
    {"md5", QCryptographicHash::Md5},
    {"sha1", QCryptographicHash::Sha1},
    {"sha224", QCryptographicHash::Sha224},
    {"sha256", QCryptographicHash::Sha256},
    {"sha384", QCryptographicHash::Sha384},
    {"sha512", QCryptographicHash::Sha512},
    {"sha3-224", QCryptographicHash::Sha3_224},
    {"sha3-256", QCryptographicHash::Sha3_256},
    {"sha3-384", QCryptographicHash::Sha3_384},
    {"sha3-512", QCryptographicHash::Sha3_512},
    {"keccak-224", QCryptographicHash::Keccak_224},
    {"keccak-256", QCryptographicHash::Keccak_256},
    {"keccak-384", QCryptographicHash::Keccak_384},
    {"keccak-512", QCryptographicHash::Keccak_512},
    {"blake2b-160", QCryptographicHash::Blake2b_160},
    {"blake2b-256", QCryptographicHash::Blake2b_256},
    {"blake2b-384", QCryptographicHash::Blake2b_384},
    {"blake2b-512", QCryptographicHash::Blake2b_512},
    {"blake2s-128", QCryptographicHash::Blake2s_128},
    {"blake2s-160", QCryptographicHash::Blake2s_160},
    {"blake2s-224", QCryptographicHash::Blake2s_224},
    {"blake2s-256", QCryptographicHash::Blake2s_256},
};

} // namespace

std::optional<QCryptographicHash::Algorithm> algorithmByName(QByteArrayView name)
{
    const auto found = std::find_if(std::begin(entries), std::end(entries),
                                    [name](const Entry &entry) { return entry.name == name; });
    return found == std::end(entries) ? std::nullopt : std::optional(found->algorithm);
}

QByteArray algorithmNames()
{
    QByteArray names;
    for (const Entry &entry : entries)
        names += (names.isEmpty() ? "" : " ") + QByteArray(entry.name);
    return names;
}
