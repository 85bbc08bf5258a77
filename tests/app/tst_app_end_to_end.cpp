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

// The note the service holds at `index`, decoded.
MixerAnalysis::Decoded noteAudio(DevService &dev, int index)
{
    QTemporaryFile file;
    if (!file.open()
        || file.write(dev.download(dev.notes()[index][QStringLiteral("recordingKey")].toString())) < 1)
        return {};
    file.close();
    return MixerAnalysis::decode(file.fileName());
}

// A session the service made directly, saved in the keyring unless one is there.
void saveSession(DevService &dev)
{
    SessionStore store(SessionStore::Load::fromKeychain);
    QCoro::waitFor(store.waitUntilLoaded());
    if (!store.isLinked())
        QCoro::waitFor(store.save(*SessionPayload::fromJson(dev.createSession(false))));
}

// The application, linked.
std::unique_ptr<SelvaroRecorderApp> linkedApp(DevService &dev)
{
    saveSession(dev);
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
        QCOMPARE(dev.notes().size(), 1);
        const MixerAnalysis::Decoded note = noteAudio(dev, 0);
        QCOMPARE(note.error, QString());
        QVERIFY(std::abs(toneOf(note.left) - 440) <= 2 && std::abs(toneOf(note.right) - 1000) <= 2);

        // Unlink, confirmed: back to pairing, the item gone.
        QVERIFY(click(screen, QStringLiteral("Unlink")));
        QTRY_VERIFY(screen->unlinkConfirmation());
        QVERIFY(click(screen->unlinkConfirmation(), QStringLiteral("Unlink this computer")));
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
        QTRY_VERIFY_WITH_TIMEOUT(button(app->content().recorderView(), QStringLiteral("Record")), 10000);
        QVERIFY(click(app->content().recorderView(), QStringLiteral("Record")));
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
        saveSession(dev);
        QProcess child;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("SELVARO_RECORD_UNTIL_KILLED"), QStringLiteral("1"));
        child.setProcessEnvironment(environment);
        child.start(QCoreApplication::applicationFilePath(), { QStringLiteral("recordUntilKilled") });
        // Timed from the moment both files hold audio: the fixture's monitors take about a
        // second to deliver their first block.
        const auto capturing = [folder = QDir(RecordingsFolder::defaultPath())] {
            const QFileInfoList files = folder.entryInfoList({ QStringLiteral("*.wav") });
            return files.size() == 2 && files[0].size() > 4096 && files[1].size() > 4096;
        };
        QTRY_VERIFY_WITH_TIMEOUT(capturing(), 20000);
        QElapsedTimer recorded;
        recorded.start();
        QTest::qWait(3000);
        child.kill();
        QVERIFY(child.waitForFinished());
        const double killedAt = recorded.elapsed() / 1000.0;

        auto app = linkedApp(dev);
        const RecorderFlow &flow = app->model().recorder();
        QTRY_VERIFY_WITH_TIMEOUT(flow.canRetrySend(), 20000);
        QVERIFY(flow.state().text().endsWith(QStringLiteral("(1 min) was not sent.")));
        QVERIFY(click(app->content().recorderView(), QStringLiteral("Send again")));
        QTRY_COMPARE_WITH_TIMEOUT(flow.state(), RecorderFlow::State::sent(), 30000);
        // Its length comes from the files: the sidecar still said "recording".
        QVERIFY(
            dev.notes().first()[QStringLiteral("body")][QStringLiteral("duration")].toInt() >= killedAt - 1);
        const MixerAnalysis::Decoded killed = noteAudio(dev, 0);
        QVERIFY2(killed.duration > killedAt - 1,
            qPrintable(QStringLiteral("%1 s of %2 s").arg(killed.duration).arg(killedAt)));
        const auto lastSecond = [](const std::vector<float> &channel) {
            return ToneAnalysis::dominantFrequency(std::span(channel).last(48000).first(43200), 48000);
        };
        QVERIFY(
            std::abs(lastSecond(killed.left) - 440) <= 2 && std::abs(lastSecond(killed.right) - 1000) <= 2);

        QCOMPARE(QDir(RecordingsFolder::defaultPath()).entryList(QDir::Files), QStringList());
    }
};

QTEST_MAIN(AppEndToEndTest)
#include "tst_app_end_to_end.moc"
