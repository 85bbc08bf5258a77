#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QString>

// The page a phone (or a desktop browser standing in for one) opens at "/": the
// pending link requests, each with buttons that confirm it anonymously or signed
// in, and the notes received, newest first, with a player for each recording.
// Plain HTML with a little CSS; the buttons are ordinary form posts.
class PhonePage
{
public:
    // `pairings` and `notes` are the admin views' JSON; `result` is the outcome of
    // the last confirm ("linked" or an error code), shown once at the top.
    [[nodiscard]] static QByteArray render(
        const QJsonArray &pairings, const QJsonArray &notes, const QString &result = {});
};
