// The real application, driven through its window as a user would, against every
// real part: the local note service, GNOME Keyring and the PulseAudio daemon. The
// one place above the audio layer where the recorded tones are checked.
#include "account/Keychain.h"
#include "account/PairingFlow.h"
#include "account/SessionStore.h"
#include "app/Appearance.h"
#include "app/ContentView.h"
#include "app/SelvaroRecorderApp.h"
#include "audio/RecordingsFolder.h"
#include "recording/RecorderFlow.h"
#include "support/DevService.h"
#include "support/LogCapture.h"
#include "support/MixerAnalysis.h"
#include "support/ToneAnalysis.h"
#include "support/TonePlayer.h"
#include "ui/PairingView.h"
#include "ui/RecorderView.h"

#include <QAbstractButton>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryFile>
#include <QTest>

#include <qcoro/qcorotask.h>

using namespace Qt::StringLiterals;

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

// The note the service holds, decoded; its length, or -1 unless the last second but its
// final 0.1 s holds the system audio's 440 Hz on the left and the microphone's 1000 Hz on
// the right.
double secondsWithTonesInPlace(DevService &dev)
{
    QTemporaryFile file;
    if (!file.open() || file.write(dev.download(dev.notes()[0][u"recordingKey"_s].toString())) < 1)
        return -1;
    file.close();
    const MixerAnalysis::Decoded note = MixerAnalysis::decode(file.fileName());
    const auto toneIn = [](const std::vector<float> &channel) {
        return channel.size() < 48000
            ? 0
            : ToneAnalysis::dominantFrequency(std::span(channel).last(48000).first(43200), 48000);
    };
    const bool inPlace = std::abs(toneIn(note.left) - 440) <= 2 && std::abs(toneIn(note.right) - 1000) <= 2;
    return note.error.isEmpty() && inPlace ? note.duration : -1;
}

// The application, linked with a session the service made directly unless the keyring
// holds one.
std::unique_ptr<SelvaroRecorderApp> linkedApp(DevService &dev)
{
    SessionStore store(SessionStore::Load::fromKeychain);
    QCoro::waitFor(store.waitUntilLoaded());
    if (!store.isLinked())
        QCoro::waitFor(store.save(*SessionPayload::fromJson(dev.createSession(false))));
    auto app = std::make_unique<SelvaroRecorderApp>(dev.baseUrl());
    app->show();
    return app;
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
        LogCapture log;
        Appearance::apply(*qApp);
        dev.setConfig({ { u"interval"_s, 2 } }); // the shortest poll the app accepts
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
        QTRY_VERIFY(button(screen, u"Record"_s));
        QVERIFY(click(screen, u"Record"_s));
        QTest::qWait(2200); // the fixture's monitors take about a second to deliver
        QVERIFY(click(screen, u"Pause"_s));
        QVERIFY(click(screen, u"Save"_s));
        QTRY_COMPARE_WITH_TIMEOUT(app.model().recorder().state(), RecorderFlow::State::sent(), 30000);

        // The note holds the system audio on the left and the microphone on the right.
        QCOMPARE(dev.notes().size(), 1);
        QVERIFY(secondsWithTonesInPlace(dev) > 0);
        QVERIFY(log.contains(u"Speaker echo in "_s)); // removed, as the menu is set by default

        // Unlink, confirmed: back to pairing, the item gone.
        QVERIFY(click(screen, u"Unlink"_s));
        QTRY_VERIFY(screen->unlinkConfirmation());
        QVERIFY(click(screen->unlinkConfirmation(), u"Unlink this computer"_s));
        QTRY_COMPARE(content.currentScreen(), static_cast<QWidget *>(content.pairingView()));
        QVERIFY(!QCoro::waitFor(Keychain::read(QLatin1String(Keychain::sessionAccount))));
    }

    // The child process of the next test: the application, recording until it is killed.
    void recordUntilKilled()
    {
        if (!qEnvironmentVariableIsSet("SELVARO_RECORD_UNTIL_KILLED"))
            QSKIP("runs only as the child of keepsAKilledRecording");
        DevService dev;
        const auto app = linkedApp(dev);
        QTRY_VERIFY_WITH_TIMEOUT(button(app->content().recorderView(), u"Record"_s), 10000);
        QVERIFY(click(app->content().recorderView(), u"Record"_s));
        QTest::qWait(60000);
    }

    // A recording killed with SIGKILL is offered at the next start, mixed from its two
    // files and sent, and nothing of it stays.
    void keepsAKilledRecording()
    {
        DevService dev;
        TonePlayer speakers(440);
        TonePlayer microphone(1000, "micfeed");
        dev.reset();
        QProcess child;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"SELVARO_RECORD_UNTIL_KILLED"_s, u"1"_s);
        child.setProcessEnvironment(environment);
        child.start(QCoreApplication::applicationFilePath(), { u"recordUntilKilled"_s });
        // Timed from the moment both files hold audio: the fixture's monitors take about a
        // second to deliver their first block.
        const auto capturing = [folder = QDir(RecordingsFolder::defaultPath())] {
            const QFileInfoList files = folder.entryInfoList({ u"*.wav"_s });
            return files.size() == 2 && files[0].size() > 4096 && files[1].size() > 4096;
        };
        QTRY_VERIFY_WITH_TIMEOUT(capturing(), 20000);
        QElapsedTimer recorded;
        recorded.start();
        QTest::qWait(3000);
        child.kill();
        QVERIFY(child.waitForFinished());
        const double killedAt = recorded.elapsed() / 1000.0;

        LogCapture log;
        auto app = linkedApp(dev);
        const RecorderFlow &flow = app->model().recorder();
        QTRY_VERIFY_WITH_TIMEOUT(flow.canRetrySend(), 20000);
        QVERIFY(flow.state().text().endsWith(u"(1 min) was not sent."_s));
        QVERIFY(click(app->content().recorderView(), u"Send again"_s));
        QTRY_COMPARE_WITH_TIMEOUT(flow.state(), RecorderFlow::State::sent(), 30000);
        // Its length comes from the files: the sidecar still said "recording".
        QVERIFY(dev.notes().first()[u"body"_s][u"duration"_s].toInt() >= killedAt - 1);
        const double seconds = secondsWithTonesInPlace(dev);
        QVERIFY2(seconds > killedAt - 1, qPrintable(u"%1 s of %2 s"_s.arg(seconds).arg(killedAt)));
        QVERIFY(log.contains(u"Speaker echo in "_s));

        QCOMPARE(QDir(RecordingsFolder::defaultPath()).entryList(QDir::Files), QStringList());
    }
};

QTEST_MAIN(AppEndToEndTest)
#include "tst_app_end_to_end.moc"
