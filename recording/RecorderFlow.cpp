#include "recording/RecorderFlow.h"

#include "account/SessionStore.h"
#include "audio/ChosenSourceServer.h"
#include "audio/DualRecorder.h"
#include "audio/KeptRecording.h"
#include "audio/RecordingsFolder.h"
#include "common/ClockText.h"
#include "common/Logging.h"
#include "common/Observable.h"
#include "recording/RecordingSidecar.h"
#include "recording/UnsentRecordings.h"

#include <QFileInfo>
#include <QNetworkAccessManager>

#include <cmath>

namespace {

using Kind = RecorderState::Kind;

// The duration the note is sent with: recorded time truncated toward zero (59.9 s is 59).
qint64 wholeSeconds(double seconds)
{
    return static_cast<qint64>(std::trunc(seconds));
}

double secondsBetween(std::chrono::steady_clock::time_point from, std::chrono::steady_clock::time_point to)
{
    return std::chrono::duration<double>(to - from).count();
}

} // namespace

RecorderFlow::RecorderFlow(SelvaroAPI api, SessionStore &store, Platform platform, QObject *parent)
    : QObject(parent)
    , m_platform(std::move(platform).withDefaults())
    , m_sendPipeline(std::move(api), store, m_platform.clock, m_platform.network)
    , m_permissions(std::move(m_platform.microphone), std::move(m_platform.systemAudio), m_platform.clock)
    , m_levels(m_platform.clock)
    , m_systemAudioSource(m_platform.chosenSource,
          m_platform.chosenSource ? m_platform.chosenSource->watchStreams() : nullptr)
    , m_ticker(m_platform.clock)
{
    // Connected before anyone else can be: the derived properties follow a
    // permission before its change reaches the screen.
    connect(&m_permissions, &RecorderPermissions::microphoneChanged, this, &RecorderFlow::updateDerived);
    connect(&m_permissions, &RecorderPermissions::systemAudioChanged, this, &RecorderFlow::updateDerived);
    updateDerived();
    const auto hearApplication = [this] { m_levels.setApplication(m_systemAudioSource.chosen()); };
    connect(&m_systemAudioSource, &SystemAudioSource::chosenChanged, this, hearApplication);
    hearApplication();
}

// Running tasks are not stopped here: each holds the flow through a QPointer and
// ends at its next step; the loops stop with their Repeaters. A running recording is
// closed, to be offered at the next start.
RecorderFlow::~RecorderFlow()
{
    closeForExit();
}

std::unique_ptr<RecorderFlow> RecorderFlow::preview(
    const State &state, double elapsed, Permission microphone, Permission systemAudio)
{
    auto *network = new QNetworkAccessManager;
    auto *store = new SessionStore(SessionStore::Load::nothing);
    auto flow = std::make_unique<RecorderFlow>(SelvaroAPI(network), *store, Platform {});
    network->setParent(flow.get());
    store->setParent(flow.get());
    flow->setState(state);
    flow->setDisplayedElapsed(elapsed);
    flow->m_permissions.freeze(microphone, systemAudio);
    // Fixed levels, so that the meters of a live snapshot show something and
    // always the same: the other side talking, the user's voice softer.
    if (state.is(State::Kind::recording) || state.is(State::Kind::paused))
        flow->m_levels.show(0.5, 0.12);
    flow->m_frozenForPreview = true;
    return flow;
}

// --- the change filter -------------------------------------------------------

// Not setIfChanged: the derived properties must be current before the source's
// change is announced, so the announcement comes last.
template <typename T> void RecorderFlow::setSource(T &field, T value, void (RecorderFlow::*changed)())
{
    if (field == value)
        return;
    field = std::move(value);
    updateDerived();
    Q_EMIT(this->*changed)();
}

void RecorderFlow::setState(State state)
{
    setSource(m_state, std::move(state), &RecorderFlow::stateChanged);
    // Held exactly while recording, whichever way the state moves: a pause (the user
    // chose to stop for a while, so the computer may sleep), a save, a discard or a
    // failure give it back. Exit gives it back through the inhibitor's destruction.
    if (m_platform.sleepInhibitor) {
        if (m_state.is(State::Kind::recording))
            m_platform.sleepInhibitor->hold(tr("Recording"));
        else
            m_platform.sleepInhibitor->release();
        // While live, a suspend waits until the recording paused (sleepComing).
        m_platform.sleepInhibitor->watchSleep(
            m_isLive ? [this](bool sleeping) { sleepComing(sleeping); } : SleepInhibitor::SleepHandler());
    }
}

