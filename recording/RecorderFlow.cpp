#include "recording/RecorderFlow.h"

#include "account/SessionStore.h"
#include "audio/DualRecorder.h"
#include "audio/KeptRecording.h"
#include "audio/RecordingsFolder.h"
#include "common/ClockText.h"
#include "common/Logging.h"
#include "common/Observable.h"
#include "common/SystemClock.h"
#include "recording/UnsentRecordings.h"

#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QNetworkAccessManager>
#include <QStorageInfo>

#include <cmath>

// The handle of one display clock: cancelling sets the flag, which the sleeping
// ticker finds when it wakes.
struct RecorderFlow::Ticker
{
    bool cancelled = false;
};

namespace {

using Kind = RecorderState::Kind;

Permission permissionOf(const CapturePermission *permission)
{
    return permission ? permission->status() : Permission::unknown;
}

// The duration the note is sent with: recorded time truncated toward zero (59.9 s is 59).
qint64 wholeSeconds(double seconds)
{
    return static_cast<qint64>(std::trunc(seconds));
}

double secondsBetween(std::chrono::steady_clock::time_point from, std::chrono::steady_clock::time_point to)
{
    return std::chrono::duration<double>(to - from).count();
}

// The time of day a recording started, with its date when that was not today.
QString startText(const QDateTime &startedAt)
{
    const QDateTime local = startedAt.toLocalTime();
    if (local.date() == QDate::currentDate())
        return local.toString(QStringLiteral("HH:mm"));
    return QLocale().toString(local, QLocale::ShortFormat);
}

// Where a recording got, in its sidecar; a sidecar that cannot be written is logged,
// the recording goes on (its files can still say how long it is).
void writeSidecar(const RecordingCapture &capture, const QDateTime &startedAt, double seconds,
    RecordingSidecar::Stage stage)
{
    const QString mixed = capture.finalMixedPath();
    const RecordingSidecar sidecar { RecordingSidecar::stampOf(mixed), startedAt, seconds, stage };
    if (auto error = sidecar.write(RecordingSidecar::pathBeside(mixed)))
        qCWarning(lcRecorder, "sidecar: %s", qUtf8Printable(*error));
}

void removeSidecar(const RecordingCapture &capture)
{
    QFile::remove(RecordingSidecar::pathBeside(capture.finalMixedPath()));
}

std::optional<qint64> freeSpaceOf(const QString &folder)
{
    const QStorageInfo storage(folder);
    return storage.isValid() ? std::optional(storage.bytesAvailable()) : std::nullopt;
}

} // namespace

RecorderFlow::RecorderFlow(SelvaroAPI api, SessionStore &store, Platform platform, QObject *parent)
    : QObject(parent)
    , m_sendPipeline(std::move(api), store)
    , m_platform(std::move(platform))
{
    if (!m_platform.clock)
        m_platform.clock = std::make_shared<SystemClock>();
    if (m_platform.recordingsFolder.isEmpty())
        m_platform.recordingsFolder = RecordingsFolder::defaultPath();
    if (!m_platform.freeSpace)
        m_platform.freeSpace = freeSpaceOf;
    // The probes answer some time after they were asked (at construction, on
    // activation, after a request), so the flow follows their changes rather than
    // only reading them when told to.
    for (CapturePermission *permission : { m_platform.microphone.get(), m_platform.systemAudio.get() }) {
        if (permission)
            connect(permission, &CapturePermission::statusChanged, this, &RecorderFlow::refreshPermissions);
    }
    updateDerived();
    refreshPermissions();
}

// Running tasks are not stopped here: each holds the flow through a QPointer and
// ends at its next step. A running recording is closed, to be offered at the next start.
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
    flow->setMicrophone(microphone);
    flow->setSystemAudio(systemAudio);
    // Fixed levels, so that the meters of a live snapshot show something and
    // always the same: the other side talking, the user's voice softer.
    if (state.is(State::Kind::recording) || state.is(State::Kind::paused))
        flow->setLevels(0.5, 0.12);
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

void RecorderFlow::setMicrophone(Permission value)
{
    setSource(m_microphone, value, &RecorderFlow::microphoneChanged);
}

