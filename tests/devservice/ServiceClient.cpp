#include "ServiceClient.h"

#include <QJsonDocument>
#include <QUrl>

ServiceClient::ServiceClient(DevService &dev)
    : m_dev(dev)
{
}

ServiceClient::Account ServiceClient::newAccount(bool anonymous)
{
    const QJsonObject made = m_dev.createSession(anonymous);
    return {made.value(QLatin1String("id")).toString(), made.value(QLatin1String("token")).toString().toLatin1(),
            made.value(QLatin1String("accountId")).toString(), made.value(QLatin1String("isAnonymous")).toBool()};
}

DevService::Reply ServiceClient::post(const QString &path, const QJsonObject &body, const QByteArray &token)
{
    QList<QPair<QByteArray, QByteArray>> headers;
    if (!token.isEmpty())
        headers.append({"Authorization", token});
    return m_dev.send("POST", path, QJsonDocument(body).toJson(QJsonDocument::Compact), headers);
}

DevService::Reply ServiceClient::get(const QString &path, const QByteArray &token)
{
    QList<QPair<QByteArray, QByteArray>> headers;
    if (!token.isEmpty())
        headers.append({"Authorization", token});
    return m_dev.send("GET", path, {}, headers);
}

DevService::Reply ServiceClient::put(const QString &url, const QByteArray &bytes, const QByteArray &contentType)
{
    return m_dev.send("PUT", pathOf(url), bytes, {{"Content-Type", contentType}});
}

QJsonObject ServiceClient::uploadTarget(const Account &account)
{
    return get(QStringLiteral("/upload-recording-url?ext=m4a"), account.token).json();
}

QString ServiceClient::upload(const Account &account, const QByteArray &bytes)
{
    const QJsonObject target = uploadTarget(account);
    if (put(target.value(QLatin1String("url")).toString(), bytes).status != 200)
        return {};
    return target.value(QLatin1String("key")).toString();
}

QJsonObject ServiceClient::noteBody(const Account &account, const QString &key)
{
    return {{QStringLiteral("startedAt"), QStringLiteral("2025-03-04T10:11:12.345Z")},
            {QStringLiteral("duration"), 42},
            {QStringLiteral("recordingKey"), key},
            {QStringLiteral("source"), QStringLiteral("recorder")},
            {QStringLiteral("sourceUrl"), QString()},
            {QStringLiteral("buildNumber"), 7},
            {QStringLiteral("deviceLocale"), QStringLiteral("en_US")},
            {account.anonymous ? QStringLiteral("anonUser") : QStringLiteral("user"), account.accountId}};
}

QString ServiceClient::pathOf(const QString &url)
{
    return QUrl(url).toString(QUrl::RemoveScheme | QUrl::RemoveAuthority);
}

std::unique_ptr<httplib::Client> ServiceClient::raw() const
{
    const QUrl base = m_dev.baseUrl();
    auto client = std::make_unique<httplib::Client>(base.host().toStdString(), base.port());
    client->set_read_timeout(10, 0);
    return client;
}
