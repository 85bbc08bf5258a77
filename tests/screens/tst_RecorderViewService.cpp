// The recorder screen driving a real RecorderFlow that sends to the local note
// service: Record, Pause and Save end in the green "Sent." line and a note at the
// service; a refused upload target ends in "Send again", which sends the same
// recording. The capture is a stand-in that leaves a small file.
#include "ScreenTestSupport.h"

#include "account/SessionStore.h"
#include "recording/RecordingTestSupport.h"
#include "support/DevService.h"
#include "ui/RecorderView.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QLabel>
#include <QNetworkAccessManager>
#include <QTest>

using namespace ScreenTest;
using namespace RecordingTest;
using State = RecorderState;

class TestRecorderViewService : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice"); }
    void init();
    void cleanup();

    void recordPauseSaveSendsANote();
    void sendAgainSendsTheSameRecording();

private:
    void click(const char *name) { QTest::mouseClick(child(m_view, name), Qt::LeftButton); }
    void recordTwoSecondsAndSave();

    DevService m_dev;
    QTemporaryDir m_dir;
    std::shared_ptr<ManualClock> m_clock;
    std::shared_ptr<ProbeOnlyServer> m_server;
    StandInFactory m_captures;
    QNetworkAccessManager m_network;
    std::unique_ptr<SessionStore> m_store;
    std::unique_ptr<RecorderFlow> m_flow;
    std::unique_ptr<Frame> m_frame;
    RecorderView *m_view = nullptr;
};

void TestRecorderViewService::init()
{
    m_dev.reset();
    m_clock = std::make_shared<ManualClock>();
    m_server = std::make_shared<ProbeOnlyServer>();
    m_server->access = Permission::granted;
    m_captures = StandInFactory();
    m_store = std::make_unique<SessionStore>(SessionStore::Load::nothing);
    const QJsonObject session = m_dev.createSession(false);
    m_store->setSession(SessionPayload{session.value(QStringLiteral("id")).toString(),
                                      session.value(QStringLiteral("profileId")).toString(),
                                      session.value(QStringLiteral("token")).toString(), false});

    m_flow = std::make_unique<RecorderFlow>(
        SelvaroAPI(&m_network, m_dev.baseUrl()), *m_store,
        standInPlatform(m_server, m_captures, m_clock, m_dir.filePath(QStringLiteral("Recordings"))));
    m_view = new RecorderView(m_flow.get(), {});
    m_view->setAnimated(false);
    m_frame = std::make_unique<Frame>(m_view);
    m_frame->show();
    QVERIFY(QTest::qWaitForWindowExposed(m_frame.get()));
    QTRY_VERIFY(shows(m_view, "recordButton"));
}

void TestRecorderViewService::cleanup()
{
    m_frame.reset();
    m_flow.reset();
    m_store.reset();
}

void TestRecorderViewService::recordTwoSecondsAndSave()
{
    click("recordButton");
    QCOMPARE(m_flow->state(), State::recording());
    m_clock->advanceInTicks(std::chrono::seconds(2));
    QCOMPARE(child<QLabel>(m_view, "clock")->text(), QStringLiteral("00:02"));
    click("pauseButton");
    click("saveButton");
    QVERIFY(m_flow->state().is(State::Kind::saving));
    QVERIFY(shows(m_view, "spinner"));
}

void TestRecorderViewService::recordPauseSaveSendsANote()
{
    recordTwoSecondsAndSave();
    QTRY_COMPARE(m_flow->state(), State::sent());
    QVERIFY(shows(m_view, "sentStatus"));
    QVERIFY(shows(m_view, "recordButton"));
    QCOMPARE(child<QLabel>(m_view, "clock")->text(), QStringLiteral("00:00"));

    const QJsonArray notes = m_dev.notes();
    QCOMPARE(notes.size(), 1);
    QCOMPARE(notes.at(0).toObject().value(QStringLiteral("recordingSize")).toInt(),
             m_captures.last().mixedBytes.size());
}

void TestRecorderViewService::sendAgainSendsTheSameRecording()
{
    m_dev.addFault({{QStringLiteral("path"), QStringLiteral("/upload-recording-url")},
                    {QStringLiteral("status"), 500},
                    {QStringLiteral("body"), QStringLiteral("{\"error\":\"storage_down\"}")}});
    recordTwoSecondsAndSave();
    QTRY_VERIFY(m_flow->state().is(State::Kind::failed));
    QVERIFY(shows(m_view, "failureMessage"));
    QVERIFY(shows(m_view, "sendAgainButton"));
    QCOMPARE(m_dev.notes().size(), 0);

    click("sendAgainButton");
    QTRY_COMPARE(m_flow->state(), State::sent());
    QVERIFY(!shows(m_view, "sendAgainButton"));
    QCOMPARE(m_dev.notes().size(), 1);
    QCOMPARE(m_captures.made.size(), 1);
}

QTEST_MAIN(TestRecorderViewService)
#include "tst_RecorderViewService.moc"
