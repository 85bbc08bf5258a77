#pragma once

#include <QJsonObject>
#include <QString>

// One device-code pairing, from /pair until its code is redeemed. toJson() is the
// one shape of it: what the state file keeps and what /admin/pairings shows.
struct Pairing
{
    enum class State { Pending, Confirmed, Redeemed };

    QString deviceCode;
    QString userCode;
    QJsonObject device;
    State state = State::Pending;
    qint64 createdAtMs = 0;
    qint64 expiresAtMs = 0;
    QString sessionId; // once confirmed

    [[nodiscard]] bool expiredAt(qint64 nowMs) const { return nowMs >= expiresAtMs; }
    [[nodiscard]] QJsonObject toJson() const;
    // Also reads a state file from before, which kept the state as its number.
    [[nodiscard]] static Pairing fromJson(const QJsonObject &object);
};
