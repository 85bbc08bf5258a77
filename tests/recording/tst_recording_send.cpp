// The send pipeline, from save() and "Send again", against the local note service
// with the session in a real GNOME Keyring. The capture is the stand-in, which leaves
// a small prepared M4A as the mix; the clock is moved by hand.
#include "RecordingTestSupport.h"

#include "account/Keychain.h"
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
    // Saves a recording of `recorded` on a new flow and waits for the outcome.
    void send(std::chrono::milliseconds recorded = 2500ms)
    {
        m_flow = m_bench->makeFlow(m_dev.baseUrl());
        connect(m_flow.get(), &RecorderFlow::stateChanged, this, [this] { m_states << m_flow->state(); });
        m_flow->record();
        m_bench->clock->advanceInTicks(recorded);
        m_flow->pause();
        m_flow->save();
        QTRY_VERIFY_WITH_TIMEOUT(!m_flow->state().is(State::Kind::saving), 10000);
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

    void failuresKeepTheRecordingForANewTarget_data()
    {
        QTest::addColumn<QJsonObject>("fault");
        QTest::addColumn<QString>("message"); // "Sending failed: " alone: the platform's sentence follows
        const auto fault = [](const char *method, const QString &path, int status) {
            return QJsonObject { { u"method"_s, QLatin1String(method) }, { u"path"_s, path },
                { u"status"_s, status }, { u"body"_s, uR"({"error":"boom"})"_s } };
        };
        const QString expired = u"The session had expired. Try sending again."_s;
        // A refused token, from any call: the session is renewed once, and nothing is logged.
        QTest::newRow("upload target 401") << fault("GET", target, 401) << expired;
        // The upload address is not the service's API, but is treated alike.
        QTest::newRow("upload 403") << fault("PUT", uploads, 403) << expired;
        QTest::newRow("note 401") << fault("POST", notes, 401) << expired;
        QTest::newRow("note 403") << fault("POST", notes, 403) << expired;
        // Anything else is logged, with no refresh.
        QTest::newRow("note 500") << fault("POST", notes, 500) << u"Sending failed: boom (500)"_s;
        QTest::newRow("upload target 404") << fault("GET", target, 404) << u"Sending failed: boom (404)"_s;
        QTest::newRow("upload 500") << fault("PUT", uploads, 500) << u"Sending failed: upload_failed (500)"_s;
        // Qt sends a request again once when its connection closes before any answer.
        QTest::newRow("dropped connection") << QJsonObject { { u"path"_s, target }, { u"drop"_s, true },
            { u"count"_s, 2 } } << u"Sending failed: "_s;
    }
    void failuresKeepTheRecordingForANewTarget()
    {
        QFETCH(QJsonObject, fault);
        QFETCH(QString, message);
        link();
        const QString token = m_bench->store->session()->token;
        m_dev.addFault(fault);
        LogCapture log;
        send();
        const QString text = m_flow->state().text();
        QVERIFY2(m_flow->state().is(State::Kind::failed) && text.startsWith(message), qPrintable(text));
        const bool refused = !text.startsWith(u"Sending failed: "_s);
        QCOMPARE(
            log.lines(u"recorder"_s), refused ? QStringList() : QStringList { u"send: "_s + text.mid(16) });
        QCOMPARE(requestsTo(refreshes), int(refused));
        QCOMPARE(m_bench->store->session()->token != token, refused); // renewed
        QVERIFY(m_flow->canRetrySend());
        // Sending again starts over with a new upload target and sends the same file.
        const int targets = requestsTo(target);
        m_flow->retrySend();
        QTRY_COMPARE(m_flow->state(), State::sent());
        QCOMPARE(requestsTo(target), targets + 1);
        QCOMPARE(m_dev.download(m_dev.notes().first()[u"recordingKey"_s].toString()), someMix);
    }

    // A failed send is offered again by a new flow (the next start), after a recording an
    // earlier run left without a sidecar; each is sent once, oldest first.
    void unsentRecordingsAreOfferedAgain()
    {
        link();
        m_dev.addFault({ { u"path"_s, target }, { u"status"_s, 500 }, { u"count"_s, 1 } });
        send(150s);
        QVERIFY(m_flow->canRetrySend());
        m_flow.reset();
        QFile older(m_bench->folder() + u"/1700000000_mixed.m4a"_s);
        QVERIFY(older.open(QIODevice::WriteOnly) && older.write(someMix) > 0 && older.flush());
        m_flow = m_bench->makeFlow(m_dev.baseUrl());
        m_flow->offerUnsent();
        QVERIFY(m_flow->canRetrySend() && m_flow->state().text().endsWith(u"(1 min) was not sent."_s));
        m_flow->retrySend();
        QTRY_VERIFY(m_flow->canRetrySend()); // the next one, offered once the first is sent
        QVERIFY(m_flow->state().text().endsWith(u"(3 min) was not sent."_s));
        QCOMPARE(m_flow->displayedElapsed(), 150.0);
        m_flow->retrySend();
        QTRY_COMPARE(m_flow->state(), State::sent());
        const QJsonArray sent = m_dev.notes();
        QCOMPARE(sent.size(), 2);
        QCOMPARE(sent[0][u"body"_s][u"duration"_s].toInt() + sent[1][u"body"_s][u"duration"_s].toInt(), 150);
        QCOMPARE(QDir(m_bench->folder()).entryList(QDir::Files), QStringList());
    }
};

QTEST_GUILESS_MAIN(TestRecordingSend)
#include "tst_recording_send.moc"
