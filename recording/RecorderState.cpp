#include "recording/RecorderState.h"

#include <QMetaEnum>

RecorderState RecorderState::saving(QString text, int progress)
{
    RecorderState state(Kind::saving, std::move(text));
    state.m_progress = progress;
    return state;
}

RecorderState RecorderState::failed(QString message)
{
    return RecorderState(Kind::failed, std::move(message));
}

QString RecorderState::toString() const
{
    const QString kind
        = QString::fromLatin1(QMetaEnum::fromType<Kind>().valueToKey(static_cast<int>(m_kind)));
    if (!m_text.isEmpty())
        return QStringLiteral("%1(%2)").arg(kind, m_text);
    return kind;
}
