#include "app/SelvaroRecorderApp.h"

#include "BuildInfo.h"
#include "app/ContentView.h"
#include "app/MainWindow.h"
#include "app/PortalShortcut.h"
#include "app/ScreenFrame.h"
#include "app/TrayIcon.h"
#include "app/WindowClose.h"
#include "common/Logging.h"
#include "recording/CallOffer.h"
#include "recording/Notifier.h"
#include "recording/RecorderCommand.h"
#include "recording/RecorderFlow.h"

#include <QAction>
#include <QApplication>
#include <QMessageBox>
#include <QPushButton>

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
    m_window->setCloseHandler([this] { return mayClose(); });
    CallOffer &calls = m_model.callOffer();
    QObject::connect(m_window->addOption(tr("Offer to Record Calls"), calls.isEnabled()), &QAction::toggled,
        &calls, &CallOffer::setEnabled);
    RecorderFlow &recorder = m_model.recorder();
    m_tray = std::make_unique<TrayIcon>(recorder,
        TrayIcon::Choices {
            .take = [this](RecorderCommand::Name name) { takeHere(name); },
            .show = [this] { raise(); },
            .quit = [] { QApplication::quit(); },
        });
    m_shortcut = std::make_unique<PortalShortcut>();
    QObject::connect(m_shortcut.get(), &PortalShortcut::pressed, m_shortcut.get(),
        [this] { takeHere(RecorderCommand::Name::toggle); });
    m_shortcut->registerWithPortal();
    // A permission may have changed while another application was in front.
    QObject::connect(qApp, &QGuiApplication::applicationStateChanged, &m_model.recorder(),
        [recorder = &m_model.recorder()](Qt::ApplicationState state) {
            if (state == Qt::ApplicationActive)
                recorder->permissions().probe();
        });
}

// The window, its views and the tray go before the model they draw.
SelvaroRecorderApp::~SelvaroRecorderApp()
{
    m_shortcut.reset();
    m_tray.reset();
    m_window.reset();
}

void SelvaroRecorderApp::takeHere(RecorderCommand::Name name)
{
    if (RecorderCommand::take(name, m_model.recorder(), m_model.store()))
        raise();
}

bool SelvaroRecorderApp::mayClose()
{
    switch (WindowClose::decide(m_model.recorder().state().kind(), TrayIcon::isAvailable())) {
    case WindowClose::Outcome::quit:
        return true;
    case WindowClose::Outcome::hideToTray:
        m_window->hide();
        if (!std::exchange(m_toldInTray, true))
            m_model.notifier().notify(tr("Still recording. Selvaro Recorder is in the tray."));
        return false;
    case WindowClose::Outcome::askFirst: {
        QMessageBox question(QMessageBox::Question, QApplication::applicationDisplayName(),
            tr("Quit and keep the recording to send later?"), QMessageBox::Cancel, m_window.get());
        QPushButton *quit = question.addButton(tr("Quit"), QMessageBox::AcceptRole);
        question.exec();
        return question.clickedButton() == quit;
    }
    }
    return true;
}

void SelvaroRecorderApp::show()
{
    m_window->show();
}

void SelvaroRecorderApp::raise(const QString &activationToken)
{
    qCInfo(lcApp, "window raised");
    // Qt's Wayland platform takes the token from the environment when it activates.
    if (!activationToken.isEmpty())
        qputenv("XDG_ACTIVATION_TOKEN", activationToken.toUtf8());
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
    const bool records
        = *command == RecorderCommand::Name::record || *command == RecorderCommand::Name::toggle;
    if (records && m_model.store().isLinked() && recorder.showsPermissions())
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
