#pragma once

#include <QString>

#include <memory>
#include <vector>

// The uploaded objects: one file per key in one folder. Writes stream through a
// large buffer into a temporary file that is renamed into place when complete, so
// a reader never sees half an object and memory stays flat for any size.
class ObjectStore
{
public:
    explicit ObjectStore(QString directory);

    [[nodiscard]] QString directory() const { return m_directory; }
    [[nodiscard]] QString pathOf(const QString &key) const;
    // Keys are single path segments of safe characters; anything else never
    // touches the file system.
    [[nodiscard]] static bool isValidKey(const QString &key);

    // One object being written. Not thread-safe; one request owns it. Dropping it
    // without commit() removes the partial file.
    class Writer
    {
    public:
        ~Writer();
        Writer(const Writer &) = delete;
        Writer &operator=(const Writer &) = delete;

        bool write(const char *data, size_t length);
        // Flushes, closes and moves the object into place; false on any I/O error.
        bool commit();
        [[nodiscard]] qint64 size() const { return m_size; }

    private:
        friend class ObjectStore;
        Writer(int fd, QString temporaryPath, QString finalPath);
        bool flush();

        int m_fd;
        QString m_temporaryPath;
        QString m_finalPath;
        std::vector<char> m_buffer;
        size_t m_used = 0;
        qint64 m_size = 0;
        bool m_failed = false;
    };

    // A writer for `key`, or nullptr when the file cannot be created.
    [[nodiscard]] std::unique_ptr<Writer> create(const QString &key) const;
    void remove(const QString &key) const;
    void clear() const;

private:
    QString m_directory;
};
