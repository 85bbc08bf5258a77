#include "NoteValidator.h"

#include <QDateTime>
#include <QRegularExpression>

#include <cmath>

namespace {
bool isWholeNumber(const QJsonValue &value)
{
    if (!value.isDouble())
        return false;
    const double number = value.toDouble();
    return std::isfinite(number) && std::trunc(number) == number;
}
} // namespace

NoteValidator::NoteValidator(
    bool anonymous, QString accountId, std::function<bool(const QString &)> recordingKnown)
    : m_anonymous(anonymous)
    , m_accountId(std::move(accountId))
    , m_recordingKnown(std::move(recordingKnown))
{ }

bool NoteValidator::isIsoTimestamp(const QString &text)
{
    // Internet date-time in UTC with fractional seconds and the Z suffix, nothing looser.
    static const QRegularExpression pattern(
        QStringLiteral("^\\d{4}-\\d{2}-\\d{2}T\\d{2}:\\d{2}:\\d{2}\\.\\d{1,9}Z$"));
    if (!pattern.match(text).hasMatch())
        return false;
    // The pattern lets 2025-13-45 through; the calendar does not. Qt reads at most
    // milliseconds, so longer fractions are cut to three digits first.
    const qsizetype dot = text.indexOf(QLatin1Char('.'));
    const QString millis
        = text.mid(dot + 1, text.size() - dot - 2).left(3).leftJustified(3, QLatin1Char('0'));
    return QDateTime::fromString(text.left(dot + 1) + millis + QLatin1Char('Z'), Qt::ISODateWithMs).isValid();
}

QString NoteValidator::check(const QJsonObject &body) const
{
    const QLatin1String ownUser = m_anonymous ? QLatin1String("anonUser") : QLatin1String("user");
    const QLatin1String otherUser = m_anonymous ? QLatin1String("user") : QLatin1String("anonUser");
    if (body.contains(otherUser))
        return QStringLiteral("wrong_user_member");

    enum class Kind { String, WholeNumber };
    struct Member
    {
        QLatin1String name;
        Kind kind;
    };
    const Member members[] = { { QLatin1String("startedAt"), Kind::String },
        { QLatin1String("duration"), Kind::WholeNumber }, { QLatin1String("recordingKey"), Kind::String },
        { QLatin1String("source"), Kind::String }, { QLatin1String("sourceUrl"), Kind::String },
        { QLatin1String("buildNumber"), Kind::WholeNumber }, { QLatin1String("deviceLocale"), Kind::String },
        { ownUser, Kind::String } };
    for (const Member &member : members) {
        const QJsonValue value = body.value(member.name);
        if (value.isUndefined())
            return QStringLiteral("missing_") + member.name;
        const bool typed = member.kind == Kind::String ? value.isString() : isWholeNumber(value);
        if (!typed)
            return QStringLiteral("invalid_") + member.name;
    }
    for (auto it = body.begin(); it != body.end(); ++it) {
        const bool known = std::any_of(std::begin(members), std::end(members),
            [&it](const Member &member) { return it.key() == member.name; });
        if (!known)
            return QStringLiteral("unexpected_") + it.key();
    }

    if (!isIsoTimestamp(body.value(QLatin1String("startedAt")).toString()))
        return QStringLiteral("invalid_startedAt");
    if (body.value(QLatin1String("duration")).toDouble() < 0)
        return QStringLiteral("invalid_duration");
    if (body.value(QLatin1String("source")).toString() != QLatin1String("recorder"))
        return QStringLiteral("invalid_source");
    if (body.value(ownUser).toString() != m_accountId)
        return QStringLiteral("user_mismatch");
    const QString key = body.value(QLatin1String("recordingKey")).toString();
    if (key.isEmpty() || !m_recordingKnown(key))
        return QStringLiteral("unknown_recording");
    return {};
}
