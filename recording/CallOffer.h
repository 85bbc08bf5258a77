#pragma once

#include <QObject>
#include <QString>

class AutoPause;
class CallWatch;
class Notifier;
class RecorderFlow;
class SessionStore;

// Offers to record a call when one starts (CallWatch::callStarted): one notice,
// "Firefox is in a call. Record it?", with "Record" and "Not now". Nothing is recorded
// without the user's "Record", which starts a recording as the Record button does
// (linked, both permissions granted, else the notice says what is missing) and has
// AutoPause follow that call's end. No offer while a recording is under way, and one
// per call: a call that starts while recording is not offered afterwards.
//
// Whether to offer at all is the user's setting "Offer to Record Calls" (on unless
// turned off), kept in the application's settings.
//
// Thread contract: main thread only. Everything given must outlive this object.
class CallOffer : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool enabled READ isEnabled WRITE setEnabled NOTIFY enabledChanged)

public:
    CallOffer(RecorderFlow &flow, const SessionStore &store, Notifier &notifier, CallWatch &calls,
        AutoPause &autoPause, QObject *parent = nullptr);

    [[nodiscard]] bool isEnabled() const { return m_enabled; }
    // Remembered for the next start.
    void setEnabled(bool enabled);

Q_SIGNALS:
    void enabledChanged();
    // A recording started from the offer of `program`'s call: where the recording can
    // be limited to one program's audio, this is the program to choose.
    void recordingCall(const QString &program);

private:
    void offer(const QString &program);
    void takeAction(const QString &key);

    RecorderFlow &m_flow;
    const SessionStore &m_store;
    Notifier &m_notifier;
    CallWatch &m_calls;
    AutoPause &m_autoPause;
    bool m_enabled = true;
    QString m_offered; // the call of the notice standing, if any
};
