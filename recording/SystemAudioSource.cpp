#include "recording/SystemAudioSource.h"

#include "audio/ChosenSourceServer.h"
#include "audio/StreamWatch.h"
#include "common/Observable.h"
#include "common/SettingsFile.h"

#include <algorithm>

namespace {

const QString binaryKey = QStringLiteral("systemAudioSource/binary");
const QString nameKey = QStringLiteral("systemAudioSource/name");

QString allApps()
{
    return SystemAudioSource::tr("All apps");
}

} // namespace

SystemAudioSource::SystemAudioSource(
    std::shared_ptr<ChosenSourceServer> server, std::unique_ptr<StreamWatch> watch, QObject *parent)
    : QObject(parent)
    , m_server(std::move(server))
    , m_watch(std::move(watch))
{
    const QString binary = m_server ? settingsFile().value(binaryKey).toString() : QString();
    m_chosen = { binary.isEmpty() ? allApps() : settingsFile().value(nameKey, binary).toString(), binary };
    if (m_server)
        m_server->choose(binary);
    if (m_watch)
        connect(m_watch.get(), &StreamWatch::changed, this, &SystemAudioSource::list);
    list();
}

SystemAudioSource::~SystemAudioSource() = default;

QString SystemAudioSource::recordingText() const
{
    return m_chosen.binary.isEmpty() ? tr("Recording the system audio and the microphone")
                                     : tr("Recording %1 and the microphone").arg(m_chosen.name);
}

void SystemAudioSource::chooseProgram(const QString &program)
{
    if (!m_watch)
        return;
    for (const ClientStream &stream : m_watch->streams()) {
        if (stream.kind == ClientStream::Kind::playback && !stream.ours && stream.displayName() == program) {
            choose(stream.binary);
            return;
        }
    }
}

void SystemAudioSource::choose(const QString &binary)
{
    const auto entry = std::ranges::find(m_entries, binary, &Entry::binary);
    if (entry == m_entries.end() || *entry == m_chosen)
        return;
    if (m_server) {
        QSettings stored = settingsFile();
        stored.setValue(binaryKey, entry->binary);
        stored.setValue(nameKey, entry->name);
        m_server->choose(binary);
    }
    setIfChanged(m_chosen, *entry, this, &SystemAudioSource::chosenChanged);
}

void SystemAudioSource::list()
{
    QList<Entry> playing;
    for (const ClientStream &stream : m_watch ? m_watch->streams() : QList<ClientStream>()) {
        if (stream.kind == ClientStream::Kind::playback && !stream.ours && !stream.binary.isEmpty()
            && std::ranges::find(playing, stream.binary, &Entry::binary) == playing.end())
            playing.append({ stream.displayName(), stream.binary });
    }
    if (!m_chosen.binary.isEmpty()
        && std::ranges::find(playing, m_chosen.binary, &Entry::binary) == playing.end())
        playing.append(m_chosen);
    const QList<Entry> named = playing;
    for (Entry &entry : playing) {
        if (std::ranges::count(named, entry.name, &Entry::name) > 1 || entry.name == allApps())
            entry.name += QStringLiteral(" (%1)").arg(entry.binary);
    }
    std::ranges::sort(playing,
        [](const Entry &a, const Entry &b) { return a.name.compare(b.name, Qt::CaseInsensitive) < 0; });
    playing.prepend({ allApps(), {} });
    setIfChanged(m_entries, playing, this, &SystemAudioSource::entriesChanged);
}
