#include "ObjectStore.h"

#include "Crypto.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {
// httplib hands the body over in small pieces; gathering them into large writes
// keeps a 1 GiB upload at a few hundred system calls per second of transfer.
constexpr size_t bufferSize = 4 * 1024 * 1024;
const QLatin1String partSuffix(".part");
} // namespace

ObjectStore::ObjectStore(QString directory)
    : m_directory(std::move(directory))
{
    QDir().mkpath(m_directory);
    QFile::setPermissions(
        m_directory, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
}

QString ObjectStore::pathOf(const QString &key) const
{
    return m_directory + QLatin1Char('/') + key;
}

bool ObjectStore::isValidKey(const QString &key)
{
    static const QRegularExpression pattern(QStringLiteral("^[A-Za-z0-9][A-Za-z0-9._-]{0,127}$"));
    return pattern.match(key).hasMatch() && !key.endsWith(partSuffix);
}

std::unique_ptr<ObjectStore::Writer> ObjectStore::create(const QString &key) const
{
    if (!isValidKey(key))
        return nullptr;
    // A unique temporary name lets two uploads of one key race without mixing bytes;
    // the later rename wins, as with a real object store.
    const QString temporaryPath = pathOf(key) + QLatin1Char('.')
        + Crypto::randomString(QLatin1String("abcdefghijklmnopqrstuvwxyz0123456789"), 8) + partSuffix;
    const int fd = ::open(
        QFile::encodeName(temporaryPath).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return nullptr;
    return std::unique_ptr<Writer>(new Writer(fd, temporaryPath, pathOf(key)));
}

void ObjectStore::remove(const QString &key) const
{
    if (isValidKey(key))
        QFile::remove(pathOf(key));
}

void ObjectStore::clear() const
{
    QDir dir(m_directory);
    for (const QString &name : dir.entryList(QDir::Files | QDir::Hidden))
        dir.remove(name);
}

namespace {
bool writeAll(int fd, const char *data, size_t length)
{
    while (length > 0) {
        const ssize_t written = ::write(fd, data, length);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        data += written;
        length -= static_cast<size_t>(written);
    }
    return true;
}
} // namespace

ObjectStore::Writer::Writer(int fd, QString temporaryPath, QString finalPath)
    : m_fd(fd)
    , m_temporaryPath(std::move(temporaryPath))
    , m_finalPath(std::move(finalPath))
    , m_buffer(bufferSize)
    , m_writing(bufferSize)
{ }

ObjectStore::Writer::~Writer()
{
    settle();
    if (m_fd >= 0) {
        ::close(m_fd);
        QFile::remove(m_temporaryPath);
    }
}

bool ObjectStore::Writer::settle()
{
    if (m_inFlight.valid() && !m_inFlight.get())
        m_failed = true;
    return !m_failed;
}

bool ObjectStore::Writer::flush()
{
    if (!settle())
        return false;
    std::swap(m_buffer, m_writing);
    const size_t length = std::exchange(m_used, 0);
    m_inFlight = std::async(std::launch::async, writeAll, m_fd, m_writing.data(), length);
    return true;
}

bool ObjectStore::Writer::write(const char *data, size_t length)
{
    if (m_failed || m_fd < 0)
        return false;
    m_size += static_cast<qint64>(length);
    while (length > 0) {
        const size_t take = std::min(m_buffer.size() - m_used, length);
        std::memcpy(m_buffer.data() + m_used, data, take);
        m_used += take;
        data += take;
        length -= take;
        if (m_used == m_buffer.size() && !flush())
            return false;
    }
    return true;
}

bool ObjectStore::Writer::commit()
{
    if (m_fd < 0 || !flush() || !settle())
        return false;
    const int fd = std::exchange(m_fd, -1);
    if (::close(fd) != 0) {
        QFile::remove(m_temporaryPath);
        return false;
    }
    if (std::rename(
            QFile::encodeName(m_temporaryPath).constData(), QFile::encodeName(m_finalPath).constData())
        != 0) {
        QFile::remove(m_temporaryPath);
        return false;
    }
    return true;
}
