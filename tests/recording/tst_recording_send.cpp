// The send pipeline, from save() and "Send again", against the local note service
// with the session in a real GNOME Keyring. The capture is the stand-in, which leaves
// a small prepared M4A as the mix; the clock is moved by hand.
#include "RecordingTestSupport.h"

#include "account/Keychain.h"
#include "recording/RecordingSidecar.h"
#include "support/DevService.h"
#include "support/LogCapture.h"

#include <QDir>
#include <QTest>

using namespace RecordingTest;

namespace {
const QString target = u"/upload-recording-url"_s, uploads = u"/uploads/*"_s,
              notes = u"/api/collections/notes/records"_s, refreshes = u"/sessions/"_s;
} // namespace

class TestRecordingSend : public QObject
{
    Q_OBJECT

    DevService m_dev;
    std::unique_ptr<StandIns> m_bench;
    std::unique_ptr<RecorderFlow> m_flow;
    QList<State> m_states;

    // A session the service knows, saved through the store into the keyring.
    void link(bool anonymous = false)
    {
        const auto payload = SessionPayload::fromJson(m_dev.createSession(anonymous));
        QVERIFY(payload && !QCoro::waitFor(m_bench->store->save(*payload)));
    }
    // Saves a recording of `recorded` whose mix is `mix` on a new flow, and waits for the outcome.
    void send(std::chrono::milliseconds recorded = 2500ms, const QByteArray &mix = someMix)
    {
        m_flow = m_bench->makeFlow(m_dev.baseUrl());
        connect(m_flow.get(), &RecorderFlow::stateChanged, this, [this] { m_states << m_flow->state(); });
        m_flow->record();
        m_bench->last().mix = mix;
        m_bench->clock->advanceInTicks(recorded);
        m_flow->pause();
        m_flow->save();
        finish();
    }
    // Waits until the send ends, moving the clock through its waits between tries.
    void finish()
    {
        QTRY_VERIFY_WITH_TIMEOUT(
            (m_bench->clock->advance(10s), !m_flow->state().is(State::Kind::saving)), 20000);
    }
    // Requests to a path starting with `path`.
    int requestsTo(const QString &path)
    {
        const QJsonArray requests = m_dev.requests();
        return int(std::count_if(requests.begin(), requests.end(),
            [&](const QJsonValue &request) { return request[u"path"_s].toString().startsWith(path); }));
    }

private Q_SLOTS:
    void init()
    {
        m_dev.reset();
        QCoro::waitFor(Keychain::remove(QLatin1String(Keychain::sessionAccount)));
        m_flow.reset();
        m_bench = std::make_unique<StandIns>(SessionStore::Load::fromKeychain);
        QCoro::waitFor(m_bench->store->waitUntilLoaded());
        m_states.clear();
    }

    void sendsTheNote_data()
    {
        QTest::addColumn<bool>("anonymous");
        QTest::addColumn<int>("recordedMs");
        QTest::addColumn<int>("duration");
        QTest::newRow("account, 2.7 s") << false << 2700 << 2;
        QTest::newRow("anonymous, 0.4 s is sent as 0") << true << 400 << 0;
    }
    void sendsTheNote()
    {
        QFETCH(bool, anonymous);
        QFETCH(int, recordedMs);
        link(anonymous);
        send(std::chrono::milliseconds(recordedMs));
        // The share sent reaches 100 before the note (it only rises: recording_retry).
        QCOMPARE(m_states.at(m_states.indexOf(State::saving(u"Creating the note…"_s)) - 1),
            State::saving(u"Uploading… 100 %"_s, 100));
        m_states.removeIf([](const State &state) { return state.progress() >= 0; });
        QCOMPARE(m_states,
            (QList<State> { State::recording(), State::paused(), State::saving(u"Finishing the recording…"_s),
                State::saving(u"Uploading…"_s), State::saving(u"Creating the note…"_s), State::sent() }));
        const QJsonObject note = m_dev.notes().first().toObject();
        const QJsonObject body = note[u"body"_s].toObject();
        QCOMPARE(body[anonymous ? u"anonUser"_s : u"user"_s].toString(),
            m_dev.sessions().first()[u"accountId"_s].toString());
        QTEST(body[u"duration"_s].toInt(), "duration");
        QCOMPARE(body[u"startedAt"_s].toString(), u"2026-03-04T10:11:12.345Z"_s);
        QCOMPARE(m_dev.download(note[u"recordingKey"_s].toString()), someMix);
        QCoreApplication::processEvents(); // the ticker's last update does not undo the reset
        QCOMPARE(m_flow->elapsed() + m_flow->displayedElapsed(), 0.0);
    }

