#include "recording/SendPipeline.h"

#include "account/JwtClaims.h"
#include "account/SessionStore.h"
#include "audio/RecordingFiles.h"
#include "common/Logging.h"
#include "recording/ProgressThrottle.h"
#include "recording/RecordingSidecar.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>

namespace {

using Stage = RecordingSidecar::Stage;

// No file, not a regular file, or nothing in it: the mixer left nothing worth sending.
bool isEmptyRecording(const QString &path)
{
    const QFileInfo file(path);
    return !file.isFile() || file.size() < 1;
}

bool isRefusedToken(const ApiError &error)
{
    return error.isHttp() && (error.status() == 401 || error.status() == 403);
}

} // namespace

SendPipeline::SendPipeline(SelvaroAPI api, SessionStore &store, std::shared_ptr<Clock> clock,
    std::shared_ptr<NetworkStatus> network, SendRetry retry)
    : m_api(std::move(api))
    , m_store(&store)
    , m_clock(std::move(clock))
    , m_network(std::move(network))
    , m_retry(std::move(retry))
{ }

QCoro::Task<std::optional<SendPipeline::Outcome>> SendPipeline::send(
    QString file, QDateTime startedAt, qint64 duration, QPointer<QObject> owner, Progress progress) const
{
    // Through a static coroutine holding a copy: the pipeline itself may go first.
    return run(*this, std::move(file), std::move(startedAt), duration, std::move(owner), std::move(progress));
}

