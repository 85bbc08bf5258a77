#pragma once

#include "recording/RecorderCommand.h"
#include "recording/RecorderState.h"

#include <QIcon>
#include <QObject>

#include <functional>

class QAction;
class QMenu;
class QSystemTrayIcon;
class RecorderFlow;

// The recorder in the desktop's tray (a StatusNotifierItem, which QSystemTrayIcon
// speaks): an icon for each state (idle, recording as a red dot, paused, sending,
// failed), a tooltip with the state and the recorded time, and a menu — Record, Pause
// or Resume as one item, Save while paused, "Show Selvaro Recorder", Quit. It draws
// the flow and hands the menu's choices on; what they do is the owner's.
//
// Main thread only. `flow` must outlive the icon.
class TrayIcon : public QObject
{
    Q_OBJECT

public:
    struct Choices
    {
        std::function<void(RecorderCommand::Name)> take;
        std::function<void()> show;
        std::function<void()> quit;
    };

    TrayIcon(RecorderFlow &flow, Choices choices, QObject *parent = nullptr);
    ~TrayIcon() override;

    // Whether the desktop shows tray icons at all (a StatusNotifierWatcher with a host).
    [[nodiscard]] static bool isAvailable();

    // What is drawn, for the tests and the window's choices.
    [[nodiscard]] QSystemTrayIcon &icon() { return *m_icon; }
    [[nodiscard]] QMenu &menu() { return *m_menu; }
    // The painted icon of each state: each distinct, recording a red dot.
    [[nodiscard]] static QIcon symbolFor(RecorderState::Kind kind);

private:
    void follow();

    RecorderFlow &m_flow;
    QMenu *m_menu;
    QSystemTrayIcon *m_icon;
    QAction *m_toggle;
    QAction *m_save;
};
