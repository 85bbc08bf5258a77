#include "account/PairingFlow.h"

#include "account/Keychain.h"
#include "account/SessionStore.h"
#include "account/StoredSession.h"
#include "common/SystemClock.h"
#include "common/Logging.h"
#include "common/Observable.h"
#include "service/ApiError.h"
#include "service/DeviceInfo.h"

#include <QNetworkAccessManager>

#include <algorithm>

namespace {

// What one redeem told the loop.
struct PollOutcome
{
    std::optional<SessionPayload> session;  // confirmed
    std::optional<PairingState> terminal;   // the service ended the attempt
    std::optional<QString> transientError;  // logged; polling goes on
};

PollOutcome outcomeOf(const ApiError &error)
{
    if (error.isHttp()) {
        const QString code = error.code();
        if (code == QLatin1String("code_expired"))
            return {std::nullopt, PairingState::expired(), std::nullopt};
        // The screen turns these two codes into words.
        if (code == QLatin1String("code_not_found") || code == QLatin1String("code_already_used"))
            return {std::nullopt, PairingState::failed(code), std::nullopt};
    }
    return {std::nullopt, std::nullopt, error.description()};
}

} // namespace

PairingFlow::PairingFlow(SelvaroAPI api, SessionStore *store, std::shared_ptr<Clock> clock,
                         QObject *parent)
    : QObject(parent)
    , m_api(std::move(api))
    , m_store(store)
    , m_clock(clock ? std::move(clock) : std::make_shared<SystemClock>())
{
}

// Deliberately does not stop a running attempt: it notices at its next step.
PairingFlow::~PairingFlow() = default;

void PairingFlow::start()
{
    ++m_attempt;
    setState(State::requesting());
    run(m_attempt);
}

void PairingFlow::stop()
{
    ++m_attempt;
    setState(State::idle());
}

void PairingFlow::setState(State state)
{
    setIfChanged(m_state, std::move(state), this, &PairingFlow::stateChanged);
}

QCoro::Task<> PairingFlow::run(quint64 attempt)
{
    // Everything the attempt needs after a suspension is held here, never read
    // through `this` unless `self` says the flow still exists.
    QPointer<PairingFlow> self(this);
    QPointer<SessionStore> store = m_store;
    const SelvaroAPI api = m_api;
    const std::shared_ptr<Clock> clock = m_clock;

    PairingStart start;
    std::optional<QString> startError;
    try {
        start = co_await api.startPairing(DeviceInfo::current(SessionStore::vendorUuid()));
    } catch (const ApiError &error) {
        startError = error.description();
    } catch (const std::exception &error) {
        startError = QString::fromUtf8(error.what());
    }
    if (!self || !self->isCurrent(attempt))
        co_return;
    if (startError) {
        qCCritical(lcPairing, "pair failed: %s", qUtf8Printable(*startError));
        self->setState(State::failed(*startError));
        co_return;
    }

    // The codes' lifetime counts from the moment the answer arrived.
    const QDateTime expiresAt = clock->now().addSecs(start.expiresIn);
    self->setState(State::waiting(start, expiresAt));
    const std::chrono::milliseconds interval =
        std::max<std::chrono::milliseconds>(std::chrono::seconds(start.interval), minimumInterval);

    // The first redeem comes one interval after the codes are shown, not at once.
    for (;;) {
        co_await clock->sleep(interval);
        if (!self || !self->isCurrent(attempt))
            co_return;

        PollOutcome outcome;
        try {
            outcome.session = co_await api.redeemPairing(start.deviceCode);
        } catch (const ApiError &error) {
            outcome = outcomeOf(error);
        } catch (const std::exception &error) {
            outcome.transientError = QString::fromUtf8(error.what());
        }

        if (outcome.session) {
            // Acted on even if the attempt was superseded or the flow is gone while the
            // redeem was in flight: the user confirmed, and the code cannot be redeemed twice.
            const StoredSession session = StoredSession::from(*outcome.session);
            const std::optional<KeychainError> error =
                co_await Keychain::write(QLatin1String(Keychain::sessionAccount), session.toJson());
            if (!error) {
                if (store)
                    store->setSession(session);
                qCInfo(lcPairing, "paired, anonymous=%s", session.isAnonymous ? "true" : "false");
                if (self) {
                    ++self->m_attempt; // nothing else may poll for a link that exists
                    self->setState(State::idle());
                }
                co_return;
            }
            // Without a working secret store the link cannot be kept; keep polling as
            // for any other failure (the service will answer that the code was used).
            outcome.transientError = error->description();
        }
        if (!self || !self->isCurrent(attempt))
            co_return;
        if (outcome.terminal) {
            self->setState(*outcome.terminal);
            co_return;
        }
        if (outcome.transientError)
            qCCritical(lcPairing, "poll: %s", qUtf8Printable(*outcome.transientError));
        if (clock->now() >= expiresAt) {
            self->setState(State::expired());
            co_return;
        }
    }
}

std::unique_ptr<PairingFlow> PairingFlow::preview(const State &state)
{
    auto *network = new QNetworkAccessManager;
    auto *store = new SessionStore(SessionStore::Load::nothing);
    auto flow = std::make_unique<PairingFlow>(SelvaroAPI(network), store);
    network->setParent(flow.get());
    store->setParent(flow.get());
    flow->setState(state);
    return flow;
}
