#include "account/SessionStore.h"

#include "account/Keychain.h"
#include "common/Logging.h"
#include "common/Observable.h"
#include "common/SettingsFile.h"
#include "service/ApiError.h"
#include "service/DeviceInfo.h"

#include <QPointer>
#include <QSettings>
#include <QUuid>

#include <qcoro/qcorosignal.h>

namespace {

const QString sessionAccount = QLatin1String(Keychain::sessionAccount);

} // namespace

SessionStore::SessionStore(QObject *parent)
    : SessionStore(Load::fromKeychain, parent)
{ }

SessionStore::SessionStore(Load load, QObject *parent)
    : QObject(parent)
{
    if (load == Load::fromKeychain)
        this->load();
    else
        m_loaded = true;
}

SessionStore::~SessionStore() = default;

void SessionStore::setSession(std::optional<SessionPayload> session)
{
    m_sessionWritten = true;
    setIfChanged(m_session, std::move(session), this, &SessionStore::sessionChanged);
}

QCoro::Task<> SessionStore::load()
{
    QPointer<SessionStore> self(this);
    const std::optional<QByteArray> data = co_await Keychain::read(sessionAccount);
    if (!self || m_loaded)
        co_return;
    // Undecodable data reads as "not linked" and is left in place: the next pairing
    // overwrites it, and nothing else should delete what it cannot read.
    if (data && !m_sessionWritten)
        setIfChanged(m_session, SessionPayload::fromJsonText(*data), this, &SessionStore::sessionChanged);
    setIfChanged(m_loaded, true, this, &SessionStore::loadedChanged);
}

void SessionStore::readAgain()
{
    if (!m_loaded)
        load();
}

QCoro::Task<> SessionStore::waitUntilLoaded()
{
    if (!m_loaded)
        co_await qCoro(this, &SessionStore::loadedChanged);
}

QCoro::Task<std::optional<KeychainError>> SessionStore::save(const SessionPayload &payload)
{
    QPointer<SessionStore> self(this);
    std::optional<KeychainError> error = co_await Keychain::write(sessionAccount, payload.toJsonText());
    if (!error && self)
        self->setSession(payload);
    co_return error;
}

QCoro::Task<> SessionStore::refresh(SelvaroAPI api)
{
    QPointer<SessionStore> self(this);
    co_await waitUntilLoaded();
    if (!self || !m_session)
        co_return;
    const SessionPayload current = *m_session;

    std::optional<ApiError> failure;
    std::optional<SessionPayload> renewed;
    try {
        renewed = co_await api.refreshSession(current.id, current.token, DeviceInfo::current(vendorUuid()));
    } catch (const ApiError &error) {
        failure = error;
    } catch (const std::exception &error) {
        // Not expected from the client, but a refresh must never throw.
        qCCritical(lcSession, "session refresh failed: %s", error.what());
        co_return;
    }
    if (!self)
        co_return;
    // Unlinked or paired anew while the request was out: the answer is about a session
    // this store no longer holds, and acting on it would undo the user's choice.
    if (m_session != current)
        co_return;

    if (renewed) {
        const std::optional<KeychainError> error = co_await save(*renewed);
        if (!self)
            co_return;
        if (error) {
            qCCritical(lcSession, "session refresh failed: %s", qUtf8Printable(error->description()));
            co_return;
        }
        qCInfo(lcSession, "session refreshed, anonymous=%s", renewed->isAnonymous ? "true" : "false");
        co_return;
    }

    if (failure->isHttp() && failure->status() == 404) {
        qCCritical(lcSession, "session refresh: %s, pairing again", qUtf8Printable(failure->code()));
        co_await forget();
        co_return;
    }
    qCCritical(lcSession, "session refresh failed: %s", qUtf8Printable(failure->description()));
}

QCoro::Task<> SessionStore::forget()
{
    QPointer<SessionStore> self(this);
    co_await Keychain::remove(sessionAccount);
    if (self)
        self->setSession(std::nullopt);
}

QString SessionStore::vendorUuid()
{
    static const QString key = QStringLiteral("vendorUuid");
    // The identifier made in this run when the settings would not keep it.
    static QString unsaved;
    QSettings settings = settingsFile();
    const QString stored = settings.value(key).toString();
    if (!stored.isEmpty())
        return stored;
    if (!unsaved.isEmpty())
        return unsaved;
    const QString made = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
    settings.setValue(key, made);
    // Written at once: an identifier that changes after a crash would show the
    // computer to the account as a new device.
    settings.sync();
    if (settings.status() != QSettings::NoError) {
        qCWarning(lcSession, "vendorUuid not saved in %s; kept for this run only",
            qUtf8Printable(settings.fileName()));
        unsaved = made;
    }
    return made;
}
