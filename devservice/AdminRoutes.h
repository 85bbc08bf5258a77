#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QString>

class FaultInjector;
class HttpFront;
class ServiceState;

// What tests and the demo use to steer and watch the service: /admin/* (reset,
// config, faults, confirming a code, sessions, and the views of the request log,
// pairings, sessions, notes and uploads) and the phone page at "/". The
// AccessGuard wants the admin token for all of them; none is logged or faulted.
class AdminRoutes
{
public:
    // Registers the routes on `front`; all three must outlive serving.
    AdminRoutes(HttpFront &front, ServiceState &state, FaultInjector &faults);

private:
    // The records as the views show them: each record's own JSON, plus what it
    // only means now (a pairing's expiry, a note's recording).
    QJsonArray pairingsView();
    QJsonArray notesView();
    // Confirms the code a phone-page form posted; returns "linked" or the error code.
    QString confirmFromPhone(const QByteArray &body);

    ServiceState &m_state;
    FaultInjector &m_faults;
};
