// The pairing screen with a real PairingFlow against the local note service: it
// starts the pairing when shown, carries the service's code in its QR code, stops
// polling when hidden, and starts again from "New code" and "Try again". The
// poll's clock is driven by the test.
#include "ScreenTestSupport.h"

#include "account/AccountTestSupport.h"
#include "account/PairingFlow.h"
#include "account/SessionStore.h"
#include "support/DevService.h"
#include "support/QrReader.h"
#include "ui/PairingView.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QLabel>
#include <QNetworkAccessManager>
#include <QTest>

using namespace ScreenTest;
using namespace AccountTest;
using Kind = PairingState::Kind;

class TestPairingViewService : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice"); }
    void init();
    void cleanup();

    void showingStartsAPairingWhoseCodeTheQrCarries();
    void hidingStopsPollingAndComingBackStartsAnew();
    void newCodeAfterExpiry();
    void tryAgainAfterFailure();

private:
    [[nodiscard]] int requestsTo(const QString &path);
    [[nodiscard]] QWidget *button(const char *name) const { return child(m_view, name); }

    DevService m_dev;
    QNetworkAccessManager m_network;
    std::unique_ptr<SessionStore> m_store;
    std::shared_ptr<FakeClock> m_clock;
    std::unique_ptr<PairingFlow> m_flow;
    std::unique_ptr<Frame> m_frame;
    PairingView *m_view = nullptr;
};

void TestPairingViewService::init()
{
    m_dev.reset();
    m_store = std::make_unique<SessionStore>(SessionStore::Load::nothing);
    m_clock = std::make_shared<FakeClock>();
    m_flow = std::make_unique<PairingFlow>(SelvaroAPI(&m_network, m_dev.baseUrl()), m_store.get(), m_clock);
    m_view = new PairingView(m_flow.get());
    m_view->setAnimated(false);
    m_frame = std::make_unique<Frame>(m_view);
}

void TestPairingViewService::cleanup()
{
    m_frame.reset();
    m_flow.reset();
    m_clock->setHold(false);
    m_clock->release();
    QTRY_COMPARE(m_clock->sleeping(), 0);
    m_store.reset();
}

int TestPairingViewService::requestsTo(const QString &path)
{
    int count = 0;
    for (const QJsonValue &request : m_dev.requests())
        count += request.toObject().value(QStringLiteral("path")).toString() == path;
    return count;
}

void TestPairingViewService::showingStartsAPairingWhoseCodeTheQrCarries()
{
    if (!QrReader::available())
        QSKIP("zbarimg (zbar-tools) is not installed");
    m_clock->setHold(true);
    QCOMPARE(m_flow->state(), PairingState::idle());
    m_frame->show();
    QCOMPARE(m_flow->state(), PairingState::requesting());
    QVERIFY(shows(m_view, "spinner"));
    QTRY_COMPARE(m_flow->state().kind(), Kind::waiting);

    const QString code = m_dev.pairings().at(0).toObject().value(QStringLiteral("userCode")).toString();
    QVERIFY(code.contains(QLatin1Char('-')));
    QString withoutDashes = code;
    withoutDashes.remove(QLatin1Char('-'));
    const QImage image = Rendering::toImage(*m_frame, 2, Palette::selvaroBackground());
    QCOMPARE(QrReader::decode(image, QStringLiteral("service-pairing")),
             QByteArray("selvaro://pair/" + withoutDashes.toUtf8()));
    QCOMPARE(child<QLabel>(m_view, "userCode")->text(), code);

    // Shown again while the code is pending: no new code is asked for.
    m_view->hide();
    m_flow->start();
    QTRY_COMPARE(m_flow->state().kind(), Kind::waiting);
    m_view->show();
    QTest::qWait(50);
    QCOMPARE(requestsTo(QStringLiteral("/pair")), 2);
}

void TestPairingViewService::hidingStopsPollingAndComingBackStartsAnew()
{
    m_clock->setHold(true);
    m_frame->show();
    QTRY_COMPARE(m_flow->state().kind(), Kind::waiting);
    QTRY_COMPARE(m_clock->sleeping(), 1);
    const QString first = m_flow->state().userCode();

    m_frame->hide();
    QCOMPARE(m_flow->state(), PairingState::idle());
    m_clock->release();
    QTRY_COMPARE(m_clock->sleeping(), 0);
    QTest::qWait(50);
    QCOMPARE(requestsTo(QStringLiteral("/pair/token")), 0);

    m_frame->show();
    QTRY_COMPARE(m_flow->state().kind(), Kind::waiting);
    QVERIFY(m_flow->state().userCode() != first);
    QCOMPARE(requestsTo(QStringLiteral("/pair")), 2);
}

void TestPairingViewService::newCodeAfterExpiry()
{
    // Codes that are born expired: the first poll (one interval on) finds them so.
    m_dev.setConfig({{QStringLiteral("expiresIn"), 0}});
    m_frame->show();
    QTRY_COMPARE(m_flow->state(), PairingState::expired());
    QVERIFY(shows(m_view, "expiredText"));
    QCOMPARE(shownButtons(m_view), QStringList{QStringLiteral("New code")});

    m_dev.setConfig({{QStringLiteral("expiresIn"), 600}});
    m_clock->setHold(true);
    QTest::mouseClick(button("newCodeButton"), Qt::LeftButton);
    QCOMPARE(m_flow->state(), PairingState::requesting());
    QTRY_COMPARE(m_flow->state().kind(), Kind::waiting);
    QVERIFY(shows(m_view, "qrCode"));
    QCOMPARE(child<QLabel>(m_view, "countdown")->text().right(5), QStringLiteral("10:00"));
}

void TestPairingViewService::tryAgainAfterFailure()
{
    m_dev.addFault({{QStringLiteral("path"), QStringLiteral("/pair")},
                    {QStringLiteral("status"), 503},
                    {QStringLiteral("body"), QStringLiteral("{\"error\":\"maintenance\"}")}});
    m_frame->show();
    QTRY_COMPARE(m_flow->state().kind(), Kind::failed);
    QCOMPARE(child<QLabel>(m_view, "failureMessage")->text(), m_flow->state().message());
    QCOMPARE(shownButtons(m_view), QStringList{QStringLiteral("Try again")});

    m_clock->setHold(true);
    button("tryAgainButton")->setFocus(Qt::TabFocusReason);
    QTest::keyClick(button("tryAgainButton"), Qt::Key_Return);
    QTRY_COMPARE(m_flow->state().kind(), Kind::waiting);
    QVERIFY(shows(m_view, "qrCode"));
}

QTEST_MAIN(TestPairingViewService)
#include "tst_PairingViewService.moc"
