// The pairing screen drawn from its flow: what each state shows, the QR code as a
// reader sees it, the typed code, and a new showing after an unlink.
#include "ScreenTestSupport.h"

#include "account/PairingFlow.h"
#include "account/SessionStore.h"
#include "support/ManualClock.h"
#include "support/QrReader.h"
#include "ui/PairingView.h"
#include "ui/Palette.h"
#include "ui/Rendering.h"

#include <QLabel>
#include <QNetworkAccessManager>
#include <QTest>

using namespace ScreenTest;
using namespace Qt::StringLiterals;

namespace {
const QDateTime now = ManualClock().now();
PairingState waiting(int secondsLeft)
{
    return PairingState::waiting({ u"device-code"_s, u"R3XD-8N5W"_s, 600, 5 }, now.addSecs(secondsLeft));
}
} // namespace

class TestScreensPairing : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void states_data()
    {
        QTest::addColumn<PairingState>("state");
        QTest::addColumn<QString>("shown"); // the widget that tells the state
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("buttons");
        QTest::newRow("requesting") << PairingState::requesting() << u"spinner"_s << QString() << QString();
        QTest::newRow("10:00 left") << waiting(600) << u"countdown"_s << u"Waiting for your phone… 10:00"_s
                                    << u"Can't scan?"_s;
        QTest::newRow("expired") << PairingState::expired() << u"expiredText"_s << u"This code has expired."_s
                                 << u"New code"_s;
        QTest::newRow("failed") << PairingState::failed(u"code_already_used"_s) << u"failureMessage"_s
                                << u"This code has already been used."_s << u"Try again"_s;
        // The flow puts the two codes that end an attempt into words, and shows any other message as it is.
        QTest::newRow("not found") << PairingState::failed(u"code_not_found"_s) << u"failureMessage"_s
                                   << u"This code is no longer valid. Ask for a new one."_s << u"Try again"_s;
        QTest::newRow("an error") << PairingState::failed(u"boom (500)"_s) << u"failureMessage"_s
                                  << u"boom (500)"_s << u"Try again"_s;
    }
    void states()
    {
        QFETCH(PairingState, state);
        QFETCH(QString, shown);
        QFETCH(QString, text);
        const auto flow = PairingFlow::preview(state);
        auto *view = new PairingView(flow.get());
        view->setClock([] { return now; });
        view->setAnimated(false);
        ScreenFrame frame(view);
        frame.show(); // not idle: nothing is started
        QVERIFY(shows(view, shown.toLatin1().constData()));
        if (!text.isNull())
            QCOMPARE(child<QLabel>(view, shown.toLatin1().constData())->text(), text);
        QTEST(shownButtons(view).join(u','), "buttons");
        QCOMPARE(outside(view), QStringList());
        QCOMPARE(flow->state(), state);
    }

    void qrCodeAndTypedCode()
    {
        const auto flow = PairingFlow::preview(waiting(581));
        auto *view = new PairingView(flow.get());
        view->setAnimated(false);
        ScreenFrame frame(view);
        // The whole window at 2x and at 1x, read back by an independent reader.
        for (const qreal ratio : { 2.0, 1.0 }) {
            const QImage window = Rendering::toImage(frame, ratio, Palette::selvaroBackground());
            if (QrReader::available())
                QCOMPARE(QrReader::decode(window, u"pairing"_s), "selvaro://pair/R3XD8N5W"_ba);
        }
        view->toggleCode();
        QVERIFY(shows(view, "userCode") && !shows(view, "qrCode"));
        QCOMPARE(child<QLabel>(view, "userCode")->text(), u"R3XD-8N5W"_s);
        QCOMPARE(child<QLabel>(view, "instruction")->text(),
            u"Type this code in Selvaro, under\u00A0Settings\u00A0>\u00A0Record\u00A0on\u00A0my\u00A0Mac:"_s);
        QCOMPARE(shownButtons(view), QStringList { u"Show the QR code"_s });
    }

    // Shown: starts an idle flow; hidden: stops it; shown again after an unlink: a new
    // pairing, on the QR code even if the typed code was showing before.
    void aNewShowingOpensOnTheQrCode()
    {
        QNetworkAccessManager network;
        SessionStore store(SessionStore::Load::nothing);
        PairingFlow flow(
            SelvaroAPI(&network, QUrl(u"http://127.0.0.1:1"_s)), &store, std::make_shared<ManualClock>());
        auto *view = new PairingView(&flow);
        ScreenFrame frame(view);
        frame.show();
        QCOMPARE(flow.state(), PairingState::requesting());
        view->toggleCode();
        frame.hide();
        QCOMPARE(flow.state(), PairingState::idle());
        frame.show();
        QVERIFY(!view->showsCode());
        QCOMPARE(flow.state(), PairingState::requesting());
    }
};

QTEST_MAIN(TestScreensPairing)
#include "tst_screens_pairing.moc"
