// The send pipeline, from save() and "Send again", against the local note service
// with the session in a real GNOME Keyring. The capture is the stand-in, which leaves
// a small prepared M4A as the mix; the clock is moved by hand.
#include "RecordingTestSupport.h"

#include "account/JwtClaims.h"
#include "account/Keychain.h"
#include "support/DevService.h"
#include "support/LogCapture.h"
#include "ui/PlatformWording.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonObject>
#include <QTest>

using namespace RecordingTest;

namespace {
const QString expired = QStringLiteral("The session had expired. Try sending again.");
const QString notesPath = QStringLiteral("/api/collections/notes/records");
const QString targetPath = QStringLiteral("/upload-recording-url");
const QString uploads = QStringLiteral("/uploads/*");

bool isFinal(const State &state)
{
    return state.is(State::Kind::sent) || state.is(State::Kind::failed);
}
} // namespace

class TestRecordingSend : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice"); }
    void init();
    void sendsTheNote_data();
    void sendsTheNote();
    void refusedTokenRefreshesTheSessionOnce_data();
    void refusedTokenRefreshesTheSessionOnce();
    void otherFailuresKeepTheRecordingForANewTarget_data();
    void otherFailuresKeepTheRecordingForANewTarget();
    void nothingToSend_data();
    void nothingToSend();
    void destroyingTheFlowWhileUploadingIsSafe();

private:
    // A session the service knows, saved through the store into the keyring.
    StoredSession link(bool anonymous = false);
    std::unique_ptr<RecorderFlow> makeFlow();
    void sendAndWait(RecorderFlow &flow, bool again = false);
    [[nodiscard]] int requestsTo(const QString &method, const QString &path);
    void addFault(const QString &method, const QString &path, QJsonObject fault);

    DevService m_dev;
    std::unique_ptr<StandIns> m_bench;
    QList<State> m_states;
};

void TestRecordingSend::init()
{
    m_dev.reset();
    QCoro::waitFor(Keychain::remove(QLatin1String(Keychain::sessionAccount)));
    m_bench = std::make_unique<StandIns>(SessionStore::Load::fromKeychain);
    QCoro::waitFor(m_bench->store->waitUntilLoaded());
    m_states.clear();
}

StoredSession TestRecordingSend::link(bool anonymous)
{
    const auto payload = SessionPayload::fromJson(m_dev.createSession(anonymous));
    if (!payload || QCoro::waitFor(m_bench->store->save(*payload)))
        return {};
    return *m_bench->store->session();
}

std::unique_ptr<RecorderFlow> TestRecordingSend::makeFlow()
{
    auto flow = m_bench->makeFlow(m_dev.baseUrl());
    connect(flow.get(), &RecorderFlow::stateChanged, this, [this, flow = flow.get()] { m_states << flow->state(); });
    return flow;
}

void TestRecordingSend::sendAndWait(RecorderFlow &flow, bool again)
{
    if (again)
        flow.retrySend();
    else
        m_bench->recordAndSave(flow, 2500ms);
    QTRY_VERIFY_WITH_TIMEOUT(isFinal(flow.state()), 10000);
}

int TestRecordingSend::requestsTo(const QString &method, const QString &path)
{
    int count = 0;
    for (const QJsonValue &request : m_dev.requests()) {
        const QString requestPath = request[QStringLiteral("path")].toString();
        const bool matches = path.endsWith(QLatin1Char('*')) ? requestPath.startsWith(path.chopped(1))
                                                             : requestPath == path;
        count += matches && request[QStringLiteral("method")].toString() == method;
    }
    return count;
}

void TestRecordingSend::addFault(const QString &method, const QString &path, QJsonObject fault)
{
    fault.insert(QStringLiteral("method"), method);
    fault.insert(QStringLiteral("path"), path);
    m_dev.addFault(fault);
}

void TestRecordingSend::sendsTheNote_data()
{
    QTest::addColumn<bool>("anonymous");
    QTest::addColumn<int>("recordedMs");
    QTest::addColumn<int>("duration");
    QTest::newRow("account, 2.7 s") << false << 2700 << 2;
    QTest::newRow("anonymous, 0.4 s is sent as 0") << true << 400 << 0;
    QTest::newRow("59.9 s is sent as 59") << false << 59900 << 59;
}

