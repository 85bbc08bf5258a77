// The save-and-send pipeline against the local note service, with the session in a
// real GNOME Keyring. The capture is the stand-in, which leaves a small prepared M4A
// as the mix, so no audio is needed; the clock is moved by hand.
#include "RecordingTestSupport.h"

#include "account/JwtClaims.h"
#include "account/Keychain.h"
#include "account/SessionStore.h"
#include "recording/RecorderFlow.h"
#include "support/DevService.h"
#include "support/LogCapture.h"
#include "ui/PlatformWording.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QTemporaryDir>
#include <QTest>

using namespace RecordingTest;
using State = RecorderFlow::State;

namespace {
const QString expired = QStringLiteral("The session had expired. Try sending again.");
const QString notLinked = QStringLiteral("This Mac is not linked to a Selvaro account any more.");
const QString empty = QStringLiteral("The recording is empty. Was anything playing or said?");
const QString notesPath = QStringLiteral("/api/collections/notes/records");
const QString targetPath = QStringLiteral("/upload-recording-url");

bool isFinal(const State &state)
{
    return state.is(State::Kind::sent) || state.is(State::Kind::failed);
}
} // namespace

class TestSendPipeline : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void sendsTheNote_data();
    void sendsTheNote();
    void refusedTokenRefreshesTheSessionOnce_data();
    void refusedTokenRefreshesTheSessionOnce();
    void expiredTokenIsRenewedAndTheRetrySends();
    void otherFailuresKeepTheRecordingForARetry_data();
    void otherFailuresKeepTheRecordingForARetry();
    void droppedConnection();
    void sessionDeletedAtTheServiceUnlinks();
    void withoutAUsableSession_data();
    void withoutAUsableSession();
    void emptyMixIsNotRetryable_data();
    void emptyMixIsNotRetryable();
    void discardWhileSendingStillSends();
    void destroyingTheFlowWhileUploadingIsSafe();

private:
    std::unique_ptr<RecorderFlow> makeFlow();
    // A session the service knows, saved through the store into the keyring.
    StoredSession link(bool anonymous = false);
    // record, `duration` on the clock, pause, save; returns once the send has ended.
    void recordAndSend(RecorderFlow &flow, std::chrono::milliseconds duration = 2500ms);
    [[nodiscard]] int requestsTo(const QString &method, const QString &path);
    void addFault(const QString &method, const QString &path, QJsonObject fault);

    DevService m_dev;
    QNetworkAccessManager m_network;
    std::unique_ptr<QTemporaryDir> m_dir;
    std::shared_ptr<ManualClock> m_clock;
    StandInFactory m_captures;
    std::unique_ptr<SessionStore> m_store;
    QList<State> m_states;
};

void TestSendPipeline::initTestCase()
{
    QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice");
}

void TestSendPipeline::init()
{
    m_dev.reset();
    QCoro::waitFor(Keychain::remove(QLatin1String(Keychain::sessionAccount)));
    m_dir = std::make_unique<QTemporaryDir>();
    m_clock = std::make_shared<ManualClock>();
    m_captures = StandInFactory();
    m_store = std::make_unique<SessionStore>();
    QCoro::waitFor(m_store->waitUntilLoaded());
    m_states.clear();
}

void TestSendPipeline::cleanup()
{
    m_store.reset();
}

std::unique_ptr<RecorderFlow> TestSendPipeline::makeFlow()
{
    RecorderFlow::Platform platform;
    platform.makeCapture = m_captures.factory();
    platform.clock = m_clock;
    platform.recordingsFolder = m_dir->filePath(QStringLiteral("Recordings"));
    auto flow = std::make_unique<RecorderFlow>(SelvaroAPI(&m_network, m_dev.baseUrl()), *m_store, std::move(platform));
    connect(flow.get(), &RecorderFlow::stateChanged, this, [this, flow = flow.get()] { m_states << flow->state(); });
    return flow;
}

StoredSession TestSendPipeline::link(bool anonymous)
{
    const auto payload = SessionPayload::fromJson(m_dev.createSession(anonymous));
    if (!payload || QCoro::waitFor(m_store->save(*payload)))
        return {};
    return *m_store->session();
}

void TestSendPipeline::recordAndSend(RecorderFlow &flow, std::chrono::milliseconds duration)
{
    flow.record();
    m_clock->advanceInTicks(duration);
    flow.pause();
    flow.save();
    QTRY_VERIFY_WITH_TIMEOUT(isFinal(flow.state()), 10000);
}

