#pragma once

#include "ui/OutlinedBox.h"
#include "ui/SoundSettings.h"

#include <QPointer>

class PermissionRow;
class RecorderFlow;

// The two-step permissions box the recorder shows while a permission is missing:
// a heading over the microphone's step and the system audio's step. "Allow" asks
// the flow for the permission, "Settings" opens the desktop's sound settings at
// the step's pane. The second step opens when the flow says so
// (systemAudioStepEnabled). It takes the width offered up to 320 points.
// Main thread only; the flow must outlive it or be deleted with it.
class PermissionsBox : public OutlinedBox
{
    Q_OBJECT

public:
    PermissionsBox(RecorderFlow *flow, SoundSettings::Opener openSettings, QWidget *parent = nullptr);

    // Off: a step opens or closes at once (snapshots, tests).
    void setAnimated(bool animated);

private:
    void showPermissions();
    void openPane(SoundSettings::Pane pane) const;

    QPointer<RecorderFlow> m_flow;
    SoundSettings::Opener m_openSettings;
    PermissionRow *m_microphoneRow;
    PermissionRow *m_systemAudioRow;
};
