#include "app/AppModel.h"

#include "audio/pulse/PulseAlertSound.h"
#include "audio/pulse/PulseSoundServer.h"
#include "recording/RecorderFlow.h"

AppModel::AppModel(QUrl baseUrl, QObject *parent)
    : QObject(parent)
    , m_api(&m_network, std::move(baseUrl))
    , m_store(SessionStore::Load::fromKeychain)
    , m_pairing(m_api, &m_store)
    , m_recorder(std::make_unique<RecorderFlow>(
          m_api, m_store,
          RecorderFlow::Platform::onSoundServer(std::make_shared<PulseSoundServer>(),
                                                std::make_shared<PulseAlertSound>())))
{
}

AppModel::~AppModel() = default;

QCoro::Task<> AppModel::refreshAtStart()
{
    co_await m_store.waitUntilLoaded();
    co_await m_store.refresh(m_api);
}

QCoro::Task<> AppModel::unlink()
{
    m_recorder->discard();
    co_await m_store.forget();
}
