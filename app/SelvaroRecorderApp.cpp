#include "app/SelvaroRecorderApp.h"

#include "BuildInfo.h"
#include "app/ContentView.h"
#include "app/MainWindow.h"
#include "app/ScreenFrame.h"
#include "common/Logging.h"
#include "recording/RecorderCommand.h"
#include "recording/RecorderFlow.h"

#include <QApplication>

#include <qcoro/qcorosignal.h>

namespace {
constexpr std::chrono::milliseconds permissionsWait { 2000 };
} // namespace

SelvaroRecorderApp::SelvaroRecorderApp(QUrl baseUrl)
    : m_model(std::move(baseUrl))
    , m_updater(&m_updateNetwork)
{
    m_content = new ContentView(m_model);
    m_window = std::make_unique<MainWindow>(new ScreenFrame(m_content), m_updater);
    // A permission may have changed while another application was in front.
    QObject::connect(qApp, &QGuiApplication::applicationStateChanged, &m_model.recorder(),
        [recorder = &m_model.recorder()](Qt::ApplicationState state) {
            if (state == Qt::ApplicationActive)
                recorder->permissions().probe();
        });
}

// The window (and its views) go before the model they draw.
SelvaroRecorderApp::~SelvaroRecorderApp()
{
    m_window.reset();
}

void SelvaroRecorderApp::show()
{
    m_window->show();
}

void SelvaroRecorderApp::raise()
{
    qCInfo(lcApp, "window raised");
    m_window->show();
    m_window->raise();
    m_window->activateWindow();
}

QCoro::Task<std::optional<QString>> SelvaroRecorderApp::take(QString name)
{
    const std::optional<RecorderCommand::Name> command = RecorderCommand::named(name);
    if (!command)
        co_return QStringLiteral("Unknown action \"%1\".").arg(name);
    // The model lives as long as this object, which main keeps until the loop ends.
    co_await m_model.store().waitUntilLoaded();
    // A fresh instance probes the permissions as it starts: give the answer a moment.
    RecorderFlow &recorder = m_model.recorder();
    if (recorder.showsPermissions())
        co_await qCoro(&recorder, &RecorderFlow::showsPermissionsChanged, permissionsWait);
    co_return RecorderCommand::take(*command, m_model.recorder(), m_model.store());
}

void SelvaroRecorderApp::describe()
{
    QCoreApplication::setApplicationName(QStringLiteral("selvaro-recorder"));
    QCoreApplication::setApplicationVersion(QString::fromUtf8(BuildInfo::shortVersion));
    QGuiApplication::setApplicationDisplayName(QStringLiteral("Selvaro Recorder"));
    // Matches the installed launcher entry, so the desktop shows its icon and name.
    QGuiApplication::setDesktopFileName(QStringLiteral("app.selvaro.recorder"));
}
