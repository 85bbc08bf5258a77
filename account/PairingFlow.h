#pragma once

#include "account/PairingState.h"
#include "common/Clock.h"
#include "service/SelvaroAPI.h"

#include <QObject>
#include <QPointer>

#include <qcoro/qcorotask.h>

#include <memory>

class SessionStore;

// Links this computer to an account with a device code: asks the service for a pair
// of codes, shows them through `state`, polls until the user confirms on the phone,
// and stores the session (item first, then the store's `session`), which switches
// the application to the recorder.
//
// One attempt runs at a time. start() supersedes the running attempt: cancellation is
// cooperative and checked after the start request, after each sleep and before the
// next poll. A superseded attempt never changes `state`, with one exception: a redeem
// already in flight that comes back with a session is still stored (the user did
// confirm), and then any newer attempt is stopped and the flow is idle.
//
// Main thread only. The attempt's coroutine holds a copy of the client, the clock and
// guarded pointers to the flow and the store, so destroying the flow simply ends it
// at its next step.
class PairingFlow : public QObject
{
    Q_OBJECT
    Q_PROPERTY(PairingState state READ state NOTIFY stateChanged)
    // The sentence the pairing screen shows for a failed attempt; empty otherwise.
    Q_PROPERTY(QString failureText READ failureText NOTIFY stateChanged)

public:
    using State = PairingState;

    // Polls are at least this far apart, whatever interval the service suggests, so
    // that a zero or missing interval cannot hammer it; and at most this far, so that
    // an absurd interval cannot leave the screen waiting past the code's lifetime.
    static constexpr std::chrono::seconds minimumInterval { 2 };
    static constexpr std::chrono::hours maximumInterval { 1 };

    // How long to sleep before the next redeem: the service's interval within
    // [minimumInterval, maximumInterval], cut to the time the code has left (but never
    // below the floor).
    [[nodiscard]] static std::chrono::milliseconds pollDelay(
        int interval, std::chrono::milliseconds timeLeft);

    // `clock` defaults to real time.
    PairingFlow(
        SelvaroAPI api, SessionStore *store, std::shared_ptr<Clock> clock = {}, QObject *parent = nullptr);
    ~PairingFlow() override;

    [[nodiscard]] const State &state() const { return m_state; }
    // The failed state's message, with the two service codes the flow passes on as they
    // are ("code_not_found", "code_already_used") put into words.
    [[nodiscard]] QString failureText() const;

    // The time `expiresAt` is measured in; the pairing screen counts down by it.
    [[nodiscard]] std::shared_ptr<Clock> clock() const { return m_clock; }

    // Begins a new attempt, superseding any running one; the state is `requesting`
    // when it returns. Called when the pairing screen appears and from its retry button.
    void start();

    // Abandons the running attempt and leaves the flow idle. The pairing screen calls it
    // when it goes away, so nothing polls for a code nobody is looking at. A redeem already
    // in flight that brings back a session is still stored, as after start().
    void stop();

    // A flow set to `state` that never starts anything, for previews and snapshots.
    // It owns a client on its own network manager and a store that does not read the
    // secret store.
    [[nodiscard]] static std::unique_ptr<PairingFlow> preview(const State &state);

Q_SIGNALS:
    void stateChanged();

private:
    QCoro::Task<> run(quint64 attempt);
    void setState(State state);
    [[nodiscard]] bool isCurrent(quint64 attempt) const { return attempt == m_attempt; }

    SelvaroAPI m_api;
    QPointer<SessionStore> m_store;
    std::shared_ptr<Clock> m_clock;
    State m_state;
    // Identifies the running attempt; start() and a success move it on, which is how
    // older attempts learn that they were cancelled.
    quint64 m_attempt = 0;
};
