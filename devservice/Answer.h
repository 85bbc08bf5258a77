#pragma once

#include "Outcome.h"
#include "ServiceError.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

#include <functional>

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
    // The one place a refusal of the service's rules gets its status.
    static Answer refusal(const ServiceError &error)
    {
        using Kind = ServiceError::Kind;
        switch (error.kind) {
        case Kind::Rejected:
            return Answer::error(400, error.code);
        case Kind::Unauthenticated:
            return Answer::error(401, error.code);
        case Kind::Forbidden:
            return Answer::error(403, error.code);
        case Kind::NotFound:
            return Answer::error(404, error.code);
        case Kind::AlreadyUsed:
            return Answer::error(409, error.code);
        case Kind::Expired:
            return Answer::error(410, error.code);
        }
        return Answer::error(500, error.code);
    }
    // The record's JSON on success, the refusal otherwise.
    template <typename T, typename ToJson> static Answer of(const Outcome<T> &outcome, ToJson toJson)
    {
        return outcome ? json(std::invoke(toJson, *outcome)) : refusal(outcome.error());
    }
};
