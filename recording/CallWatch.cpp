#include "recording/CallWatch.h"

#include "common/Clock.h"

#include <optional>

CallWatch::CallWatch(std::shared_ptr<Clock> clock, QObject *parent)
    : QObject(parent)
    , m_clock(clock)
    , m_deadline(std::move(clock))
{ }

CallWatch::~CallWatch() = default;

void CallWatch::watch(std::unique_ptr<StreamWatch> watch)
{
    m_watch = std::move(watch);
    if (!m_watch)
        return;
    connect(m_watch.get(), &StreamWatch::changed, this, [this] { update(m_watch->streams()); });
    update(m_watch->streams());
}

void CallWatch::update(const QList<ClientStream> &streams)
{
    const auto now = m_clock->monotonicNow();
    QHash<QString, std::pair<bool, bool>> holding; // program: microphone, playing
    for (const ClientStream &stream : streams) {
        if (stream.ours)
            continue;
        auto &[microphone, playing] = holding[stream.displayName()];
        if (stream.kind == ClientStream::Kind::capture)
            microphone = microphone || (!stream.fromMonitor && !stream.peakMeter);
        else
            playing = playing || !stream.corked;
    }
    for (auto it = holding.cbegin(); it != holding.cend(); ++it) {
        if (!m_programs.contains(it.key()))
            m_programs.insert(it.key(), Program { .since = now });
    }
    for (auto it = m_programs.begin(); it != m_programs.end(); ++it) {
        const auto [microphone, playing] = holding.value(it.key());
        Program &program = it.value();
        // The clock restarts whenever "both" or "neither" begins.
        const bool bothBefore = program.microphone && program.playing;
        const bool neitherBefore = !program.microphone && !program.playing;
        if ((microphone && playing && !bothBefore) || (!microphone && !playing && !neitherBefore))
            program.since = now;
        program.microphone = microphone;
        program.playing = playing;
    }
    settle();
}

bool CallWatch::inCall(const QString &program) const
{
    return m_programs.value(program).announced;
}

void CallWatch::settle()
{
    const auto now = m_clock->monotonicNow();
    std::optional<std::chrono::steady_clock::time_point> next;
    const auto wake
        = [&next](std::chrono::steady_clock::time_point at) { next = next ? std::min(*next, at) : at; };
    QStringList started;
    QStringList ended;
    for (auto it = m_programs.begin(); it != m_programs.end();) {
        Program &program = it.value();
        const bool both = program.microphone && program.playing;
        const bool neither = !program.microphone && !program.playing;
        if (!program.announced && both) {
            if (now - program.since >= startAfter) {
                program.announced = true;
                started << it.key();
            } else {
                wake(program.since + startAfter);
            }
        } else if (neither) {
            if (!program.announced || now - program.since >= endAfter) {
                if (program.announced)
                    ended << it.key();
                it = m_programs.erase(it);
                continue;
            }
            wake(program.since + endAfter);
        }
        ++it;
    }
    m_deadline.stop();
    if (next) {
        const auto wait = std::chrono::ceil<std::chrono::milliseconds>(*next - now);
        m_deadline.start(
            wait,
            [this] {
                settle();
                return false;
            },
            1);
    }
    // Last: a listener may update() again.
    for (const QString &program : std::as_const(ended))
        Q_EMIT callEnded(program);
    for (const QString &program : std::as_const(started))
        Q_EMIT callStarted(program);
}
