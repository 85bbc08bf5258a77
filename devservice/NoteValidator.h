#pragma once

#include <QJsonObject>
#include <QString>

#include <functional>

// The note service's rules for a new note: exactly the eight members the recorder
// sends, each of the right JSON type and form. A violation is named by its error code
// ("missing_startedAt", "invalid_startedAt", "wrong_user_member", "user_mismatch",
// "unexpected_<member>", "unknown_recording", …) so a test sees which rule tripped.
class NoteValidator
{
public:
    // `recordingKnown` tells whether a key was uploaded for this account; it is
    // called last, after every shape check has passed.
    NoteValidator(bool anonymous, QString accountId, std::function<bool(const QString &key)> recordingKnown);

    // An empty string when the note is acceptable, otherwise the error code.
    [[nodiscard]] QString check(const QJsonObject &body) const;

    [[nodiscard]] static bool isIsoTimestamp(const QString &text);

private:
    bool m_anonymous;
    QString m_accountId;
    std::function<bool(const QString &)> m_recordingKnown;
};