    // Each fault as the service is given it. What a retry can fix is tried again by itself
    // from the step that failed, up to four tries; a refused token is renewed once and
    // not tried again; anything else fails at once. A failed send keeps the recording, and
    // "Send again" resumes at the first step not done. One note, with the file as recorded.
    void sendsThroughFaults_data()
    {
        QTest::addColumn<QJsonObject>("fault");
        // The failure ("Sending failed: " alone: the platform's sentence follows), or the
        // status line before the last try of a send that gets through by itself.
        QTest::addColumn<QString>("outcome");
        QTest::addColumn<int>("tries"); // of a failed send, each logged unless the token was refused
        QTest::addColumn<int>("puts"); // at the service, "Send again" included
        const auto fault = [](const char *method, const QString &path, int status, QJsonObject more = {}) {
            more.insert(u"method"_s, QLatin1String(method));
            more.insert(u"path"_s, path);
            if (status)
                more.insert(u"status"_s, status);
            more.insert(u"body"_s, uR"({"error":"boom"})"_s);
            return more;
        };
        const QString expired = u"The session had expired. Try sending again."_s;
        const QJsonObject fourTimes { { u"count"_s, 4 } };
        // A refused token, from any call, the upload address's too: no log line, no retry.
        QTest::newRow("upload target 401") << fault("GET", target, 401) << expired << 1 << 1;
        QTest::newRow("upload 403") << fault("PUT", uploads, 403) << expired << 1 << 2;
        QTest::newRow("note 401") << fault("POST", notes, 401) << expired << 1 << 1;
        QTest::newRow("note 403") << fault("POST", notes, 403) << expired << 1 << 1;
        QTest::newRow("note 500 four times")
            << fault("POST", notes, 500, fourTimes) << u"Sending failed: boom (500)"_s << 4 << 1;
        // The service refused the key itself: "Send again" uploads again, to a new target.
        QTest::newRow("note 400") << fault("POST", notes, 400) << u"Sending failed: boom (400)"_s << 1 << 2;
        QTest::newRow("upload target 404")
            << fault("GET", target, 404) << u"Sending failed: boom (404)"_s << 1 << 1;
        QTest::newRow("upload 500 four times")
            << fault("PUT", uploads, 500, fourTimes) << u"Sending failed: upload_failed (500)"_s << 4 << 5;
        // Qt itself sends a PUT dropped on a fresh connection again once: fewer tries of ours.
        QTest::newRow("PUT dropped mid-body three times") << fault(
            "PUT", uploads, 0, { { u"afterBytes"_s, 65536 }, { u"drop"_s, true }, { u"count"_s, 3 } })
                                                          << u"Uploading… (try 2 of 4)"_s << 0 << 4;
        QTest::newRow("503, Retry-After: 2")
            << fault("GET", target, 503, { { u"headers"_s, QJsonObject { { u"Retry-After"_s, u"2"_s } } } })
            << u"Uploading… (try 2 of 4)"_s << 0 << 1;
        QTest::newRow("429") << fault("PUT", uploads, 429) << u"Uploading… (try 2 of 4)"_s << 0 << 2;
        // Ended by the 1 s inactivity deadline, long before the service would go on.
        QTest::newRow("stalled PUT") << fault(
            "PUT", uploads, 0, { { u"afterBytes"_s, 0 }, { u"delayMs"_s, 2500 }, { u"drop"_s, true } })
                                     << u"Uploading… (try 2 of 4)"_s << 0 << 2;
        QTest::newRow("note 500") << fault("POST", notes, 500) << u"Creating the note… (try 2 of 4)"_s << 0
                                  << 1;
    }
    void sendsThroughFaults()
    {
        QFETCH(QJsonObject, fault);
        QFETCH(QString, outcome);
        QFETCH(int, tries);
        link();
        const QString token = m_bench->store->session()->token;
        m_dev.addFault(fault);
        m_bench->deadlines.inactivity = 1s;
        LogCapture log;
        const QByteArray mix = someMix + QByteArray(1 << 20, 'm');
        send(2500ms, mix);
        const QString text = m_flow->state().text();
        if (tries > 0) {
            QVERIFY2(m_flow->state().is(State::Kind::failed) && text.startsWith(outcome), qPrintable(text));
            const bool refused = !text.startsWith(u"Sending failed: "_s);
            const QStringList lines = log.lines(u"recorder"_s);
            QCOMPARE(lines.size(), refused ? 0 : tries);
            QVERIFY(refused || lines.last() == u"send: "_s + text.mid(16));
            QCOMPARE(requestsTo(refreshes), int(refused));
            QCOMPARE(m_bench->store->session()->token != token, refused); // renewed
            QVERIFY(m_flow->canRetrySend());
            m_flow->retrySend();
            finish();
        } else {
            QVERIFY2(m_states.contains(State::saving(outcome)), qPrintable(text));
            QCOMPARE(m_bench->clock->sleepsOf(2s), int(fault.contains(u"headers"_s))); // as Retry-After asked
        }
        QCOMPARE(m_flow->state(), State::sent());
        QFETCH(int, puts);
        QTRY_COMPARE(requestsTo(uploads.chopped(1)), puts); // a stalled PUT is logged when it ends
        QCOMPARE(m_dev.notes().size(), 1);
        QCOMPARE(m_dev.download(m_dev.notes().first()[u"recordingKey"_s].toString()), mix);
    }

