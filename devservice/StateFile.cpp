#include "StateFile.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>

namespace {
template <typename Records> QJsonArray arrayOf(const Records &records)
{
    QJsonArray array;
    for (const auto &record : records)
        array.append(record.toJson());
    return array;
}

template <typename Record> QList<Record> listOf(const QJsonValue &array)
{
    QList<Record> records;
    for (const QJsonValue &value : array.toArray())
        records.append(Record::fromJson(value.toObject()));
    return records;
}
} // namespace

StateFile::StateFile(QString path)
    : m_path(std::move(path))
{ }

Outcome<ServiceRecords, QString> StateFile::load() const
{
    if (m_path.isEmpty() || !QFile::exists(m_path))
        return ServiceRecords {};
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly))
        return file.errorString();
    QJsonParseError parseError {};
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parseError);
    if (!document.isObject())
        return parseError.errorString();
    const QJsonObject object = document.object();
    ServiceRecords records;
    records.secret = QByteArray::fromBase64(object.value(QLatin1String("secret")).toString().toLatin1());
    records.pairings = listOf<Pairing>(object.value(QLatin1String("pairings")));
    for (const Session &session : listOf<Session>(object.value(QLatin1String("sessions"))))
        records.sessions.insert(session.id, session);
    const QJsonObject issued = object.value(QLatin1String("issuedKeys")).toObject();
    for (auto it = issued.begin(); it != issued.end(); ++it)
        records.issuedKeys.insert(it.key(), it.value().toString());
    for (const Upload &upload : listOf<Upload>(object.value(QLatin1String("uploads"))))
        records.uploads.insert(upload.key, upload);
    records.notes = listOf<Note>(object.value(QLatin1String("notes")));
    return records;
}

void StateFile::save(const ServiceRecords &records) const
{
    if (m_path.isEmpty())
        return;
    QJsonObject issued;
    for (auto it = records.issuedKeys.cbegin(); it != records.issuedKeys.cend(); ++it)
        issued.insert(it.key(), it.value());
    const QJsonObject object { { QStringLiteral("secret"), QString::fromLatin1(records.secret.toBase64()) },
        { QStringLiteral("pairings"), arrayOf(records.pairings) },
        { QStringLiteral("sessions"), arrayOf(records.sessions) }, { QStringLiteral("issuedKeys"), issued },
        { QStringLiteral("uploads"), arrayOf(records.uploads) },
        { QStringLiteral("notes"), arrayOf(records.notes) } };
    QSaveFile file(m_path);
    if (file.open(QIODevice::WriteOnly)) {
        // It holds the signing secret and every session's token: the owner's only.
        file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
        file.write(QJsonDocument(object).toJson(QJsonDocument::Indented));
        file.commit();
    }
}
