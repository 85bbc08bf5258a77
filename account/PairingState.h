#pragma once

#include "service/PairingStart.h"

#include <QDateTime>
#include <QMetaType>
#include <QObject>
#include <QString>

// Where a device-code pairing stands (PairingFlow::State):
//   idle                       nothing under way; also the state after a pairing succeeded
//   requesting                 the codes are being asked for
//   waiting(start, expiresAt)  the codes are shown and polled; they stop working at expiresAt
//   failed(message)            the attempt ended: an error's description, or the service's
//                              "code_not_found" / "code_already_used", which the screen words
//   expired                    the codes ran out, by the clock or by the service's "code_expired"
// Equal when the kind and every payload field are equal.
class PairingState
{
    Q_GADGET
    Q_PROPERTY(Kind kind READ kind)
    Q_PROPERTY(QString userCode READ userCode)
    Q_PROPERTY(QDateTime expiresAt READ expiresAt)
    Q_PROPERTY(QString message READ message)

public:
    enum class Kind { idle, requesting, waiting, failed, expired };
    Q_ENUM(Kind)

    PairingState() = default;
    [[nodiscard]] static PairingState idle() { return PairingState(); }
    [[nodiscard]] static PairingState requesting() { return PairingState(Kind::requesting); }
    [[nodiscard]] static PairingState waiting(PairingStart start, QDateTime expiresAt);
    [[nodiscard]] static PairingState failed(QString message);
    [[nodiscard]] static PairingState expired() { return PairingState(Kind::expired); }

    [[nodiscard]] Kind kind() const { return m_kind; }
    // The codes; only set while waiting.
    [[nodiscard]] const PairingStart &start() const { return m_start; }
    [[nodiscard]] QString userCode() const { return m_start.userCode; }
    // Only set while waiting.
    [[nodiscard]] QDateTime expiresAt() const { return m_expiresAt; }
    // Only set when failed.
    [[nodiscard]] QString message() const { return m_message; }

    // "waiting(R3XD-8N5W until 2026-…)" and the like, for logs and test failures.
    [[nodiscard]] QString toString() const;

    friend bool operator==(const PairingState &, const PairingState &) = default;

private:
    explicit PairingState(Kind kind)
        : m_kind(kind)
    { }

    Kind m_kind = Kind::idle;
    PairingStart m_start;
    QDateTime m_expiresAt;
    QString m_message;
};

Q_DECLARE_METATYPE(PairingState)