void RecorderFlow::setElapsed(double value)
{
    setIfChanged(m_elapsed, value, this, &RecorderFlow::elapsedChanged);
}

void RecorderFlow::setDisplayedElapsed(double value)
{
    setIfChanged(m_displayedElapsed, value, this, &RecorderFlow::displayedElapsedChanged);
}

// The capture and the start time are kept and dropped together.
void RecorderFlow::setRecording(std::shared_ptr<RecordingCapture> capture, std::optional<QDateTime> startedAt)
{
    m_capture = std::move(capture);
    m_startedAt = std::move(startedAt);
    updateDerived();
}

void RecorderFlow::updateDerived()
{
    const Kind kind = m_state.kind();
    const bool offersRecord = kind == Kind::idle || kind == Kind::sent || kind == Kind::failed;
    const Permission microphone = m_permissions.microphone();
    const Permission systemAudio = m_permissions.systemAudio();
    const bool bothGranted = microphone == Permission::granted && systemAudio == Permission::granted;
    const bool canRetry = kind == Kind::failed && m_capture && m_startedAt;
    setIfChanged(m_canRetrySend, canRetry, this, &RecorderFlow::canRetrySendChanged);
    setIfChanged(
        m_isLive, kind == Kind::recording || kind == Kind::paused, this, &RecorderFlow::isLiveChanged);
    setIfChanged(
        m_showsPermissions, offersRecord && !bothGranted, this, &RecorderFlow::showsPermissionsChanged);
    setIfChanged(m_systemAudioStepEnabled,
        microphone == Permission::granted || systemAudio == Permission::granted, this,
        &RecorderFlow::systemAudioStepEnabledChanged);
}

// --- recording ---------------------------------------------------------------

double RecorderFlow::runningElapsed() const
{
    if (m_state.is(State::Kind::recording) && m_segmentStart)
        return m_elapsed + secondsBetween(*m_segmentStart, m_platform.clock->monotonicNow());
    return m_elapsed;
}

void RecorderFlow::closeSegment()
{
    if (m_segmentStart)
        setElapsed(m_elapsed + secondsBetween(*m_segmentStart, m_platform.clock->monotonicNow()));
    m_segmentStart.reset();
}

void RecorderFlow::record()
{
    if (m_frozenForPreview)
        return;
    if (!m_state.is(State::Kind::idle) && !m_state.is(State::Kind::sent) && !m_state.is(State::Kind::failed))
        return;

    const QString folder = m_platform.recordingsFolder;
    std::shared_ptr<RecordingCapture> capture;
    std::optional<QString> error = RecordingsFolder::create(folder);
    const qint64 room = std::chrono::seconds(roomToStart).count() * DualRecorder::bytesPerSecond;
    const std::optional<qint64> free = error ? std::nullopt : m_platform.freeSpace(folder);
    if (free && *free < room) {
        qCCritical(lcRecorder, "start: %lld bytes free, %lld needed", static_cast<long long>(*free),
            static_cast<long long>(room));
        setState(State::failed(tr("There is not enough free disk space to record: ten minutes need %1 MB.")
                                   .arg(room / 1000000)));
        return;
    }
    if (!error) {
        capture = m_platform.makeCapture ? m_platform.makeCapture(folder) : nullptr;
        error = capture ? capture->start() : std::optional<QString>(QStringLiteral("no capture available"));
    }
    if (error) {
        // Deliberately leaves the kept recording alone: after a failed send it can
        // still be sent again.
        qCCritical(lcRecorder, "start: %s", qUtf8Printable(*error));
        setState(State::failed(
            tr("The recording could not start. Check the microphone and system audio permissions.")));
        return;
    }

    setRecording(std::move(capture), m_platform.clock->now());
    RecordingSidecar::keep(m_capture->finalMixedPath(), *m_startedAt, 0, RecordingSidecar::Stage::recording);
    m_segmentStart = m_platform.clock->monotonicNow();
    setElapsed(0);
    setState(State::recording());
    // displayedElapsed is not reset here: the first tick brings it up to date.
    startWatching();
}

void RecorderFlow::pause()
{
    pauseBecause({});
}

void RecorderFlow::pauseBecause(const QString &why)
{
    if (m_frozenForPreview || !m_state.is(State::Kind::recording) || !m_capture)
        return;
    m_capture->pause();
    closeSegment();
    m_levels.pause();
    setState(State::paused(why));
}

void RecorderFlow::sleepComing(bool sleeping)
{
    // Paused as by Pause, and it stays paused after waking: the captures may need the
    // user's Resume, and the slept time is absent. The files reach the disk before the
    // computer may sleep (a battery may run out meanwhile); the sidecar is there since
    // the start, and the flush brings the files' headers up to date.
    if (!sleeping || !m_capture || !m_isLive)
        return;
    pauseBecause(tr("Paused while the computer was asleep."));
    m_capture->flush();
}

