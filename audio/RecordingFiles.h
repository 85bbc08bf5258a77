#pragma once

#include <QString>
#include <QStringList>

// The files of one recording, all in one folder and named from one STAMP (the wall
// clock in seconds at its start, as the shortest decimal that reads back the same):
//   STAMP_system.wav      the system audio, as captured
//   STAMP_microphone.wav  the microphone, as captured
//   STAMP_mixed.m4a       the mix that is uploaded
//   STAMP.json            the sidecar: how far the recording got
// The one place these names are spelled; everything that names or finds a
// recording's files goes through it. A value: it touches no file.
class RecordingFiles
{
public:
    RecordingFiles(const QString &folder, const QString &stamp);
    // The recording whose mixed file is `mixedPath`; a name without the mix's suffix
    // gives its base name as the STAMP.
    [[nodiscard]] static RecordingFiles ofMixed(const QString &mixedPath);
    // The STAMP of every recording in `folder` that still has a capture or a mix, in
    // the order the folder lists them; empty when it does not exist. A sidecar alone
    // is no recording.
    [[nodiscard]] static QStringList stampsIn(const QString &folder);

    [[nodiscard]] QString stamp() const { return m_stamp; }
    [[nodiscard]] QString systemAudio() const;
    [[nodiscard]] QString microphone() const;
    [[nodiscard]] QString mixed() const;
    [[nodiscard]] QString sidecar() const;

private:
    [[nodiscard]] QString path(QLatin1String suffix) const;

    QString m_folder;
    QString m_stamp;
};
