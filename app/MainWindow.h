#pragma once

#include <QMainWindow>

#include <functional>

class QAction;
class Updater;

// The one window: its content fixed at 380 × 430 points and not resizable, and a
// menu named after the application holding "About Selvaro Recorder", directly
// followed by "Check for Updates…", then the checkable "Remove Speaker Echo"
// (SpeakerEchoSetting), then "Quit". There is deliberately no command
// that opens a second window: the application has exactly one.
class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    // `content` is the window's whole content (a ScreenFrame); `updater` must
    // outlive the window.
    MainWindow(QWidget *content, Updater &updater, QWidget *parent = nullptr);

    [[nodiscard]] QAction *aboutAction() const { return m_about; }
    [[nodiscard]] QAction *checkForUpdatesAction() const { return m_checkForUpdates; }

    // Asked when the user closes the window: whether it closes (the owner may hide it
    // or ask first instead).
    void setCloseHandler(std::function<bool()> mayClose) { m_mayClose = std::move(mayClose); }
    // A checkable setting in the application's menu, above Quit.
    QAction *addOption(const QString &text, bool checked);

protected:
    void closeEvent(QCloseEvent *event) override;

private:
    void showAbout();
    void checkForUpdates();

    Updater &m_updater;
    QAction *m_about = nullptr;
    QAction *m_checkForUpdates = nullptr;
    QAction *m_optionsEnd = nullptr;
    std::function<bool()> m_mayClose;
    bool m_checking = false;
};
