#include "app/AppModel.h"

#include "audio/pulse/PulseAlertSound.h"
#include "audio/pulse/PulseSoundServer.h"
#include "common/Observable.h"
#include "common/SystemClock.h"
#include "recording/AutoPause.h"
#include "recording/CallOffer.h"
#include "recording/CallWatch.h"
#include "recording/DesktopNotifier.h"
#include "recording/RecorderFlow.h"
#include "recording/SystemAudioSource.h"

AppModel::AppModel(QUrl baseUrl, std::chrono::milliseconds storeWait, QObject *parent)
    : QObject(parent)
    , m_api(&m_network, std::move(baseUrl))
    , m_store(SessionStore::Load::fromKeychain)
    , m_pairing(m_api, &m_store)
    , m_soundServer(std::make_shared<PulseSoundServer>())
    , m_recorder(std::make_unique<RecorderFlow>(m_api, m_store,
          RecorderFlow::Platform::onSoundServer(m_soundServer, std::make_shared<PulseAlertSound>())))
    , m_notifier(std::make_unique<DesktopNotifier>())
{
    const auto clock = std::make_shared<SystemClock>();
    m_calls = std::make_unique<CallWatch>(clock);
    m_calls->watch(m_soundServer->watchStreams());
    m_autoPause = std::make_unique<AutoPause>(*m_recorder, *m_notifier, *m_calls, clock);
    m_callOffer = std::make_unique<CallOffer>(*m_recorder, m_store, *m_notifier, *m_calls, *m_autoPause);
    // A call recorded from its offer is that program's audio only.
    connect(m_callOffer.get(), &CallOffer::recordingCall, m_recorder.get(),
        [this](const QString &program) { m_recorder->systemAudioSource().chooseProgram(program); });

    m_storeWait.setSingleShot(true);
    connect(&m_storeWait, &QTimer::timeout, this,
        [this] { setIfChanged(m_storeSilent, true, this, &AppModel::storeSilentChanged); });
    connect(&m_store, &SessionStore::loadedChanged, this, &AppModel::storeAnswered);
    // What an earlier run could not send is offered once there is an account to send it to.
    for (auto changed : { &SessionStore::loadedChanged, &SessionStore::sessionChanged }) {
        connect(&m_store, changed, this, [this] {
            if (m_store.isLoaded() && m_store.isLinked())
                m_recorder->offerUnsent();
        });
    }
    if (!m_store.isLoaded())
        m_storeWait.start(storeWait);
}

AppModel::~AppModel() = default;

QCoro::Task<> AppModel::refreshAtStart()
{
    co_await m_store.waitUntilLoaded();
    co_await m_store.refresh(m_api);
}

void AppModel::readStoreAgain()
{
    m_store.readAgain();
}

void AppModel::storeAnswered()
{
    m_storeWait.stop();
    setIfChanged(m_storeSilent, false, this, &AppModel::storeSilentChanged);
}

QCoro::Task<> AppModel::unlink()
{
    // The recordings belong to the account being unlinked: none is kept for the next.
    m_recorder->deleteAllRecordings();
    co_await m_store.forget();
}
