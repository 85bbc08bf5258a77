#pragma once

#include <QByteArray>
#include <QString>

// The few primitives the service needs from OpenSSL: keyed hashes for token and
// URL signatures, and unpredictable identifiers.
namespace Crypto {
[[nodiscard]] QByteArray hmacSha256(const QByteArray &key, const QByteArray &data);
// Compares in constant time, so that a signature check leaks nothing by timing.
[[nodiscard]] bool equal(const QByteArray &a, const QByteArray &b);
// Bytes from OpenSSL's CSPRNG; aborts when it cannot deliver, since a service that
// hands out guessable codes is worse than one that stops.
[[nodiscard]] QByteArray randomBytes(int count);
// `length` characters drawn uniformly from `alphabet` (rejection sampling, no modulo bias).
[[nodiscard]] QString randomString(QLatin1String alphabet, int length);
} // namespace Crypto
