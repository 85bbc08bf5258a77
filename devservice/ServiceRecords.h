#pragma once

#include "Note.h"
#include "Pairing.h"
#include "Session.h"
#include "Upload.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>

// What the service keeps across a restart: the signing secret and every record.
// Each member has an initializer, so that `{ .secret = … }` names only the one it keeps.
struct ServiceRecords
{
    QByteArray secret {};
    QList<Pairing> pairings {};
    QHash<QString, Session> sessions {}; // by id
    // Key → account it was issued to; a note may only cite its own account's objects.
    QHash<QString, QString> issuedKeys {};
    QHash<QString, Upload> uploads {}; // by key
    QList<Note> notes {}; // oldest first
};
