#pragma once

#include "account/PairingFlow.h"
#include "account/SessionStore.h"
#include "service/SelvaroAPI.h"

#include <QNetworkAccessManager>
#include <QObject>
#include <QTimer>
#include <QUrl>

#include <qcoro/qcorotask.h>

#include <chrono>
#include <memory>

class AutoPause;
class CallOffer;
class CallWatch;
class Notifier;
class RecorderFlow;
class SoundServer;

// The root model: the service client, the session store, the pairing flow and the
// recorder flow, built in that order and kept for the life of the process. The
// three share one SessionStore — that sharing is what lets a successful pairing
// switch the screen and lets the send pipeline read the current token.
//
// Thread contract: main thread only.
//
// The secret store may never answer its first read (a locked keyring whose unlock
// prompt cannot appear, a keyring daemon that hangs). After `storeWait` without an
// answer `storeSilent` turns true, so the window can say so instead of staying blank.
class AppModel : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool storeSilent READ isStoreSilent NOTIFY storeSilentChanged)

public:
    static constexpr std::chrono::milliseconds defaultStoreWait { 10000 };

    // `baseUrl` is the compiled-in service unless a test points it elsewhere.
    explicit AppModel(QUrl baseUrl = SelvaroAPI::compiledBaseUrl(),
        std::chrono::milliseconds storeWait = defaultStoreWait, QObject *parent = nullptr);
    ~AppModel() override;

    [[nodiscard]] const SelvaroAPI &api() const { return m_api; }
    [[nodiscard]] SessionStore &store() { return m_store; }
    [[nodiscard]] PairingFlow &pairing() { return m_pairing; }
    [[nodiscard]] RecorderFlow &recorder() { return *m_recorder; }
    // The desktop's notifications, for whatever must reach the user outside the window.
    [[nodiscard]] Notifier &notifier() { return *m_notifier; }
    // The offer to record a call that starts ("Offer to Record Calls").
    [[nodiscard]] CallOffer &callOffer() { return *m_callOffer; }

    // Every start renews the saved session with the service (or forgets it when
    // the service no longer knows this computer). Started when the window first shows.
    QCoro::Task<> refreshAtStart();
    // Local only: any recording is discarded and every unsent one deleted, the
    // secret-store item removed and the session cleared, which brings back the
    // pairing screen.
    QCoro::Task<> unlink();

    // True from `storeWait` after the start until the secret store's first read answers.
    [[nodiscard]] bool isStoreSilent() const { return m_storeSilent; }
    // Reads the secret store again while it has not answered ("Try again").
    void readStoreAgain();

Q_SIGNALS:
    void storeSilentChanged();

private:
    void storeAnswered();

    QNetworkAccessManager m_network;
    SelvaroAPI m_api;
    SessionStore m_store;
    PairingFlow m_pairing;
    std::shared_ptr<SoundServer> m_soundServer;
    std::unique_ptr<RecorderFlow> m_recorder;
    std::unique_ptr<Notifier> m_notifier;
    // Calls told from the server's streams; the pauses and the offer that follow them.
    std::unique_ptr<CallWatch> m_calls;
    std::unique_ptr<AutoPause> m_autoPause;
    std::unique_ptr<CallOffer> m_callOffer;
    QTimer m_storeWait;
    bool m_storeSilent = false;
};
