#pragma once

#include "support/DevService.h"

#include <QFile>
#include <QJsonDocument>
#include <QUrl>

#include <httplib.h>

#include <memory>
#include <sys/stat.h>

// What the service tests do over and over, against the service of the fixture.
namespace ServiceSteps {
// The seven members of a device description, as the recorder sends them, without braces.
inline const QByteArray deviceMembers = R"("vendorUuid":"V","appVersion":"0.1.0","osVersion":"6.1.0",)"
                                        R"("type":"linux","brand":"lenovo","model":"X1","locale":"en_US")";

// A note's members, as the recorder sends them, but for the user member; without braces.
// (No raw string: moc misreads some.)
inline QByteArray noteMembers(const QString &recordingKey)
{
    return "\"startedAt\":\"2025-03-04T10:11:12.345Z\",\"duration\":42,\"recordingKey\":\""
        + recordingKey.toLatin1()
        + "\",\"source\":\"recorder\",\"sourceUrl\":\"\",\"buildNumber\":7,\"deviceLocale\":\"en_US\"";
}

// Starts a pairing for the device above: {"deviceCode", "userCode", …}.
inline QJsonObject startPairing(DevService &dev)
{
    return dev.send("POST", QStringLiteral("/pair"), "{\"device\":{" + deviceMembers + "}}").json();
}

struct Account
{
    QString sessionId;
    QByteArray token;
    QString accountId;
};

inline QString errorOf(const QByteArray &body)
{
    return QJsonDocument::fromJson(body).object().value(QLatin1String("error")).toString();
}

// Readable and writable by its owner alone.
inline bool ownerOnly(const QString &path)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 && (status.st_mode & 0777) == 0600;
}

inline Account newAccount(DevService &dev, bool anonymous)
{
    const QJsonObject made = dev.createSession(anonymous);
    return { made.value(QLatin1String("id")).toString(),
        made.value(QLatin1String("token")).toString().toLatin1(),
        made.value(QLatin1String("accountId")).toString() };
}

// {"url", "key"} of a fresh upload target of this account.
inline QJsonObject uploadTarget(DevService &dev, const Account &account)
{
    const QString path = QStringLiteral("/upload-recording-url?ext=m4a");
    return dev.send("GET", path, {}, { { "Authorization", account.token } }).json();
}

// Fetches a target and PUTs `bytes` there as the recorder does; returns the key, or "" on failure.
inline QString upload(DevService &dev, const Account &account, const QByteArray &bytes)
{
    const QJsonObject target = uploadTarget(dev, account);
    const QString path = QUrl(target.value(QLatin1String("url")).toString())
                             .toString(QUrl::RemoveScheme | QUrl::RemoveAuthority);
    return dev.send("PUT", path, bytes, { { "Content-Type", "audio/m4a" } }).status == 200
        ? target.value(QLatin1String("key")).toString()
        : QString();
}

// Plain HTTP for what Qt will not send: foreign Host headers, chunked bodies, bare bytes.
inline std::unique_ptr<httplib::Client> rawClient(const DevService &dev)
{
    return std::make_unique<httplib::Client>(dev.baseUrl().host().toStdString(), dev.baseUrl().port());
}
} // namespace ServiceSteps