void RecorderFlow::resume()
{
    if (m_frozenForPreview || !m_state.is(State::Kind::paused) || !m_capture)
        return;
    m_capture->resume();
    m_segmentStart = m_platform.clock->monotonicNow();
    m_levels.resume();
    setState(State::recording());
}

void RecorderFlow::discard()
{
    if (m_frozenForPreview)
        return;
    stopWatching();
    // A running capture ignores a cancel: it is closed first, so nothing of it stays. A
    // send under way is deliberately not cancelled; it keeps its own reference to the
    // capture, and what it leaves is offered again.
    if (m_capture && !m_state.is(State::Kind::saving)) {
        if (m_isLive)
            m_capture->close();
        m_capture->cancel();
        RecordingSidecar::remove(m_capture->finalMixedPath());
    }
    setRecording(nullptr, std::nullopt);
    m_segmentStart.reset();
    setElapsed(0);
    setState(State::idle());
}

void RecorderFlow::checkCapture()
{
    if (!m_isLive || !m_capture)
        return;
    const std::optional<WriteFailure> failure = m_capture->writeFailure();
    if (!failure)
        return;
    closeSegment();
    stopWatching();
    m_capture->close();
    const QString at = ClockText::format(m_elapsed);
    qCCritical(lcRecorder, "recording stopped at %s: a file stopped taking audio (%d)", qUtf8Printable(at),
        static_cast<int>(*failure));
    if (*failure == WriteFailure::fileRemoved) {
        // Its files went with the folder: nothing is left to send.
        setRecording(nullptr, std::nullopt);
        setState(State::failed(
            tr("The recordings folder was removed. The recording stopped at %1 and could not be kept.")
                .arg(at)));
        return;
    }
    RecordingSidecar::keep(
        m_capture->finalMixedPath(), *m_startedAt, m_elapsed, RecordingSidecar::Stage::recorded);
    const QString sentence = *failure == WriteFailure::diskFull
        ? tr("The disk is full. The recording stopped at %1; what was recorded can still be sent.")
        : *failure == WriteFailure::fileTooLarge
        ? tr("The recording reached the largest file the disk allows. The recording stopped at %1; what "
             "was recorded can still be sent.")
        : tr("The disk could not be written. The recording stopped at %1; what was recorded can still be "
             "sent.");
    setState(State::failed(sentence.arg(at)));
}

void RecorderFlow::closeForExit()
{
    if (!m_isLive || !m_capture || !m_startedAt)
        return;
    m_ticker.stop();
    m_capture->close();
    RecordingSidecar::keep(
        m_capture->finalMixedPath(), *m_startedAt, runningElapsed(), RecordingSidecar::Stage::recorded);
}

// --- recordings kept in the folder -------------------------------------------

void RecorderFlow::offerUnsent()
{
    if (m_frozenForPreview || m_offering || m_capture || m_isLive || m_state.is(State::Kind::saving))
        return;
    m_offering = true;
    offerOldest(this);
}

QCoro::Task<> RecorderFlow::offerOldest(QPointer<RecorderFlow> self)
{
    QCoro::Task<std::optional<UnsentRecordings::Offer>> preparing
        = UnsentRecordings::oldest(self->m_platform.recordingsFolder);
    const std::optional<UnsentRecordings::Offer> offer = co_await std::move(preparing);
    if (!self)
        co_return;
    self->m_offering = false;
    // A recording started (or one offered) meanwhile comes first; this one waits.
    if (!offer || self->m_capture || self->m_isLive || self->m_state.is(State::Kind::saving))
        co_return;
    const UnsentRecordings::Recording &oldest = offer->recording;
    self->setRecording(offer->kept, oldest.startedAt);
    self->setElapsed(oldest.recordedSeconds);
    self->setDisplayedElapsed(oldest.recordedSeconds);
    const qint64 minutes = std::max<qint64>(1, std::llround(oldest.recordedSeconds / 60));
    self->setState(State::failed(tr("A recording from %1 (%2 min) was not sent.")
                                     .arg(ClockText::startOf(oldest.startedAt))
                                     .arg(minutes)));
    // The user asked for this one to be sent: it goes without asking again.
    if (oldest.saved)
        self->retrySend();
}

bool RecorderFlow::hasUnsentRecordings() const
{
    return m_capture || !UnsentRecordings::in(m_platform.recordingsFolder).isEmpty();
}

