#include "account/PairingFlow.h"

#include "account/SessionStore.h"
#include "common/Logging.h"
#include "common/Observable.h"
#include "common/SystemClock.h"
#include "service/ApiError.h"
#include "service/DeviceInfo.h"

#include <QNetworkAccessManager>

#include <algorithm>

namespace {

// The service's answers that end the attempt; any other error is transient.
std::optional<PairingState> terminalState(const ApiError &error)
{
    if (!error.isHttp())
        return std::nullopt;
    const QString code = error.code();
    if (code == QLatin1String("code_expired"))
        return PairingState::expired();
    // The screen turns these two codes into words (failureText()).
    if (code == QLatin1String("code_not_found") || code == QLatin1String("code_already_used"))
        return PairingState::failed(code);
    return std::nullopt;
}

} // namespace

PairingFlow::PairingFlow(SelvaroAPI api, SessionStore *store, std::shared_ptr<Clock> clock, QObject *parent)
    : QObject(parent)
    , m_api(std::move(api))
    , m_store(store)
    , m_clock(clock ? std::move(clock) : std::make_shared<SystemClock>())
{ }

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

QString PairingFlow::failureText() const
{
    if (m_state.kind() != State::Kind::failed)
        return {};
    const QString message = m_state.message();
    if (message == QLatin1String("code_not_found"))
        return tr("This code is no longer valid. Ask for a new one.");
    if (message == QLatin1String("code_already_used"))
        return tr("This code has already been used.");
    return message;
}

std::chrono::milliseconds PairingFlow::pollDelay(int interval, std::chrono::milliseconds timeLeft)
{
    const std::chrono::milliseconds suggested = std::clamp<std::chrono::milliseconds>(
        std::chrono::seconds(interval), minimumInterval, maximumInterval);
    return std::max<std::chrono::milliseconds>(std::min(suggested, timeLeft), minimumInterval);
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
    std::optional<ApiError> startError;
    try {
        start = co_await api.startPairing(DeviceInfo::current(SessionStore::vendorUuid()));
    } catch (const ApiError &error) {
        startError = error;
    }
    if (!self || !self->isCurrent(attempt))
        co_return;
    if (startError) {
        qCCritical(lcPairing, "pair failed: %s", qUtf8Printable(startError->description()));
        self->setState(State::failed(startError->description()));
        co_return;
    }

    // The codes' lifetime counts from the moment the answer arrived.
    const QDateTime expiresAt = clock->now().addSecs(start.expiresIn);
    self->setState(State::waiting(start, expiresAt));

    // The first redeem comes one interval after the codes are shown, not at once.
    for (;;) {
        co_await clock->sleep(
            pollDelay(start.interval, std::chrono::milliseconds(clock->now().msecsTo(expiresAt))));
        if (!self || !self->isCurrent(attempt))
            co_return;

        std::optional<SessionPayload> session;
        std::optional<ApiError> error;
        try {
            session = co_await api.redeemPairing(start.deviceCode);
        } catch (const ApiError &caught) {
            error = caught;
        }

        // A session is acted on even if the attempt was superseded or the flow is gone
        // while the redeem was in flight: the user confirmed, and the code cannot be
        // redeemed twice.
        std::optional<KeychainError> saveError;
        if (session && store) {
            saveError = co_await store->save(*session);
            if (!saveError) {
                qCInfo(lcPairing, "paired, anonymous=%s", session->isAnonymous ? "true" : "false");
                if (self) {
                    ++self->m_attempt; // nothing else may poll for a link that exists
                    self->setState(State::idle());
                }
                co_return;
            }
        }
        if (!self || !self->isCurrent(attempt))
            co_return;
        if (error) {
            if (const std::optional<PairingState> terminal = terminalState(*error)) {
                self->setState(*terminal);
                co_return;
            }
            qCCritical(lcPairing, "poll: %s", qUtf8Printable(error->description()));
        }
        // Without a working secret store the link cannot be kept; polling goes on as for
        // any other failure (the service will answer that the code was used).
        if (saveError)
            qCCritical(lcPairing, "poll: %s", qUtf8Printable(saveError->description()));
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