int TestSendPipeline::requestsTo(const QString &method, const QString &path)
{
    int count = 0;
    for (const QJsonValue &request : m_dev.requests()) {
        const QJsonObject object = request.toObject();
        const QString requestPath = object.value(QStringLiteral("path")).toString();
        const bool matches = path.endsWith(QLatin1Char('*')) ? requestPath.startsWith(path.chopped(1))
                                                             : requestPath == path;
        if (matches && object.value(QStringLiteral("method")).toString() == method)
            ++count;
    }
    return count;
}

void TestSendPipeline::addFault(const QString &method, const QString &path, QJsonObject fault)
{
    fault.insert(QStringLiteral("method"), method);
    fault.insert(QStringLiteral("path"), path);
    m_dev.addFault(fault);
}

void TestSendPipeline::sendsTheNote_data()
{
    QTest::addColumn<bool>("anonymous");
    QTest::addColumn<int>("recordedMs");
    QTest::addColumn<int>("duration");
    QTest::newRow("account, 2.7 s") << false << 2700 << 2;
    QTest::newRow("anonymous, 0.4 s is sent as 0") << true << 400 << 0;
    QTest::newRow("59.9 s is sent as 59") << false << 59900 << 59;
}

void TestSendPipeline::sendsTheNote()
{
    QFETCH(bool, anonymous);
    QFETCH(int, recordedMs);
    QFETCH(int, duration);
    const StoredSession session = link(anonymous);
    QVERIFY(!session.token.isEmpty());
    auto flow = makeFlow();

    recordAndSend(*flow, std::chrono::milliseconds(recordedMs));
    QCOMPARE(flow->state(), State::sent());
    QCOMPARE(m_states,
             (QList<State>{State::recording(), State::paused(), State::saving(QStringLiteral("Finishing the recording…")),
                           State::saving(QStringLiteral("Uploading…")),
                           State::saving(QStringLiteral("Creating the note…")), State::sent()}));

    const QJsonArray notes = m_dev.notes();
    QCOMPARE(notes.size(), 1);
    const QJsonObject body = notes.first().toObject().value(QStringLiteral("body")).toObject();
    const QString accountMember = anonymous ? QStringLiteral("anonUser") : QStringLiteral("user");
    QCOMPARE(body.value(accountMember).toString(), JwtClaims::subject(session.token).value_or(QString()));
    QCOMPARE(body.value(accountMember).toString(),
             m_dev.sessions().first().toObject().value(QStringLiteral("accountId")).toString());
    QCOMPARE(body.value(QStringLiteral("duration")).toInteger(), duration);
    QCOMPARE(body.value(QStringLiteral("startedAt")).toString(), QStringLiteral("2026-03-04T10:11:12.345Z"));
    const QString key = notes.first().toObject().value(QStringLiteral("recordingKey")).toString();
    QCOMPARE(m_dev.download(key), m_captures.last().mixedBytes);

    QVERIFY(!QFileInfo::exists(m_captures.last().finalMixedPath()));
    QCOMPARE(flow->elapsed(), 0.0);
    QCOMPARE(flow->displayedElapsed(), 0.0);
    QCoreApplication::processEvents(); // the ticker's last update does not undo it
    QCOMPARE(flow->displayedElapsed(), 0.0);
    QVERIFY(!flow->canRetrySend());
    QCOMPARE(requestsTo(QStringLiteral("POST"), QStringLiteral("/sessions/*")), 0);

    // From sent, the record button starts afresh.
    flow->record();
    QCOMPARE(flow->state(), State::recording());
    QCOMPARE(m_captures.made.size(), 2);
}

void TestSendPipeline::refusedTokenRefreshesTheSessionOnce_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("status");
    QTest::newRow("upload target 401") << "GET" << targetPath << 401;
    QTest::newRow("upload target 403") << "GET" << targetPath << 403;
    // The upload address is not the service's API, but is treated alike.
    QTest::newRow("upload 403") << "PUT" << "/uploads/*" << 403;
    QTest::newRow("upload 401") << "PUT" << "/uploads/*" << 401;
    QTest::newRow("note 401") << "POST" << notesPath << 401;
    QTest::newRow("note 403") << "POST" << notesPath << 403;
}