void RecorderFlow::deleteAllRecordings()
{
    discard();
    UnsentRecordings::removeAll(m_platform.recordingsFolder);
}

// --- the display clock and the levels ----------------------------------------

void RecorderFlow::startWatching()
{
    m_ticker.start(tickInterval, [this] {
        setDisplayedElapsed(runningElapsed());
        checkCapture();
        return true;
    });
    m_levels.watch(m_capture);
}

void RecorderFlow::stopWatching()
{
    m_levels.stop();
    stopTicker();
}

void RecorderFlow::stopTicker()
{
    if (!m_ticker.isRunning())
        return;
    m_ticker.stop();
    QMetaObject::invokeMethod(
        this, [this] { setDisplayedElapsed(runningElapsed()); }, Qt::QueuedConnection);
}

// --- the send pipeline -------------------------------------------------------

void RecorderFlow::save()
{
    if (m_frozenForPreview)
        return;
    if (!m_state.is(State::Kind::recording) && !m_state.is(State::Kind::paused))
        return;
    if (!m_capture || !m_startedAt)
        return;
    closeSegment();
    stopWatching();
    const qint64 duration = wholeSeconds(m_elapsed);
    RecordingSidecar::keep(
        m_capture->finalMixedPath(), *m_startedAt, m_elapsed, RecordingSidecar::Stage::recorded, true);
    setState(State::saving(tr("Finishing the recording…")));
    finishAndSend(this, m_capture, *m_startedAt, duration);
}

void RecorderFlow::retrySend()
{
    if (m_frozenForPreview || !m_canRetrySend)
        return;
    // A mixed file is sent as it is. Without one (a recording stopped by a failure, a
    // failed mix, one left by an earlier run) the captures are mixed first. Either
    // moves the state on before it first waits.
    if (!QFileInfo::exists(m_capture->finalMixedPath())) {
        setState(State::saving(tr("Finishing the recording…")));
        finishAndSend(this, m_capture, *m_startedAt, wholeSeconds(m_elapsed));
        return;
    }
    send(this, m_capture, *m_startedAt, wholeSeconds(m_elapsed));
}

bool RecorderFlow::ownsOutcomeOf(const std::shared_ptr<RecordingCapture> &capture) const
{
    return !m_capture || m_capture == capture;
}

QCoro::Task<> RecorderFlow::finishAndSend(QPointer<RecorderFlow> self,
    std::shared_ptr<RecordingCapture> capture, QDateTime startedAt, qint64 duration)
{
    // Tasks are built before they are awaited: GCC 12 mishandles temporaries in an
    // awaited full-expression.
    QCoro::Task<> stopping = capture->stop();
    co_await std::move(stopping);
    if (!self)
        co_return;
    // A failed mix keeps the captures: "Send again" mixes again.
    if (const std::optional<QString> failure = capture->mixFailure()) {
        if (self->ownsOutcomeOf(capture))
            self->setState(State::failed(tr("Sending failed: %1").arg(*failure)));
        co_return;
    }
    RecordingSidecar::keep(
        capture->finalMixedPath(), startedAt, static_cast<double>(duration), RecordingSidecar::Stage::mixed);
    QCoro::Task<> sending = send(self, std::move(capture), std::move(startedAt), duration);
    co_await std::move(sending);
}

QCoro::Task<> RecorderFlow::send(QPointer<RecorderFlow> self, std::shared_ptr<RecordingCapture> capture,
    QDateTime startedAt, qint64 duration)
{
    if (!self)
        co_return;
    // The outcome is written even after a discard (deliberately: a discard does not
    // cancel a send), but never over a newer recording started since.
    const auto report = [&self, &capture](const State &state) {
        if (self && self->ownsOutcomeOf(capture))
            self->setState(state);
    };
    QCoro::Task<std::optional<SendPipeline::Outcome>> sending = self->m_sendPipeline.send(
        capture->finalMixedPath(), std::move(startedAt), duration, self.data(), report);
    const std::optional<SendPipeline::Outcome> outcome = co_await std::move(sending);
    const bool sent = outcome && outcome->state.is(State::Kind::sent);
    // A sent or empty recording is done with, whoever owns the screen now.
    if (outcome && outcome->spent) {
        if (!sent)
            capture->cancel();
        RecordingSidecar::remove(capture->finalMixedPath());
    }
    if (!outcome || !self || !self->ownsOutcomeOf(capture))
        co_return;
    if (outcome->spent)
        self->setRecording(nullptr, std::nullopt);
    if (sent) {
        self->setElapsed(0);
        self->setDisplayedElapsed(0);
    }
    self->setState(outcome->state);
    if (sent)
        self->offerUnsent();
}