void TestRecordingSend::sendsTheNote()
{
    QFETCH(bool, anonymous);
    QFETCH(int, recordedMs);
    const StoredSession session = link(anonymous);
    auto flow = makeFlow();
    m_bench->recordAndSave(*flow, std::chrono::milliseconds(recordedMs));
    QTRY_VERIFY_WITH_TIMEOUT(isFinal(flow->state()), 10000);
    QCOMPARE(m_states, (QList<State>{State::recording(), State::paused(),
                                     State::saving(QStringLiteral("Finishing the recording…")),
                                     State::saving(QStringLiteral("Uploading…")),
                                     State::saving(QStringLiteral("Creating the note…")), State::sent()}));

    const QJsonArray notes = m_dev.notes();
    QCOMPARE(notes.size(), 1);
    const QJsonObject body = notes.first()[QStringLiteral("body")].toObject();
    const QString accountId = m_dev.sessions().first()[QStringLiteral("accountId")].toString();
    QCOMPARE(body.value(anonymous ? QStringLiteral("anonUser") : QStringLiteral("user")).toString(), accountId);
    QCOMPARE(JwtClaims::subject(session.token), accountId);
    QTEST(body.value(QStringLiteral("duration")).toInt(), "duration");
    QCOMPARE(body.value(QStringLiteral("startedAt")).toString(), QStringLiteral("2026-03-04T10:11:12.345Z"));
    QCOMPARE(m_dev.download(notes.first()[QStringLiteral("recordingKey")].toString()), m_bench->last().mixedBytes);

    QCOMPARE(QDir(m_bench->folder()).entryList(QDir::Files), QStringList());
    QCoreApplication::processEvents(); // the ticker's last update does not undo the reset
    QCOMPARE(flow->elapsed() + flow->displayedElapsed(), 0.0);
    QVERIFY(!flow->canRetrySend());
}

void TestRecordingSend::refusedTokenRefreshesTheSessionOnce_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("status");
    QTest::newRow("upload target 401") << "GET" << targetPath << 401;
    QTest::newRow("upload target 403") << "GET" << targetPath << 403;
    // The upload address is not the service's API, but is treated alike.
    QTest::newRow("upload 401") << "PUT" << uploads << 401;
    QTest::newRow("upload 403") << "PUT" << uploads << 403;
    QTest::newRow("note 401") << "POST" << notesPath << 401;
    QTest::newRow("note 403") << "POST" << notesPath << 403;
}

void TestRecordingSend::refusedTokenRefreshesTheSessionOnce()
{
    QFETCH(QString, method);
    QFETCH(QString, path);
    QFETCH(int, status);
    const StoredSession before = link();
    addFault(method, path, {{QStringLiteral("status"), status}});
    auto flow = makeFlow();
    LogCapture log;
    sendAndWait(*flow);
    QCOMPARE(flow->state(), State::failed(expired));
    QVERIFY(flow->canRetrySend());
    QCOMPARE(requestsTo(QStringLiteral("POST"), QStringLiteral("/sessions/*")), 1);
    QVERIFY(m_bench->store->session()->token != before.token); // renewed
    QCOMPARE(log.lines(QStringLiteral("recorder")), QStringList()); // not logged

    sendAndWait(*flow, true);
    QCOMPARE(flow->state(), State::sent());
    QCOMPARE(m_dev.notes().size(), 1);
}

void TestRecordingSend::otherFailuresKeepTheRecordingForANewTarget_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QJsonObject>("fault");
    QTest::addColumn<QString>("message"); // "" for the platform's own sentence
    const auto status = [](int code) { return QJsonObject{{QStringLiteral("status"), code}}; };
    QTest::newRow("note 500") << "POST" << notesPath << status(500) << "Sending failed: boom (500)";
    QTest::newRow("upload target 404") << "GET" << targetPath << status(404) << "Sending failed: boom (404)";
    QTest::newRow("upload 500") << "PUT" << uploads << status(500) << "Sending failed: upload_failed (500)";
    // Qt sends a request again once when its connection closes before any answer.
    QTest::newRow("dropped connection") << "GET" << targetPath
                                        << QJsonObject{{QStringLiteral("drop"), true}, {QStringLiteral("count"), 2}}
                                        << QString();
}

