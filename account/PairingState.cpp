#include "account/PairingState.h"

#include <QMetaEnum>

PairingState PairingState::waiting(PairingStart start, QDateTime expiresAt)
{
    PairingState state(Kind::waiting);
    state.m_start = std::move(start);
    state.m_expiresAt = std::move(expiresAt);
    return state;
}

PairingState PairingState::failed(QString message)
{
    PairingState state(Kind::failed);
    state.m_message = std::move(message);
    return state;
}

QString PairingState::toString() const
{
    const QString kind
        = QString::fromLatin1(QMetaEnum::fromType<Kind>().valueToKey(static_cast<int>(m_kind)));
    switch (m_kind) {
    case Kind::waiting:
        return QStringLiteral("%1(%2 until %3)")
            .arg(kind, m_start.userCode, m_expiresAt.toString(Qt::ISODateWithMs));
    case Kind::failed:
        return QStringLiteral("%1(%2)").arg(kind, m_message);
    default:
        return kind;
    }
}
