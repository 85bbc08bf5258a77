#include "recording/SendPipeline.h"

#include "account/JwtClaims.h"
#include "account/SessionStore.h"
#include "common/Logging.h"

#include <QFile>
#include <QFileInfo>

namespace {

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

SendPipeline::SendPipeline(SelvaroAPI api, SessionStore &store)
    : m_api(std::move(api))
    , m_store(&store)
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
    if (isEmptyRecording(file)) {
        // Nothing to send, now or later. The file (if any) stays.
        co_return Outcome {
            RecorderState::failed(tr("The recording is empty. Was anything playing or said?")), true
        };
    }

    std::optional<ApiError> apiError;
    std::optional<QString> otherError;
    try {
        report(RecorderState::saving(tr("Uploading…")));
        // Tasks are built before they are awaited: GCC 12 mishandles temporaries in an
        // awaited full-expression.
        QCoro::Task<UploadTarget> asking = api.uploadTarget(session->token);
        const UploadTarget target = co_await std::move(asking);
        if (!owner)
            co_return std::nullopt;
        QCoro::Task<> uploading = api.upload(file, target);
        co_await std::move(uploading);
        if (!owner)
            co_return std::nullopt;
        report(RecorderState::saving(tr("Creating the note…")));
        QCoro::Task<NoteRecord> creating = api.createNote(
            session->token, *accountId, session->isAnonymous, startedAt, duration, target.key);
        co_await std::move(creating);
        if (!owner)
            co_return std::nullopt;
    } catch (const ApiError &error) {
        apiError = error;
    } catch (const std::exception &error) {
        otherError = QString::fromUtf8(error.what());
    }

    // The store renews the token, or forgets the session when the service no longer
    // knows this computer; either way the recording stays for the user to send again.
    if (apiError && isRefusedToken(*apiError)) {
        if (store) {
            QCoro::Task<> refreshing = store->refresh(api);
            co_await std::move(refreshing);
        }
        co_return Outcome { RecorderState::failed(tr("The session had expired. Try sending again.")), false };
    }
    if (apiError)
        otherError = apiError->description();
    if (otherError) {
        qCCritical(lcRecorder, "send: %s", qUtf8Printable(*otherError));
        co_return Outcome { RecorderState::failed(tr("Sending failed: %1").arg(*otherError)), false };
    }

    // A file that cannot be removed stays in the folder.
    QFile::remove(file);
    co_return Outcome { RecorderState::sent(), true };
}
