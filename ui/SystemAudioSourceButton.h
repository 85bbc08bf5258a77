#pragma once

#include "ui/TextButton.h"

#include <QPointer>

class QMenu;
class SystemAudioSource;

// The choice of where system audio comes from, under the status line: a text button
// showing the current choice ("All apps" or the application's name), whose menu holds
// one radio item per entry of the SystemAudioSource, the chosen one checked. Choosing
// an item calls the source; the button only draws it. Its accessible name is "System
// audio source" (the title is the choice).
class SystemAudioSourceButton : public TextButton
{
    Q_OBJECT

public:
    // `source` may be null (nothing to choose); it must outlive the button.
    explicit SystemAudioSourceButton(SystemAudioSource *source, QWidget *parent = nullptr);

    // The menu as it would open now; the caller owns it.
    [[nodiscard]] QMenu *makeMenu();

private:
    void showChoice();

    SystemAudioSource *m_source;
};