void TestRecordingSend::otherFailuresKeepTheRecordingForANewTarget()
{
    QFETCH(QString, method);
    QFETCH(QString, path);
    QFETCH(QJsonObject, fault);
    QFETCH(QString, message);
    link();
    fault.insert(QStringLiteral("body"), QStringLiteral(R"({"error":"boom"})"));
    addFault(method, path, fault);
    auto flow = makeFlow();
    LogCapture log;
    sendAndWait(*flow);
    const QString text = flow->state().text();
    QVERIFY2(flow->state().is(State::Kind::failed) && text.startsWith(QStringLiteral("Sending failed: ")),
             qPrintable(text));
    if (!message.isEmpty())
        QCOMPARE(text, message);
    QCOMPARE(log.lines(QStringLiteral("recorder")), QStringList{QStringLiteral("send: ") + text.mid(16)});
    QVERIFY(flow->canRetrySend());
    QCOMPARE(requestsTo(QStringLiteral("POST"), QStringLiteral("/sessions/*")), 0);

    // Sending again starts over with a new upload target and sends the same file.
    const int targets = requestsTo(QStringLiteral("GET"), targetPath);
    sendAndWait(*flow, true);
    QCOMPARE(flow->state(), State::sent());
    QCOMPARE(requestsTo(QStringLiteral("GET"), targetPath), targets + 1);
    QCOMPARE(m_dev.download(m_dev.notes().first()[QStringLiteral("recordingKey")].toString()),
             m_bench->last().mixedBytes);
    QCOMPARE(m_bench->last().calls.count(QStringLiteral("stop")), 1); // not mixed again
}

void TestRecordingSend::nothingToSend_data()
{
    QTest::addColumn<QString>("token"); // "" for no session
    QTest::addColumn<QByteArray>("mix");
    QTest::addColumn<bool>("wording");
    QTest::addColumn<QString>("message");
    QTest::addColumn<bool>("canRetrySend");
    const QString notLinked = QStringLiteral("This Mac is not linked to a Selvaro account any more.");
    const QString empty = QStringLiteral("The recording is empty. Was anything playing or said?");
    const QByteArray mix = StandInCapture(QString()).mixedBytes;
    // Kept: it can be sent once the computer is linked again.
    QTest::newRow("no session") << QString() << mix << false << notLinked << true;
    QTest::newRow("token without an id") << "a.b.c" << mix << false << notLinked << true;
    QTest::newRow("worded for this platform")
        << QString() << mix << true << "This computer is not linked to a Selvaro account any more." << true;
    // Nothing to send, now or later; a file there is left as it is.
    QTest::newRow("no file") << "hdr.eyJpZCI6ImFjYzEifQ.sig" << QByteArray() << false << empty << false;
    QTest::newRow("0 bytes") << "hdr.eyJpZCI6ImFjYzEifQ.sig" << QByteArray("") << false << empty << false;
}

void TestRecordingSend::nothingToSend()
{
    QFETCH(QString, token);
    QFETCH(QByteArray, mix);
    QFETCH(bool, wording);
    if (!token.isEmpty())
        m_bench->store->setSession(StoredSession{QStringLiteral("s"), QStringLiteral("p"), token, false});
    m_bench->nextMix = mix;
    PlatformWording platformWording;
    if (wording)
        QCoreApplication::installTranslator(&platformWording);
    auto flow = makeFlow();
    sendAndWait(*flow);
    QTEST(flow->state().text(), "message");
    QTEST(flow->canRetrySend(), "canRetrySend");
    QCOMPARE(flow->elapsed(), 2.5);
    QCOMPARE(QFileInfo::exists(m_bench->last().finalMixedPath()), !mix.isNull());
    QCOMPARE(m_dev.requests(), QJsonArray());
}

void TestRecordingSend::destroyingTheFlowWhileUploadingIsSafe()
{
    link();
    addFault(QStringLiteral("PUT"), uploads, {{QStringLiteral("delayMs"), 300}});
    auto flow = makeFlow();
    m_bench->recordAndSave(*flow);
    QTRY_COMPARE(requestsTo(QStringLiteral("GET"), targetPath), 1);
    flow.reset();
    QTest::qWait(800);
    // The send stopped at its next step: no note, and the file is still there.
    QCOMPARE(m_dev.notes().size(), 0);
    QVERIFY(QFileInfo::exists(m_bench->last().finalMixedPath()));
}

QTEST_GUILESS_MAIN(TestRecordingSend)
#include "tst_recording_send.moc"