void TestSendPipeline::refusedTokenRefreshesTheSessionOnce()
{
    QFETCH(QString, method);
    QFETCH(QString, path);
    QFETCH(int, status);
    const StoredSession before = link();
    addFault(method, path, {{QStringLiteral("status"), status}, {QStringLiteral("body"), QStringLiteral(R"({"error":"invalid_token"})")}});
    auto flow = makeFlow();
    LogCapture log;

    recordAndSend(*flow);
    QCOMPARE(flow->state(), State::failed(expired));
    QVERIFY(flow->canRetrySend());
    QVERIFY(QFileInfo::exists(m_captures.last().finalMixedPath()));
    QCOMPARE(requestsTo(QStringLiteral("POST"), QStringLiteral("/sessions/*")), 1);
    QVERIFY(m_store->session());
    QVERIFY(m_store->session()->token != before.token); // renewed
    QCOMPARE(log.lines(QStringLiteral("recorder")), QStringList()); // not logged

    flow->retrySend();
    QTRY_VERIFY_WITH_TIMEOUT(isFinal(flow->state()), 10000);
    QCOMPARE(flow->state(), State::sent());
    QCOMPARE(m_dev.notes().size(), 1);
    QCOMPARE(m_captures.last().calls.count(QStringLiteral("stop")), 1);
}

// A token past its expiry, as after a long time offline: the service refuses it, the
// refresh renews it, and the retry goes through with the new one.
void TestSendPipeline::expiredTokenIsRenewedAndTheRetrySends()
{
    m_dev.setConfig({{QStringLiteral("tokenTtl"), -60}});
    link();
    m_dev.setConfig({{QStringLiteral("tokenTtl"), 3600}});
    auto flow = makeFlow();

    recordAndSend(*flow);
    QCOMPARE(flow->state(), State::failed(expired));
    QCOMPARE(m_dev.notes().size(), 0);
    flow->retrySend();
    QTRY_VERIFY_WITH_TIMEOUT(isFinal(flow->state()), 10000);
    QCOMPARE(flow->state(), State::sent());
    QCOMPARE(m_dev.notes().size(), 1);
    // The renewed session is what the keyring now holds.
    const std::optional<QByteArray> item = QCoro::waitFor(Keychain::read(QLatin1String(Keychain::sessionAccount)));
    QVERIFY(item);
    QCOMPARE(StoredSession::fromJson(*item), m_store->session());
}

void TestSendPipeline::otherFailuresKeepTheRecordingForARetry_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("message");
    QTest::newRow("note 500") << "POST" << notesPath << 500 << "Sending failed: boom (500)";
    QTest::newRow("note 400") << "POST" << notesPath << 400 << "Sending failed: boom (400)";
    QTest::newRow("upload target 404") << "GET" << targetPath << 404 << "Sending failed: boom (404)";
    QTest::newRow("upload 500") << "PUT" << "/uploads/*" << 500 << "Sending failed: upload_failed (500)";
}

void TestSendPipeline::otherFailuresKeepTheRecordingForARetry()
{
    QFETCH(QString, method);
    QFETCH(QString, path);
    QFETCH(int, status);
    QFETCH(QString, message);
    link();
    addFault(method, path, {{QStringLiteral("status"), status}, {QStringLiteral("body"), QStringLiteral(R"({"error":"boom"})")}});
    auto flow = makeFlow();
    LogCapture log;

    recordAndSend(*flow);
    QCOMPARE(flow->state(), State::failed(message));
    QCOMPARE(log.lines(QStringLiteral("recorder")), QStringList{QStringLiteral("send: ") + message.mid(16)});
    QVERIFY(flow->canRetrySend());
    QVERIFY(QFileInfo::exists(m_captures.last().finalMixedPath()));
    QCOMPARE(requestsTo(QStringLiteral("POST"), QStringLiteral("/sessions/*")), 0);
    QCOMPARE(m_dev.notes().size(), 0);

    // The retry starts over with a new upload target and sends the same file.
    flow->retrySend();
    QTRY_VERIFY_WITH_TIMEOUT(isFinal(flow->state()), 10000);
    QCOMPARE(flow->state(), State::sent());
    QCOMPARE(requestsTo(QStringLiteral("GET"), targetPath), 2);
    const QJsonArray notes = m_dev.notes();
    QCOMPARE(notes.size(), 1);
    QCOMPARE(m_dev.download(notes.first().toObject().value(QStringLiteral("recordingKey")).toString()),
             m_captures.last().mixedBytes);
}

void TestSendPipeline::droppedConnection()
{
    link();
    // Qt sends a request again once when its connection closes before any answer.
    addFault(QStringLiteral("GET"), targetPath, {{QStringLiteral("drop"), true}, {QStringLiteral("count"), 2}});
    auto flow = makeFlow();
    LogCapture log;

    recordAndSend(*flow);
    const QString text = flow->state().text();
    QVERIFY2(flow->state().is(State::Kind::failed) && text.startsWith(QStringLiteral("Sending failed: ")),
             qPrintable(flow->state().toString()));
    const QString sentence = text.mid(16);
    QVERIFY(!sentence.isEmpty());
    QCOMPARE(log.lines(QStringLiteral("recorder")), QStringList{QStringLiteral("send: ") + sentence});
    QVERIFY(flow->canRetrySend());

    flow->retrySend();
    QTRY_VERIFY_WITH_TIMEOUT(isFinal(flow->state()), 10000);
    QCOMPARE(flow->state(), State::sent());
}

