// The real application, driven through its window as a user would, against every
// real part: the local note service, GNOME Keyring and the PulseAudio daemon. The
// one place above the audio layer where the recorded tones are checked.
#include "account/Keychain.h"
#include "account/PairingFlow.h"
#include "app/Appearance.h"
#include "app/ContentView.h"
#include "app/SelvaroRecorderApp.h"
#include "recording/RecorderFlow.h"
#include "support/DevService.h"
#include "support/MixerAnalysis.h"
#include "support/ToneAnalysis.h"
#include "support/TonePlayer.h"
#include "ui/PairingView.h"
#include "ui/RecorderView.h"

#include <QAbstractButton>
#include <QTemporaryFile>
#include <QTest>

#include <qcoro/qcorotask.h>

namespace {

// The visible, enabled button with this text under `root`.
QAbstractButton *button(QWidget *root, const QString &text)
{
    for (QAbstractButton *button : root->findChildren<QAbstractButton *>())
        if (button->isVisibleTo(root) && button->isEnabled() && button->text() == text)
            return button;
    return nullptr;
}

bool click(QWidget *root, const QString &text)
{
    QAbstractButton *target = button(root, text);
    if (target)
        QTest::mouseClick(target, Qt::LeftButton);
    return target;
}

// The dominant frequency of one channel, without its first 0.3 s and last 0.1 s.
double toneOf(const std::vector<float> &channel)
{
    return ToneAnalysis::dominantFrequency(
        std::span<const float>(channel).subspan(14400, channel.size() - 19200), 48000);
}

} // namespace

class AppEndToEndTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void pairsRecordsSendsAndUnlinks()
    {
        DevService dev;
        QVERIFY2(dev.available(), "run under scripts/fixtures/with-devservice");
        TonePlayer speakers(440);
        TonePlayer microphone(1000, "micfeed");
        QVERIFY(speakers.isPlaying() && microphone.isPlaying());
        Appearance::apply(*qApp);
        dev.setConfig({ { QStringLiteral("interval"), 2 } }); // the shortest poll the app accepts
        SelvaroRecorderApp app(dev.baseUrl());
        app.show();
        ContentView &content = app.content();

        // First start: not linked, so the pairing screen offers a code; the phone confirms it.
        QTRY_COMPARE(content.currentScreen(), static_cast<QWidget *>(content.pairingView()));
        PairingFlow &pairing = app.model().pairing();
        QTRY_COMPARE(pairing.state().kind(), PairingState::Kind::waiting);
        dev.confirm(pairing.state().userCode(), false);
        QTRY_COMPARE_WITH_TIMEOUT(
            content.currentScreen(), static_cast<QWidget *>(content.recorderView()), 10000);

        RecorderView *screen = content.recorderView();
        QTRY_VERIFY(button(screen, QStringLiteral("Record")));
        QVERIFY(click(screen, QStringLiteral("Record")));
        QTest::qWait(2200); // the fixture's monitors take about a second to deliver
        QVERIFY(click(screen, QStringLiteral("Pause")));
        QVERIFY(click(screen, QStringLiteral("Save")));
        QTRY_COMPARE_WITH_TIMEOUT(app.model().recorder().state(), RecorderFlow::State::sent(), 30000);

        // The note holds the system audio on the left and the microphone on the right.
        const QJsonArray notes = dev.notes();
        QCOMPARE(notes.size(), 1);
        QTemporaryFile file;
        QVERIFY(file.open()
            && file.write(dev.download(notes.first()[QStringLiteral("recordingKey")].toString())) > 0);
        file.close();
        const MixerAnalysis::Decoded note = MixerAnalysis::decode(file.fileName());
        QCOMPARE(note.error, QString());
        QVERIFY(std::abs(toneOf(note.left) - 440) <= 2 && std::abs(toneOf(note.right) - 1000) <= 2);

        // Unlink, confirmed: back to pairing, the item gone.
        QVERIFY(click(screen, QStringLiteral("Unlink")));
        QTRY_VERIFY(screen->unlinkConfirmation());
        QVERIFY(click(screen->unlinkConfirmation(), QStringLiteral("Unlink this computer")));
        QTRY_COMPARE(content.currentScreen(), static_cast<QWidget *>(content.pairingView()));
        QVERIFY(!QCoro::waitFor(Keychain::read(QLatin1String(Keychain::sessionAccount))));
    }
};

QTEST_MAIN(AppEndToEndTest)
#include "tst_app_end_to_end.moc"
