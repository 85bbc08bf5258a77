#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

// What a handler answers: a status and a body. Errors are {"error": code}, the
// shape every client of the note service decodes.
struct Answer
{
    int status = 200;
    QByteArray body;
    QByteArray contentType = QByteArrayLiteral("application/json");

    static Answer json(const QJsonObject &object, int status = 200)
    {
        return { status, QJsonDocument(object).toJson(QJsonDocument::Compact) };
    }
    static Answer list(const QJsonArray &array)
    {
        return { 200, QJsonDocument(array).toJson(QJsonDocument::Compact) };
    }
    static Answer error(int status, const QString &code)
    {
        return json(QJsonObject { { QStringLiteral("error"), code } }, status);
    }
};
