#pragma once

#include <QList>
#include <QObject>
#include <QString>

// Tells the user something while the window may be hidden or behind others: a call
// that could be recorded, a recording paused by itself, the window gone to the tray.
// One notice at a time: a new one takes the place of the one before. A button of a
// notice comes back as actionInvoked with its key; a notice may be clicked long
// after it was shown, so whoever listens checks that the action still applies.
//
// Main thread only.
class Notifier : public QObject
{
    Q_OBJECT

public:
    struct Action
    {
        QString key; // comes back in actionInvoked
        QString label; // the button's text
    };

    using QObject::QObject;

    virtual void notify(const QString &sentence, const QList<Action> &actions = {}) = 0;

Q_SIGNALS:
    void actionInvoked(const QString &key);
};