void RecorderFlow::setSystemAudio(Permission value)
{
    setSource(m_systemAudio, value, &RecorderFlow::systemAudioChanged);
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
    const bool bothGranted = m_microphone == Permission::granted && m_systemAudio == Permission::granted;
    const bool canRetry = kind == Kind::failed && m_capture && m_startedAt;
    setIfChanged(m_canRetrySend, canRetry, this, &RecorderFlow::canRetrySendChanged);
    setIfChanged(
        m_isLive, kind == Kind::recording || kind == Kind::paused, this, &RecorderFlow::isLiveChanged);
    setIfChanged(
        m_showsPermissions, offersRecord && !bothGranted, this, &RecorderFlow::showsPermissionsChanged);
    setIfChanged(m_systemAudioStepEnabled,
        m_microphone == Permission::granted || m_systemAudio == Permission::granted, this,
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
    writeSidecar(*m_capture, *m_startedAt, 0, RecordingSidecar::Stage::recording);
    m_segmentStart = m_platform.clock->monotonicNow();
    setElapsed(0);
    setState(State::recording());
    // displayedElapsed is not reset here: the first tick brings it up to date.
    startTicker();
    startLevels();
}

void RecorderFlow::pause()
{
    if (m_frozenForPreview || !m_state.is(State::Kind::recording) || !m_capture)
        return;
    m_capture->pause();
    closeSegment();
    m_lastLevelRead.reset(); // paused time counts toward no silence
    setState(State::paused());
}

void RecorderFlow::resume()
{
    if (m_frozenForPreview || !m_state.is(State::Kind::paused) || !m_capture)
        return;
    m_capture->resume();
    m_segmentStart = m_platform.clock->monotonicNow();
    m_lastLevelRead = m_segmentStart;
    setState(State::recording());
}

void RecorderFlow::discard()
{
    if (m_frozenForPreview)
        return;
    cancelTicker();
    resetLevels();
    // A running capture ignores a cancel: it is closed first, so nothing of it stays. A
    // send under way is deliberately not cancelled; it keeps its own reference to the
    // capture, and what it leaves is offered again.
    if (m_capture && !m_state.is(State::Kind::saving)) {
        if (m_isLive)
            m_capture->close();
        m_capture->cancel();
        removeSidecar(*m_capture);
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
    cancelTicker();
    resetLevels();
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
    writeSidecar(*m_capture, *m_startedAt, m_elapsed, RecordingSidecar::Stage::recorded);
    switch (*failure) {
    case WriteFailure::diskFull:
        setState(State::failed(
            tr("The disk is full. The recording stopped at %1; what was recorded can still be sent.")
                .arg(at)));
        break;
    case WriteFailure::fileTooLarge:
        setState(State::failed(tr("The recording reached the largest file the disk allows. The recording "
                                  "stopped at %1; what was recorded can still be sent.")
                                   .arg(at)));
        break;
    default:
        setState(State::failed(tr("The disk could not be written. The recording stopped at %1; what was "
                                  "recorded can still be sent.")
                                   .arg(at)));
        break;
    }
}

void RecorderFlow::closeForExit()
{
    if (!m_isLive || !m_capture || !m_startedAt)
        return;
    if (m_ticker)
        m_ticker->cancelled = true;
    m_capture->close();
    writeSidecar(*m_capture, *m_startedAt, runningElapsed(), RecordingSidecar::Stage::recorded);
}

// --- recordings kept in the folder -------------------------------------------

void RecorderFlow::offerUnsent()
{
    if (m_frozenForPreview || m_offering || m_capture || m_isLive || m_state.is(State::Kind::saving))
        return;
    m_offering = true;
    recover(this);
}

QCoro::Task<> RecorderFlow::recover(QPointer<RecorderFlow> self)
{
    const QList<UnsentRecordings::Recording> unsent = UnsentRecordings::in(self->m_platform.recordingsFolder);
    if (unsent.isEmpty()) {
        self->m_offering = false;
        co_return;
    }
    const UnsentRecordings::Recording oldest = unsent.first();
    auto kept = std::make_shared<KeptRecording>(self->m_platform.recordingsFolder, oldest.stamp);
    if (kept->hasCaptures()) {
        qCInfo(lcRecorder, "mixing the recording %s left unsent", qUtf8Printable(oldest.stamp));
        QCoro::Task<> mixing = kept->stop();
        co_await std::move(mixing);
        if (!self)
            co_return;
        if (!kept->mixFailure())
            writeSidecar(*kept, oldest.startedAt, oldest.recordedSeconds, RecordingSidecar::Stage::mixed);
    }
    self->m_offering = false;
    // A recording started (or one offered) meanwhile comes first; this one waits.
    if (self->m_capture || self->m_isLive || self->m_state.is(State::Kind::saving))
        co_return;
    self->setRecording(std::move(kept), oldest.startedAt);
    self->setElapsed(oldest.recordedSeconds);
    self->setDisplayedElapsed(oldest.recordedSeconds);
    const qint64 minutes = std::max<qint64>(1, std::llround(oldest.recordedSeconds / 60));
    self->setState(State::failed(
        tr("A recording from %1 (%2 min) was not sent.").arg(startText(oldest.startedAt)).arg(minutes)));
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

// --- the display clock -------------------------------------------------------

void RecorderFlow::startTicker()
{
    cancelTicker();
    m_ticker = std::make_shared<Ticker>();
    runTicker(this, m_platform.clock, m_ticker);
}

void RecorderFlow::cancelTicker()
{
    if (!m_ticker)
        return;
    m_ticker->cancelled = true;
    m_ticker.reset();
    // A cancelled ticker makes one last update once the operation that cancelled it
    // has finished: save() leaves the final elapsed on screen, discard() leaves 0.
    QMetaObject::invokeMethod(
        this, [this] { setDisplayedElapsed(runningElapsed()); }, Qt::QueuedConnection);
}

QCoro::Task<> RecorderFlow::runTicker(
    QPointer<RecorderFlow> self, std::shared_ptr<Clock> clock, std::shared_ptr<Ticker> ticker)
{
    while (!ticker->cancelled) {
        co_await clock->sleep(tickInterval);
        // After a cancel the last update is already queued by cancelTicker().
        if (ticker->cancelled || !self)
            co_return;
        self->setDisplayedElapsed(self->runningElapsed());
        self->checkCapture();
    }
}

// --- live levels and the silent-source hint ----------------------------------

void RecorderFlow::startLevels()
{
    resetLevels();
    m_levelTicker = std::make_shared<Ticker>();
    m_lastLevelRead = m_platform.clock->monotonicNow();
    runLevels(this, m_platform.clock, m_levelTicker);
}

void RecorderFlow::resetLevels()
{
    if (m_levelTicker)
        m_levelTicker->cancelled = true;
    m_levelTicker.reset();
    m_systemQuiet = m_microphoneQuiet = {};
    m_lastLevelRead.reset();
    setLevels(0, 0);
    setIfChanged(m_silenceHint, QString(), this, &RecorderFlow::silenceHintChanged);
}

QCoro::Task<> RecorderFlow::runLevels(
    QPointer<RecorderFlow> self, std::shared_ptr<Clock> clock, std::shared_ptr<Ticker> ticker)
{
    while (!ticker->cancelled) {
        co_await clock->sleep(levelInterval);
        if (ticker->cancelled || !self)
            co_return;
        self->readLevels();
    }
}

void RecorderFlow::setLevels(double system, double microphone)
{
    setIfChanged(m_systemLevel, system, this, &RecorderFlow::systemLevelChanged);
    setIfChanged(m_microphoneLevel, microphone, this, &RecorderFlow::microphoneLevelChanged);
}

// A source that only ever sends zeros (or nothing) while the other is heard is
// more likely a fault than a quiet moment: a quiet room or a pause in a call still
// carries noise, and both sides are rarely digitally silent for long at once. Only
// recorded time counts.
void RecorderFlow::readLevels()
{
    if (!m_state.is(State::Kind::recording) || !m_capture)
        return;
    const RecordingCapture::Levels levels = m_capture->takeLevels();
    const auto now = m_platform.clock->monotonicNow();
    const auto span = m_lastLevelRead ? now - *m_lastLevelRead : std::chrono::steady_clock::duration {};
    m_lastLevelRead = now;
    m_systemQuiet = levels.systemAudio > 0 ? std::chrono::steady_clock::duration {} : m_systemQuiet + span;
    m_microphoneQuiet
        = levels.microphone > 0 ? std::chrono::steady_clock::duration {} : m_microphoneQuiet + span;
    setLevels(levels.systemAudio, levels.microphone);
    QString hint;
    if (m_systemQuiet >= silenceHintAfter && m_microphoneQuiet < m_systemQuiet)
        hint = tr("Nothing heard from the other apps yet.");
    else if (m_microphoneQuiet >= silenceHintAfter && m_systemQuiet < m_microphoneQuiet)
        hint = tr("Nothing heard from the microphone yet.");
    setIfChanged(m_silenceHint, hint, this, &RecorderFlow::silenceHintChanged);
}

// --- permissions -------------------------------------------------------------

void RecorderFlow::refreshPermissions()
{
    if (m_frozenForPreview)
        return;
    setMicrophone(permissionOf(m_platform.microphone.get()));
    setSystemAudio(permissionOf(m_platform.systemAudio.get()));
}

void RecorderFlow::probePermissions()
{
    if (m_frozenForPreview)
        return;
    for (CapturePermission *permission : { m_platform.microphone.get(), m_platform.systemAudio.get() }) {
        if (permission)
            permission->updateStatus();
    }
}

void RecorderFlow::requestMicrophone()
{
    if (m_frozenForPreview || !m_platform.microphone)
        return;
    // The answer itself is not used: the permissions are simply read again.
    connect(m_platform.microphone.get(), &CapturePermission::requestFinished, this,
        &RecorderFlow::refreshPermissions, Qt::SingleShotConnection);
    m_platform.microphone->request();
}

void RecorderFlow::requestSystemAudio()
{
    if (m_frozenForPreview)
        return;
    if (m_platform.systemAudio)
        m_platform.systemAudio->request();
    pollSystemAudio(this, m_platform.clock);
}

QCoro::Task<> RecorderFlow::pollSystemAudio(QPointer<RecorderFlow> self, std::shared_ptr<Clock> clock)
{
    // Bounded: a permission that never becomes known stops being polled after ten reads.
    for (int attempt = 0; attempt < permissionPollAttempts; ++attempt) {
        co_await clock->sleep(permissionPollInterval);
        if (!self)
            co_return;
        self->refreshPermissions();
        if (self->m_systemAudio != Permission::unknown)
            co_return;
    }
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
    cancelTicker();
    resetLevels();
    const qint64 duration = wholeSeconds(m_elapsed);
    writeSidecar(*m_capture, *m_startedAt, m_elapsed, RecordingSidecar::Stage::recorded);
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
    writeSidecar(*capture, startedAt, static_cast<double>(duration), RecordingSidecar::Stage::mixed);
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
        removeSidecar(*capture);
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
