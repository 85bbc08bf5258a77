#pragma once

#include "app/AppModel.h"
#include "app/Updater.h"
#include "recording/RecorderCommand.h"

#include <QCoreApplication>
#include <QUrl>

#include <qcoro/qcorotask.h>

#include <memory>
#include <optional>

class ContentView;
class MainWindow;
class PortalShortcut;
class TrayIcon;

// The application: the root model, then the updater, then the one window with
// the content view. Snapshot mode is decided before this is made (main), so
// that rendering the screenshots never reads the secret store or probes the
// sound server.
class SelvaroRecorderApp
{
    Q_DECLARE_TR_FUNCTIONS(SelvaroRecorderApp)

public:
    explicit SelvaroRecorderApp(QUrl baseUrl = SelvaroAPI::compiledBaseUrl());
    ~SelvaroRecorderApp();

    void show();
    // Shows the window and brings it to the front: a second start, the launcher. The
    // desktop's activation token lets a Wayland compositor give it the focus.
    void raise(const QString &activationToken = {});
    // A recorder action from outside the window ("toggle", "record", "pause",
    // "save"), once the secret store has said whether this computer is linked.
    // Nothing when taken, else the user's sentence.
    QCoro::Task<std::optional<QString>> take(QString name);

    [[nodiscard]] AppModel &model() { return m_model; }
    [[nodiscard]] MainWindow &window() { return *m_window; }
    [[nodiscard]] ContentView &content() { return *m_content; }
    [[nodiscard]] TrayIcon &tray() { return *m_tray; }

    // Names the application for the desktop (settings paths, window class).
    static void describe();

private:
    // Closing the window: hidden to the tray, asked about first, or closed.
    bool mayClose();
    // The tray's and the shortcut's actions: a refusal shows the window, which says why.
    void takeHere(RecorderCommand::Name name);

    AppModel m_model;
    QNetworkAccessManager m_updateNetwork;
    Updater m_updater;
    ContentView *m_content = nullptr;
    std::unique_ptr<MainWindow> m_window;
    std::unique_ptr<TrayIcon> m_tray;
    std::unique_ptr<PortalShortcut> m_shortcut;
    bool m_toldInTray = false;
};
