#include "Crypto.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <cstdio>
#include <cstdlib>

namespace Crypto {

QByteArray hmacSha256(const QByteArray &key, const QByteArray &data)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    HMAC(EVP_sha256(), key.constData(), static_cast<int>(key.size()),
        reinterpret_cast<const unsigned char *>(data.constData()), static_cast<size_t>(data.size()), digest,
        &length);
    return QByteArray(reinterpret_cast<const char *>(digest), static_cast<qsizetype>(length));
}

bool equal(const QByteArray &a, const QByteArray &b)
{
    return a.size() == b.size()
        && CRYPTO_memcmp(a.constData(), b.constData(), static_cast<size_t>(a.size())) == 0;
}

QByteArray randomBytes(int count)
{
    QByteArray bytes(count, Qt::Uninitialized);
    if (RAND_bytes(reinterpret_cast<unsigned char *>(bytes.data()), count) != 1) {
        std::fputs("selvaro-devservice: no random bytes from OpenSSL\n", stderr);
        std::abort();
    }
    return bytes;
}

QString randomString(QLatin1String alphabet, int length)
{
    const int size = static_cast<int>(alphabet.size());
    const int limit = 256 - 256 % size;
    QString result;
    result.reserve(length);
    while (result.size() < length) {
        const QByteArray bytes = randomBytes(length);
        for (const char byte : bytes) {
            const int value = static_cast<unsigned char>(byte);
            if (value < limit && result.size() < length)
                result.append(QLatin1Char(alphabet[value % size]));
        }
    }
    return result;
}

} // namespace Crypto