    // Offline, nothing is asked of the service; once the network is back the send goes on by itself.
    void waitsForTheNetwork()
    {
        link();
        m_bench->networkStatus->isOffline = true;
        m_flow = m_bench->makeFlow(m_dev.baseUrl());
        m_flow->record();
        m_flow->save();
        QTRY_COMPARE(m_flow->state(), State::saving(u"Waiting for the network…"_s));
        m_bench->clock->advance(10min);
        QCOMPARE(m_dev.requests().size(), 0);
        m_bench->networkStatus->isOffline = false;
        QTRY_COMPARE((m_bench->clock->advance(1s), m_flow->state()), State::sent());
    }

    // A failed send is offered again by a new flow (the next start), after a recording an
    // earlier run left without a sidecar; each is sent once, oldest first, the one the user
    // saved without asking again. One whose note exists (the process died before removing
    // it) is deleted, not sent.
    void unsentRecordingsAreOfferedAgain()
    {
        link();
        m_dev.addFault({ { u"path"_s, target }, { u"status"_s, 404 }, { u"count"_s, 1 } });
        send(150s);
        QVERIFY(m_flow->canRetrySend());
        m_flow.reset();
        for (const char *stamp : { "1700000000", "1600000000" }) {
            QFile older(m_bench->folder() + u"/%1_mixed.m4a"_s.arg(QLatin1String(stamp)));
            QVERIFY(older.open(QIODevice::WriteOnly) && older.write(someMix) > 0 && older.flush());
        }
        RecordingSidecar { u"1600000000"_s, QDateTime::currentDateTimeUtc(), 60,
            RecordingSidecar::Stage::noted, {}, true }
            .keepFor(m_bench->folder() + u"/1600000000_mixed.m4a"_s);
        m_flow = m_bench->makeFlow(m_dev.baseUrl());
        m_flow->offerUnsent();
        QVERIFY(m_flow->canRetrySend() && m_flow->state().text().endsWith(u"(1 min) was not sent."_s));
        m_flow->retrySend();
        QTRY_COMPARE(m_dev.notes().size(), 2); // the saved one next, by itself
        QTRY_COMPARE(m_flow->state(), State::sent());
        const QJsonArray sent = m_dev.notes();
        QCOMPARE(sent[0][u"body"_s][u"duration"_s].toInt() + sent[1][u"body"_s][u"duration"_s].toInt(), 150);
        QCOMPARE(QDir(m_bench->folder()).entryList(QDir::Files), QStringList());
    }
};

QTEST_GUILESS_MAIN(TestRecordingSend)
#include "tst_recording_send.moc"
