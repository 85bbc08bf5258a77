#pragma once

#include "recording/RecorderState.h"
#include "service/SelvaroAPI.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QPointer>
#include <QString>

#include <qcoro/qcorotask.h>

#include <functional>
#include <optional>

class SessionStore;

// The way of one finished recording to the service: the session and its account id,
// the empty check, an upload target, the upload, the note. It reports its progress
// ("Uploading…", "Creating the note…") as saving states and ends in an Outcome; what
// the outcome does to the recording is RecorderFlow's business, which keeps the state
// machine.
//
// Failures are sentences for the user, never exceptions. 401 and 403 from any of the
// three calls (the upload address too) renew the session once through the store and
// end in "The session had expired. Try sending again." without a log line; anything
// else is logged as "send: <description>" and ends in "Sending failed: <description>".
// There is no automatic retry: sending again is the user's.
//
// Thread contract: main thread. A send copies the client and a QPointer to the store
// into its coroutine, so it outlives the pipeline it was started from; it stops at
// its next step once `owner` is gone.
class SendPipeline
{
    Q_DECLARE_TR_FUNCTIONS(SendPipeline)

public:
    struct Outcome
    {
        // sent, or failed with the user's sentence.
        RecorderState state;
        // Nothing to send again: the note was created, or the recording is empty.
        bool spent = false;
    };
    using Progress = std::function<void(const RecorderState &)>;

    // `store` must outlive every send; so must `api`'s network manager.
    SendPipeline(SelvaroAPI api, SessionStore &store);

    // Sends the mixed `file` of a recording started at `startedAt` and `duration`
    // seconds long; removes the file once the note exists. Nothing once `owner` is
    // gone (the file then stays). `progress` is called only while `owner` exists.
    [[nodiscard]] QCoro::Task<std::optional<Outcome>> send(
        QString file, QDateTime startedAt, qint64 duration, QPointer<QObject> owner, Progress progress) const;

private:
    static QCoro::Task<std::optional<Outcome>> run(SendPipeline pipeline, QString file, QDateTime startedAt,
        qint64 duration, QPointer<QObject> owner, Progress progress);

    SelvaroAPI m_api;
    QPointer<SessionStore> m_store;
};