QCoro::Task<std::optional<SendPipeline::Outcome>> SendPipeline::run(SendPipeline pipeline, QString file,
    QDateTime startedAt, qint64 duration, QPointer<QObject> owner, Progress progress)
{
    if (!owner)
        co_return std::nullopt;
    const SelvaroAPI &api = pipeline.m_api;
    const QPointer<SessionStore> &store = pipeline.m_store;
    Clock &clock = *pipeline.m_clock;
    const auto offline = [&pipeline] { return pipeline.m_network && pipeline.m_network->offline(); };
    const auto report = [&owner, &progress](const RecorderState &state) {
        if (owner && progress)
            progress(state);
    };

    const std::optional<SessionPayload> session = store ? store->session() : std::nullopt;
    const std::optional<QString> accountId = session ? JwtClaims::subject(session->token) : std::nullopt;
    if (!accountId) {
        // The recording stays, to be sent once the computer is linked again.
        co_return Outcome {
            RecorderState::failed(tr("This Mac is not linked to a Selvaro account any more.")), false
        };
    }
    RecordingSidecar sidecar
        = RecordingSidecar::of(file).value_or(RecordingSidecar { RecordingFiles::ofMixed(file).stamp(),
            startedAt, static_cast<double>(duration), Stage::mixed, {}, false });
    // An earlier send created the note and ended before the file was removed.
    if (sidecar.stage == Stage::noted) {
        QFile::remove(file);
        co_return Outcome { RecorderState::sent(), true };
    }
    if (isEmptyRecording(file)) {
        // Nothing to send, now or later. The file (if any) stays.
        co_return Outcome {
            RecorderState::failed(tr("The recording is empty. Was anything playing or said?")), true
        };
    }
    sidecar.stage = std::max(sidecar.stage, Stage::mixed);
    sidecar.saved = true;
    sidecar.keepFor(file);

    int attempt = 1;
    std::optional<QString> failure;
    for (;;) {
        if (offline()) {
            report(RecorderState::saving(tr("Waiting for the network…")));
            while (offline()) {
                QCoro::Task<> waiting = clock.sleep(networkPoll);
                co_await std::move(waiting);
                if (!owner)
                    co_return std::nullopt;
            }
        }
        failure.reset();
        const auto tryText = [&attempt](const QString &text, const QString &retryText) {
            return attempt == 1 ? text : retryText.arg(attempt).arg(SendRetry::tries);
        };
        std::optional<ApiError> apiError;
        try {
            if (sidecar.stage < Stage::uploaded) {
                report(RecorderState::saving(tryText(tr("Uploading…"), tr("Uploading… (try %1 of %2)"))));
                // Tasks are built before they are awaited: GCC 12 mishandles temporaries in
                // an awaited full-expression.
                QCoro::Task<UploadTarget> asking = api.uploadTarget(session->token);
                const UploadTarget target = co_await std::move(asking);
                if (!owner)
                    co_return std::nullopt;
                ProgressThrottle throttle;
                const auto shareSent = [&](qint64 sent, qint64 total) {
                    if (const auto share = throttle.take(sent, total, clock.monotonicNow()))
                        report(RecorderState::saving(tr("Uploading… %1 %").arg(*share), *share));
                };
                QCoro::Task<> uploading = api.upload(file, target, shareSent);
                co_await std::move(uploading);
                if (!owner)
                    co_return std::nullopt;
                // The end is shown too, but no sooner than the throttle allows.
                if (throttle.shown() < 100) {
                    QCoro::Task<> pacing = clock.sleep(throttle.untilNext(clock.monotonicNow()));
                    co_await std::move(pacing);
                    if (!owner)
                        co_return std::nullopt;
                    shareSent(1, 1);
                }
                sidecar.stage = Stage::uploaded;
                sidecar.recordingKey = target.key;
                sidecar.keepFor(file);
                report(RecorderState::saving(tr("Creating the note…")));
            } else {
                report(RecorderState::saving(
                    tryText(tr("Creating the note…"), tr("Creating the note… (try %1 of %2)"))));
            }
            QCoro::Task<NoteRecord> creating = api.createNote(
                session->token, *accountId, session->isAnonymous, startedAt, duration, sidecar.recordingKey);
            co_await std::move(creating);
            if (!owner)
                co_return std::nullopt;
            sidecar.stage = Stage::noted;
            sidecar.keepFor(file);
            break;
        } catch (const ApiError &error) {
            apiError = error;
        } catch (const std::exception &error) {
            failure = QString::fromUtf8(error.what());
            break;
        }

        // The store renews the token, or forgets the session when the service no longer
        // knows this computer; either way the recording stays for the user to send again.
        if (isRefusedToken(*apiError)) {
            if (store) {
                QCoro::Task<> refreshing = store->refresh(api);
                co_await std::move(refreshing);
            }
            co_return Outcome { RecorderState::failed(tr("The session had expired. Try sending again.")),
                false };
        }
        const bool canFix = SendRetry::canFix(*apiError);
        // The service refused the key itself: the next try uploads again, to a new target.
        if (sidecar.stage == Stage::uploaded && apiError->isHttp() && apiError->status() < 500 && !canFix) {
            sidecar.stage = Stage::mixed;
            sidecar.keepFor(file);
        }
        failure = apiError->description();
        // A try that failed because the computer went offline is not counted: the
        // send waits for the network and tries again.
        if (canFix && offline())
            continue;
        if (!canFix || attempt == SendRetry::tries)
            break;
        qCWarning(lcRecorder, "send, try %d of %d: %s", attempt, SendRetry::tries, qUtf8Printable(*failure));
        ++attempt;
        report(RecorderState::saving(sidecar.stage < Stage::uploaded
                ? tryText(tr("Uploading…"), tr("Uploading… (try %1 of %2)"))
                : tryText(tr("Creating the note…"), tr("Creating the note… (try %1 of %2)"))));
        QCoro::Task<> pausing = clock.sleep(pipeline.m_retry.waitBefore(attempt, *apiError));
        co_await std::move(pausing);
        if (!owner)
            co_return std::nullopt;
    }

    if (failure) {
        qCCritical(lcRecorder, "send: %s", qUtf8Printable(*failure));
        co_return Outcome { RecorderState::failed(tr("Sending failed: %1").arg(*failure)), false };
    }
    // A file that cannot be removed stays in the folder; its sidecar says "noted".
    QFile::remove(file);
    co_return Outcome { RecorderState::sent(), true };
}
