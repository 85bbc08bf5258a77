#pragma once

#include <QList>
#include <QObject>
#include <QString>

#include <memory>

class ChosenSourceServer;
class StreamWatch;

// Where the recording's system audio comes from, as the user chose it: every
// application ("All apps", the default) or one application, named by its binary. The
// choice is remembered across starts (the settings keep its binary and the name it was
// shown with) and applies at once, while recording too. The menu lists "All apps", then
// every application with a playback stream now (from the server's stream watch; never
// our own), one per binary, sorted by name, and the remembered choice even when it
// plays nothing now. A name the server reports for two binaries gets its binary beside
// it, so no entry reads like another.
//
// Thread contract: main thread only.
class SystemAudioSource : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString label READ label NOTIFY chosenChanged)
    Q_PROPERTY(QString recordingText READ recordingText NOTIFY chosenChanged)

public:
    struct Entry
    {
        QString name; // as shown
        QString binary; // empty for "All apps"
        bool operator==(const Entry &) const = default;
    };

    // `server` applies the choice; null is a preview: "All apps", nothing read from the
    // settings nor written. `watch` lists what plays (null: only "All apps" and the
    // remembered choice).
    SystemAudioSource(std::shared_ptr<ChosenSourceServer> server, std::unique_ptr<StreamWatch> watch,
        QObject *parent = nullptr);
    ~SystemAudioSource() override;

    // The menu's entries, "All apps" first.
    [[nodiscard]] QList<Entry> entries() const { return m_entries; }
    [[nodiscard]] const Entry &chosen() const { return m_chosen; }
    // The choice's name on its button: "All apps" or the application's.
    [[nodiscard]] QString label() const { return m_chosen.name; }
    // The status line while recording: "Recording Firefox and the microphone".
    [[nodiscard]] QString recordingText() const;

    // Chooses the entry with `binary` (empty: all apps), remembers it and applies it.
    void choose(const QString &binary);
    // Chooses the application of a call, named as the stream watch names a program
    // (ClientStream::displayName): the binary of its playback streams.
    void chooseProgram(const QString &program);

Q_SIGNALS:
    void entriesChanged();
    void chosenChanged();

private:
    void list();

    std::shared_ptr<ChosenSourceServer> m_server;
    std::unique_ptr<StreamWatch> m_watch;
    Entry m_chosen;
    QList<Entry> m_entries;
};
