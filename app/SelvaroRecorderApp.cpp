#include "app/SelvaroRecorderApp.h"

#include "BuildInfo.h"
#include "app/ContentView.h"
#include "app/MainWindow.h"
#include "app/ScreenFrame.h"
#include "recording/RecorderFlow.h"

#include <QApplication>

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

void SelvaroRecorderApp::describe()
{
    QCoreApplication::setApplicationName(QStringLiteral("selvaro-recorder"));
    QCoreApplication::setApplicationVersion(QString::fromUtf8(BuildInfo::shortVersion));
    QGuiApplication::setApplicationDisplayName(QStringLiteral("Selvaro Recorder"));
    // Matches the installed launcher entry, so the desktop shows its icon and name.
    QGuiApplication::setDesktopFileName(QStringLiteral("app.selvaro.recorder"));
}