void TestSendPipeline::sessionDeletedAtTheServiceUnlinks()
{
    const StoredSession session = link();
    QCOMPARE(m_dev.deleteSession(session.id), 200);
    auto flow = makeFlow();

    recordAndSend(*flow);
    QCOMPARE(flow->state(), State::failed(expired));
    QCOMPARE(m_store->session(), std::nullopt);
    QCOMPARE(QCoro::waitFor(Keychain::read(QLatin1String(Keychain::sessionAccount))), std::nullopt);
    // The recording waits for the computer to be linked again.
    QVERIFY(flow->canRetrySend());
    flow->retrySend();
    QCOMPARE(flow->state(), State::failed(notLinked));
    QVERIFY(flow->canRetrySend());
}

void TestSendPipeline::withoutAUsableSession_data()
{
    QTest::addColumn<bool>("linked");
    QTest::addColumn<bool>("platformWording");
    QTest::addColumn<QString>("message");
    QTest::newRow("no session") << false << false << notLinked;
    QTest::newRow("token without an id") << true << false << notLinked;
    QTest::newRow("worded for this platform")
        << false << true << QStringLiteral("This computer is not linked to a Selvaro account any more.");
}

void TestSendPipeline::withoutAUsableSession()
{
    QFETCH(bool, linked);
    QFETCH(bool, platformWording);
    QFETCH(QString, message);
    if (linked)
        m_store->setSession(StoredSession{QStringLiteral("s"), QStringLiteral("p"), QStringLiteral("a.b.c"), false});
    PlatformWording wording;
    if (platformWording)
        QCoreApplication::installTranslator(&wording);
    auto flow = makeFlow();

    recordAndSend(*flow);
    QCoreApplication::removeTranslator(&wording);
    QCOMPARE(flow->state(), State::failed(message));
    QVERIFY(flow->canRetrySend());
    QCOMPARE(m_dev.requests(), QJsonArray());
}

void TestSendPipeline::emptyMixIsNotRetryable_data()
{
    QTest::addColumn<QByteArray>("mix");
    QTest::newRow("no file") << QByteArray();
    QTest::newRow("0 bytes") << QByteArray("");
}

void TestSendPipeline::emptyMixIsNotRetryable()
{
    QFETCH(QByteArray, mix);
    link();
    m_captures.configure = [mix](StandInCapture &capture) { capture.mixedBytes = mix; };
    auto flow = makeFlow();

    recordAndSend(*flow);
    QCOMPARE(flow->state(), State::failed(empty));
    QVERIFY(!flow->canRetrySend());
    QCOMPARE(QFileInfo::exists(m_captures.last().finalMixedPath()), !mix.isNull()); // left as it is
    QCOMPARE(flow->elapsed(), 2.5);
    QCOMPARE(m_dev.requests(), QJsonArray());
}

void TestSendPipeline::discardWhileSendingStillSends()
{
    link();
    addFault(QStringLiteral("GET"), targetPath, {{QStringLiteral("delayMs"), 300}});
    auto flow = makeFlow();
    flow->record();
    m_clock->advanceInTicks(1s);
    flow->save();
    QCOMPARE(flow->state(), State::saving(QStringLiteral("Uploading…")));
    flow->discard();
    QCOMPARE(flow->state(), State::idle());

    QTRY_COMPARE_WITH_TIMEOUT(flow->state(), State::sent(), 10000);
    QCOMPARE(m_dev.notes().size(), 1);
    QVERIFY(!QFileInfo::exists(m_captures.last().finalMixedPath()));
}

void TestSendPipeline::destroyingTheFlowWhileUploadingIsSafe()
{
    link();
    addFault(QStringLiteral("PUT"), QStringLiteral("/uploads/*"), {{QStringLiteral("delayMs"), 300}});
    auto flow = makeFlow();
    flow->record();
    m_clock->advanceInTicks(1s);
    flow->save();
    QTRY_COMPARE(requestsTo(QStringLiteral("GET"), targetPath), 1);
    flow.reset();
    QTest::qWait(800);
    // The send stopped at its next step: no note, and the file is still there.
    QCOMPARE(m_dev.notes().size(), 0);
    QVERIFY(QFileInfo::exists(m_captures.last().finalMixedPath()));
}

QTEST_GUILESS_MAIN(TestSendPipeline)
#include "tst_sendpipeline.moc"
