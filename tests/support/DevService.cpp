#include "support/DevService.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QEventLoop>
#include <QFile>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>

DevService::DevService()
    : DevService(
        QUrl(qEnvironmentVariable("SELVARO_TEST_SERVICE_URL")), qgetenv("SELVARO_TEST_SERVICE_ADMIN_TOKEN"))
{ }

DevService::DevService(QUrl baseUrl, QByteArray adminToken)
    : m_baseUrl(std::move(baseUrl))
    , m_adminToken(std::move(adminToken))
{ }

QString DevService::redacted(const QByteArray &value)
{
    return QStringLiteral("sha256:")
        + QString::fromLatin1(QCryptographicHash::hash(value, QCryptographicHash::Sha256).toHex().left(16));
}

DevService::Reply DevService::send(const QByteArray &method, const QString &path, const QByteArray &body,
    const QList<QPair<QByteArray, QByteArray>> &headers)
{
    QNetworkAccessManager manager;
    QNetworkRequest request(m_baseUrl.resolved(QUrl(path)));
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    const QString route = QUrl(path).path();
    if (route == QLatin1String("/") || route.startsWith(QLatin1String("/admin/"))
        || route.startsWith(QLatin1String("/files/")))
        request.setRawHeader("X-Admin-Token", m_adminToken);
    for (const auto &[name, value] : headers)
        request.setRawHeader(name, value);
    QBuffer buffer;
    buffer.setData(body);
    buffer.open(QIODevice::ReadOnly);
    QNetworkReply *reply = manager.sendCustomRequest(request, method, &buffer);
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(30000, &loop, &QEventLoop::quit);
    loop.exec();
    Reply result;
    result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    result.body = reply->readAll();
    delete reply;
    return result;
}

const QByteArray DevService::deviceMembers
    = R"("vendorUuid":"V","appVersion":"0.1.0","osVersion":"6.1.0",)"
      R"("type":"linux","brand":"lenovo","model":"X1","locale":"en_US")";

QByteArray DevService::noteMembers(const QString &recordingKey)
{
    return R"("startedAt":"2025-03-04T10:11:12.345Z","duration":42,"recordingKey":")"
        + recordingKey.toLatin1()
        + R"(","source":"recorder","sourceUrl":"","buildNumber":7,"deviceLocale":"en_US")";
}

DevService::Account DevService::newAccount(bool anonymous)
{
    const QJsonObject made = createSession(anonymous);
    return { made.value(QLatin1String("id")).toString(),
        made.value(QLatin1String("token")).toString().toLatin1(),
        made.value(QLatin1String("accountId")).toString() };
}

QString DevService::upload(const Account &account, const QByteArray &bytes)
{
    const QJsonObject target = send("GET", QStringLiteral("/upload-recording-url?ext=m4a"), {},
        { { "Authorization",
            account.token } }).json();
    const QString path = QUrl(target.value(QLatin1String("url")).toString())
                             .toString(QUrl::RemoveScheme | QUrl::RemoveAuthority);
    return send("PUT", path, bytes, { { "Content-Type", "audio/m4a" } }).status == 200
        ? target.value(QLatin1String("key")).toString()
        : QString();
}

QJsonObject DevService::startPairing()
{
    return send("POST", QStringLiteral("/pair"), "{\"device\":{" + deviceMembers + "}}").json();
}
