// The pairing screen drawn from preview flows: what each state shows, the QR code
// as a reader sees it, the countdown, the swap link, and the renders for review.
#include "ScreenTestSupport.h"

#include "account/PairingFlow.h"
#include "support/QrReader.h"
#include "ui/FadingStack.h"
#include "ui/PairingView.h"
#include "ui/PlatformWording.h"
#include "ui/QrCodeView.h"
#include "ui/TextButton.h"

#include <QApplication>
#include <QFontInfo>
#include <QLabel>
#include <QTest>
#include <QTimeZone>

using namespace ScreenTest;

namespace {

const QString userCode = QStringLiteral("R3XD-8N5W");
const QDateTime now = QDateTime(QDate(2026, 11, 23), QTime(11, 0), QTimeZone::utc());

PairingState waiting(qint64 secondsLeft)
{
    return PairingState::waiting({QStringLiteral("device-code"), userCode, 600, 5}, now.addSecs(secondsLeft));
}

// A preview flow in `state` drawn by a pairing screen in the window's content area.
// Shown only when asked: showing an idle flow would start a real pairing.
struct Screen
{
    explicit Screen(const PairingState &state)
        : flow(PairingFlow::preview(state))
        , view(new PairingView(flow.get()))
        , frame(view)
    {
        view->setClock([this] { return clock; });
    }

    template <typename T = QWidget>
    T *child(const char *name) const
    {
        return ScreenTest::child<T>(view, name);
    }
    bool shows(const char *name) const { return ScreenTest::shows(view, name); }

    std::unique_ptr<PairingFlow> flow;
    PairingView *view;
    Frame frame;
    QDateTime clock = now;
};

} // namespace

