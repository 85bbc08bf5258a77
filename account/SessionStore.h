#pragma once

#include "account/KeychainError.h"
#include "service/SelvaroAPI.h"

#include <QObject>
#include <QString>

#include <qcoro/qcorotask.h>

#include <optional>

// The link between this computer and an account: the current session, kept in the
// secret store (item "session", see Keychain) and mirrored in `session`.
//
// `session` alone decides whether the computer is linked. The item is always written
// before `session` is set and removed before it is cleared, so the two never disagree
// in the direction that matters: a session the app shows as linked is on disk.
//
// Loading is asynchronous because the secret store is: the constructor starts reading
// the item and returns at once. Until the read answers, `loaded` is false and `session`
// is empty; then `session` takes the stored value (if nothing set it in the meantime)
// and `loaded` becomes true, each with its notification. Screens should wait for
// `loaded` before choosing between pairing and recording; refresh() waits for it itself.
//
// Main thread only. The coroutines resume on the main thread and may outlive the store:
// after each await they check that it still exists.
class SessionStore : public QObject
{
    Q_OBJECT
    Q_PROPERTY(std::optional<SessionPayload> session READ session WRITE setSession NOTIFY sessionChanged)
    Q_PROPERTY(bool linked READ isLinked NOTIFY sessionChanged)
    Q_PROPERTY(bool loaded READ isLoaded NOTIFY loadedChanged)

public:
    enum class Load {
        fromKeychain, // the application's store
        nothing, // previews and snapshots: never touch the secret store
    };

    explicit SessionStore(QObject *parent = nullptr);
    explicit SessionStore(Load load, QObject *parent = nullptr);
    ~SessionStore() override;

    [[nodiscard]] const std::optional<SessionPayload> &session() const { return m_session; }
    [[nodiscard]] bool isLinked() const { return m_session.has_value(); }
    [[nodiscard]] bool isLoaded() const { return m_loaded; }

    // Sets the in-memory session only; writers keep the item in step themselves
    // (the pairing flow writes the item first, unlinking removes it first: forget()).
    void setSession(std::optional<SessionPayload> session);

    // Resumes once the initial read has answered (at once if it already has).
    QCoro::Task<> waitUntilLoaded();

    // While the initial read has not answered: starts another one (the secret store
    // may have been unlocked meanwhile). The first answer of any of them counts.
    void readAgain();

    // Writes the item, then sets `session`. On failure `session` is unchanged and the
    // error is returned.
    [[nodiscard]] QCoro::Task<std::optional<KeychainError>> save(const SessionPayload &payload);

    // Renews the session with the service. Without a session it returns at once and
    // sends nothing. A 404 (whatever its code) means the service dropped the session:
    // the item is removed and `session` cleared. Every other failure — other statuses,
    // no connection, an odd answer, a secret store that refuses the write — keeps the
    // session: a network problem must never unlink the computer. Never throws.
    // If the session changes while the request is out (unlinked, paired anew), the
    // answer is dropped. Callers must not run two refreshes at once (the start-up task
    // and the send pipeline each await theirs).
    QCoro::Task<> refresh(SelvaroAPI api);

    // Unlinking: removes the item, then clears `session`.
    QCoro::Task<> forget();

    // The per-installation identifier sent with pairing and refresh: an upper-case
    // UUID made on first use and kept in the application's settings, so it survives
    // unlinking and restarts. When the settings cannot be written it is kept in memory
    // for the rest of the run (one warning in the log), so it never changes mid-run.
    [[nodiscard]] static QString vendorUuid();

Q_SIGNALS:
    void sessionChanged();
    void loadedChanged();

private:
    QCoro::Task<> load();

    std::optional<SessionPayload> m_session;
    bool m_loaded = false;
    // Set by the first write of `session`; a load that answers later must not undo it.
    bool m_sessionWritten = false;
};
