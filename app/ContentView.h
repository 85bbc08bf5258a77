#pragma once

#include <QWidget>

class AppModel;
class FadingStack;
class PairingView;
class RecorderView;

// The window's content: the pairing screen while no session is stored, the
// recorder screen once one is, cross-faded over 0.3 s whenever that changes.
// The session alone decides; nothing else switches screens. Until the secret
// store has answered the first read neither screen shows, so a linked computer
// never flashes the pairing screen at start (and no pairing starts); when the store
// stays silent (AppModel::storeSilent) the content says so, with "Try again".
//
// The first time it is shown it starts the session refresh of every start.
class ContentView : public QWidget
{
    Q_OBJECT

public:
    // `model` must outlive the view.
    explicit ContentView(AppModel &model, QWidget *parent = nullptr);

    [[nodiscard]] PairingView *pairingView() const { return m_pairing; }
    [[nodiscard]] RecorderView *recorderView() const { return m_recorder; }
    [[nodiscard]] QWidget *storeSilentView() const { return m_storeSilent; }
    // The screen showing (or fading in); nullptr while the store loads and has
    // not yet been silent for long.
    [[nodiscard]] QWidget *currentScreen() const;

protected:
    void showEvent(QShowEvent *event) override;

private:
    void chooseScreen();

    AppModel &m_model;
    FadingStack *m_stack = nullptr;
    QWidget *m_loading = nullptr;
    QWidget *m_storeSilent = nullptr;
    PairingView *m_pairing = nullptr;
    RecorderView *m_recorder = nullptr;
    bool m_refreshStarted = false;
};