class TestPairingView : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QApplication::installTranslator(&m_wording);
    }

    void pairingLink_data()
    {
        QTest::addColumn<QString>("code");
        QTest::addColumn<QByteArray>("link");
        QTest::newRow("one dash") << userCode << QByteArrayLiteral("selvaro://pair/R3XD8N5W");
        QTest::newRow("no dash") << QStringLiteral("R3XD8N5W") << QByteArrayLiteral("selvaro://pair/R3XD8N5W");
        QTest::newRow("several") << QStringLiteral("AB-CD-EF") << QByteArrayLiteral("selvaro://pair/ABCDEF");
    }
    void pairingLink()
    {
        QFETCH(QString, code);
        QFETCH(QByteArray, link);
        QCOMPARE(PairingView::pairingLink(code), link);
    }

    void eachStateShowsItsContent_data()
    {
        QTest::addColumn<PairingState>("state");
        QTest::addColumn<QStringList>("shown");
        QTest::addColumn<QStringList>("buttons");
        const QStringList none;
        QTest::newRow("idle") << PairingState::idle() << QStringList{QStringLiteral("title")} << none;
        QTest::newRow("requesting") << PairingState::requesting() << QStringList{QStringLiteral("title")} << none;
        QTest::newRow("waiting") << waiting(581)
                                 << QStringList{QStringLiteral("title"), QStringLiteral("scanHint"),
                                                QStringLiteral("countdown")}
                                 << QStringList{QStringLiteral("Can't scan?")};
        QTest::newRow("expired") << PairingState::expired()
                                 << QStringList{QStringLiteral("title"), QStringLiteral("expiredText")}
                                 << QStringList{QStringLiteral("New code")};
        QTest::newRow("failed") << PairingState::failed(QStringLiteral("Offline."))
                                << QStringList{QStringLiteral("title"), QStringLiteral("failureMessage")}
                                << QStringList{QStringLiteral("Try again")};
    }
    void eachStateShowsItsContent()
    {
        QFETCH(PairingState, state);
        QFETCH(QStringList, shown);
        QFETCH(QStringList, buttons);
        Screen screen(state);

        QStringList labels;
        for (QLabel *label : screen.view->findChildren<QLabel *>()) {
            if (label->isVisibleTo(screen.view))
                labels << label->objectName();
        }
        QCOMPARE(labels, shown);
        QCOMPARE(shownButtons(screen.view), buttons);
        QCOMPARE(unreachableButtons(screen.view), QStringList());

        const bool spinning = state.kind() == PairingState::Kind::idle || state.kind() == PairingState::Kind::requesting;
        QCOMPARE(screen.shows("spinner"), spinning);
        QCOMPARE(screen.shows("qrCode"), state.kind() == PairingState::Kind::waiting);
    }

    void textsAreWordedForThisComputer()
    {
        Screen screen(waiting(581));
        QCOMPARE(screen.child<QLabel>("title")->text(), QStringLiteral("Link this computer to Selvaro"));
        // The phone app's menu item keeps its name; the path never breaks across lines.
        QCOMPARE(PairingView::instructionText(),
                 QStringLiteral("Type this code in Selvaro, under\u00A0Settings\u00A0>\u00A0Record\u00A0on\u00A0my\u00A0Mac:"));
        QCOMPARE(screen.child<QLabel>("scanHint")->text(), QStringLiteral("Scan this code with\nyour phone's camera."));
    }

    void failureMessages_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("shown");
        QTest::newRow("an error's own text") << QStringLiteral("The Internet connection appears to be offline.")
                                             << QStringLiteral("The Internet connection appears to be offline.");
        QTest::newRow("code_not_found") << QStringLiteral("code_not_found")
                                        << QStringLiteral("This code is no longer valid. Ask for a new one.");
        QTest::newRow("code_already_used") << QStringLiteral("code_already_used")
                                           << QStringLiteral("This code has already been used.");
    }
    void failureMessages()
    {
        QFETCH(QString, message);
        QFETCH(QString, shown);
        Screen screen(PairingState::failed(message));
        QCOMPARE(screen.child<QLabel>("failureMessage")->text(), shown);
    }

    void qrCodeCarriesThePairingLink_data()
    {
        QTest::addColumn<qreal>("ratio");
        QTest::newRow("2x") << 2.0;
        QTest::newRow("1x") << 1.0;
    }
    void qrCodeCarriesThePairingLink()
    {
        QFETCH(qreal, ratio);
        if (!QrReader::available())
            QSKIP("zbarimg (zbar-tools) is not installed");
        Screen screen(waiting(581));
        // The whole window, as the user sees it, read back by an independent reader.
        const QImage image = Rendering::toImage(screen.frame, ratio, Palette::selvaroBackground());
        QCOMPARE(image.size(), QSize(380, 430) * ratio);
        QCOMPARE(QrReader::decode(image, QStringLiteral("pairing-%1x").arg(ratio)),
                 QByteArrayLiteral("selvaro://pair/R3XD8N5W"));
        QCOMPARE(screen.view->findChild<QrCodeView *>()->size(), QSize(200, 200));
    }

    void countdown_data()
    {
        QTest::addColumn<qint64>("secondsLeft");
        QTest::addColumn<QString>("shown");
        QTest::newRow("600") << qint64(600) << QStringLiteral("10:00");
        QTest::newRow("598") << qint64(598) << QStringLiteral("9:58");
        QTest::newRow("61") << qint64(61) << QStringLiteral("1:01");
        QTest::newRow("at expiry") << qint64(0) << QStringLiteral("0:00");
        QTest::newRow("past expiry") << qint64(-75) << QStringLiteral("0:00");
    }
    void countdown()
    {
        QFETCH(qint64, secondsLeft);
        QFETCH(QString, shown);
        Screen screen(waiting(secondsLeft));
        QCOMPARE(screen.child<QLabel>("countdown")->text(), QStringLiteral("Waiting for your phone… ") + shown);
    }

    void countdownTicksEverySecond()
    {
        Screen screen(waiting(61));
        screen.frame.show();
        QCOMPARE(screen.child<QLabel>("countdown")->text(), QStringLiteral("Waiting for your phone… 1:01"));
        // Part of a second is truncated away; the next tick reads the clock anew.
        screen.clock = now.addMSecs(1500);
        QTRY_COMPARE_WITH_TIMEOUT(screen.child<QLabel>("countdown")->text(),
                                  QStringLiteral("Waiting for your phone… 0:59"), 1500);
        QCOMPARE(screen.flow->state(), waiting(61)); // only shown, never decided here
    }

    void swapLinkTogglesTheCode()
    {
        Screen screen(waiting(581));
        screen.frame.show();
        QVERIFY(QTest::qWaitForWindowExposed(&screen.frame));
        auto *showCode = screen.child<TextButton>("showCodeLink");
        QVERIFY(showCode->font().underline());
        QCOMPARE(showCode->cursor().shape(), Qt::PointingHandCursor);
        QVERIFY(!screen.view->showsCode());

        QTest::mouseClick(showCode, Qt::LeftButton);
        QVERIFY(screen.view->showsCode());
        QTRY_VERIFY(!screen.view->findChild<FadingStack *>(QStringLiteral("panels"))->isFading());
        QVERIFY(screen.shows("userCode"));
        QVERIFY(!screen.shows("scanHint"));
        auto *code = screen.child<QLabel>("userCode");
        QCOMPARE(code->text(), userCode); // with its dash
        QVERIFY(code->textInteractionFlags() & Qt::TextSelectableByMouse);
        QCOMPARE(QFontInfo(code->font()).pixelSize(), 32);
        QVERIFY(QFontInfo(code->font()).fixedPitch());
        QCOMPARE(code->font().weight(), QFont::Bold);
        QCOMPARE(shownButtons(screen.view), QStringList{QStringLiteral("Show the QR code")});

        // Back with the keyboard: the link takes Tab focus and Space.
        auto *showQr = screen.child<TextButton>("showQrLink");
        showQr->setFocus(Qt::TabFocusReason);
        QTest::keyClick(showQr, Qt::Key_Space);
        QVERIFY(!screen.view->showsCode());
        QTRY_VERIFY(screen.shows("scanHint"));
        // The swap is the screen's own business.
        QCOMPARE(screen.flow->state(), waiting(581));
    }

    void hidingStopsTheFlow()
    {
        Screen screen(waiting(581));
        screen.frame.show();
        // Shown while a code is pending: nothing new is asked for.
        QCOMPARE(screen.flow->state(), waiting(581));
        screen.frame.hide();
        QCOMPARE(screen.flow->state(), PairingState::idle());
    }

    void renders_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<PairingState>("state");
        QTest::addColumn<bool>("showsCode");
        QTest::newRow("pairing") << QStringLiteral("pairing") << waiting(581) << false;
        QTest::newRow("pairing-code") << QStringLiteral("pairing-code") << waiting(581) << true;
        QTest::newRow("pairing-expired") << QStringLiteral("pairing-expired") << PairingState::expired() << false;
        QTest::newRow("pairing-failed") << QStringLiteral("pairing-failed")
                                        << PairingState::failed(QStringLiteral("The Internet connection appears to be offline."))
                                        << false;
        QTest::newRow("pairing-requesting") << QStringLiteral("pairing-requesting") << PairingState::requesting() << false;
    }
    void renders()
    {
        QFETCH(QString, name);
        QFETCH(PairingState, state);
        QFETCH(bool, showsCode);
        Screen screen(state);
        screen.view->setAnimated(false);
        screen.view->setShowsCode(showsCode);
        const QImage image = render(screen.frame, name);
        QCOMPARE(image.size(), QSize(760, 860));
        render(screen.frame, name, 1);
        QCOMPARE(screen.view->geometry(), QRect(24, 24, 332, 382));
        QCOMPARE(outside(screen.view), QStringList());
    }

private:
    PlatformWording m_wording;
};

QTEST_MAIN(TestPairingView)
#include "tst_PairingView.moc"
