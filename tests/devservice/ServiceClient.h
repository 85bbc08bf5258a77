#pragma once

#include "support/DevService.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <httplib.h>

#include <memory>

// What the service tests do over and over: sessions, upload targets, uploads and a
// note body that passes, all against the service under test. Public calls go
// through DevService::send (Qt's network stack, as the recorder uses);
// `raw()` is an httplib client for what Qt will not send (broken framing, bare bytes).
class ServiceClient
{
public:
    struct Account {
        QString sessionId;
        QByteArray token;
        QString accountId;
        bool anonymous = false;
    };

    explicit ServiceClient(DevService &dev);

    Account newAccount(bool anonymous);
    DevService::Reply post(const QString &path, const QJsonObject &body, const QByteArray &token = {});
    DevService::Reply get(const QString &path, const QByteArray &token = {});
    // PUT of `bytes` to an absolute URL with the given Content-Type (empty: none).
    DevService::Reply put(const QString &url, const QByteArray &bytes, const QByteArray &contentType = "audio/m4a");
    // {"url", "key"} for this account.
    QJsonObject uploadTarget(const Account &account);
    // Fetches a target and PUTs `bytes` there; returns the key.
    QString upload(const Account &account, const QByteArray &bytes);
    // The eight members exactly as the recorder sends them for `key`.
    static QJsonObject noteBody(const Account &account, const QString &key);
    // The path and query of an absolute URL on the service.
    static QString pathOf(const QString &url);

    std::unique_ptr<httplib::Client> raw() const;

private:
    DevService &m_dev;
};
