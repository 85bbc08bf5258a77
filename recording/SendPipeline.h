#pragma once

#include "common/Clock.h"
#include "recording/RecorderState.h"
#include "recording/SendRetry.h"
#include "service/NetworkStatus.h"
#include "service/SelvaroAPI.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QPointer>
#include <QString>

#include <qcoro/qcorotask.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

class SessionStore;

// The way of one finished recording to the service: the session and its account id,
// the empty check, an upload target and the upload, the note. It reports its progress
// ("Uploading… 42 %", "Creating the note…", "Waiting for the network…") as saving
// states and ends in an Outcome; what the outcome does to the recording is
// RecorderFlow's business, which keeps the state machine.
//
// Each finished step goes into the recording's sidecar (RecordingSidecar: "uploaded"
// with the key, then "noted"), and every send, automatic or asked for, starts at the
// first step not done: a note that failed is created again with the same key without
// uploading again, and a recording whose note exists is only removed. A note refused
// with another 4xx than 401/403 forgets the upload, so the next try uploads again to a
// new target.
//
// A failure a retry can fix (SendRetry) is tried again by itself from the step that
// failed, up to SendRetry::tries tries, the status saying which ("Uploading… (try 2 of
// 4)"). While the NetworkStatus says offline no request is made: the status says
// "Waiting for the network…" and the send goes on once it is back, without using up a
// try. Failures are sentences for the user, never exceptions. 401 and 403 from any of
// the three calls (the upload address too) renew the session once through the store and
// end in "The session had expired. Try sending again." without a log line; anything
// else, once no try is left, is logged as "send: <description>" and ends in "Sending
// failed: <description>".
//
// Thread contract: main thread. A send copies the client, the clock and a QPointer to
// the store into its coroutine, so it outlives the pipeline it was started from; it
// stops at its next step (a wait included) once `owner` is gone.
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

    // How often the network is read again while waiting for it.
    static constexpr std::chrono::seconds networkPoll { 1 };

    // `store` must outlive every send; so must `api`'s network manager. No network
    // status: never known to be offline.
    SendPipeline(SelvaroAPI api, SessionStore &store, std::shared_ptr<Clock> clock,
        std::shared_ptr<NetworkStatus> network, SendRetry retry = SendRetry());

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
    std::shared_ptr<Clock> m_clock;
    std::shared_ptr<NetworkStatus> m_network;
    SendRetry m_retry;
};
