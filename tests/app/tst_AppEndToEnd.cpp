// The real application, driven through its window like a user would, against every
// real part: the local note service, GNOME Keyring and the PulseAudio daemon.
#include "account/Keychain.h"
#include "account/PairingFlow.h"
#include "account/SessionStore.h"
#include "app/Appearance.h"
#include "app/ContentView.h"
#include "app/MainWindow.h"
#include "app/SelvaroRecorderApp.h"
#include "audio/RecordingsFolder.h"
#include "recording/RecorderFlow.h"
#include "support/DevService.h"
#include "support/TonePlayer.h"
#include "ui/PairingView.h"
#include "ui/RecorderView.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDir>
#include <QLabel>
#include <QMessageBox>
#include <QTest>

#include <qcoro/qcorotask.h>

using State = RecorderFlow::State;

namespace {

// The one visible button with this text (or accessible name) under `root`.
QAbstractButton *button(QWidget *root, const QString &text)
{
    QAbstractButton *found = nullptr;
    for (QAbstractButton *candidate : root->findChildren<QAbstractButton *>()) {
        if (!candidate->isVisibleTo(root) || (candidate->text() != text && candidate->accessibleName() != text))
            continue;
        if (found)
            qFatal("two visible buttons read %s", qPrintable(text));
        found = candidate;
    }
    return found;
}

bool click(QWidget *root, const QString &text)
{
    QAbstractButton *target = button(root, text);
    if (!target || !target->isEnabled())
        return false;
    QTest::mouseClick(target, Qt::LeftButton);
    return true;
}

// What a failed click could have hit, for the failure message.
QString visibleButtons(QWidget *root)
{
    QStringList names;
    for (QAbstractButton *candidate : root->findChildren<QAbstractButton *>())
        if (candidate->isVisibleTo(root))
            names.append(QStringLiteral("'%1'/'%2'%3").arg(candidate->text(), candidate->accessibleName(),
                                                        candidate->isEnabled() ? QString() : QStringLiteral(" (off)")));
    return names.join(QLatin1String(", "));
}

bool showsText(QWidget *root, const QString &text)
{
    for (QLabel *label : root->findChildren<QLabel *>())
        if (label->isVisibleTo(root) && label->text() == text)
            return true;
    return false;
}

bool hasKeychainItem()
{
    return QCoro::waitFor(Keychain::read(QLatin1String(Keychain::sessionAccount))).has_value();
}

} // namespace

class AppEndToEndTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice");
        QVERIFY2(!qEnvironmentVariableIsEmpty("PULSE_SERVER"), "run under scripts/fixtures/with-pulse");
        m_speakers = std::make_unique<TonePlayer>(440);
        m_microphone = std::make_unique<TonePlayer>(1000, "micfeed");
        QVERIFY(m_speakers->isPlaying() && m_microphone->isPlaying());
        // As main() does: the look and this platform's wording of the texts.
        Appearance::apply(*qApp);
        // Polling every 2 s (the least the app accepts) keeps the pairing short.
        m_dev.setConfig({{QStringLiteral("interval"), 2}});
    }

    void pairsRecordsSendsAndUnlinks()
    {
        QCoro::waitFor(Keychain::remove(QLatin1String(Keychain::sessionAccount)));
        SelvaroRecorderApp app(m_dev.baseUrl());
        app.show();
        QVERIFY(QTest::qWaitForWindowExposed(&app.window()));
        ContentView &content = app.content();

        // First start: not linked, so the pairing screen asks for a code.
        QTRY_COMPARE(content.currentScreen(), static_cast<QWidget *>(content.pairingView()));
        PairingFlow &pairing = app.model().pairing();
        QTRY_COMPARE(pairing.state().kind(), PairingState::Kind::waiting);

        // The phone confirms; the recorder screen fades in.
        int status = 0;
        m_dev.confirm(pairing.state().userCode(), false, &status);
        QCOMPARE(status, 200);
        QTRY_COMPARE_WITH_TIMEOUT(content.currentScreen(), static_cast<QWidget *>(content.recorderView()), 10000);
        QVERIFY(hasKeychainItem());

        RecorderView *screen = content.recorderView();
        RecorderFlow &recorder = app.model().recorder();
        QTRY_COMPARE(recorder.microphone(), Permission::granted);
        QTRY_COMPARE(recorder.systemAudio(), Permission::granted);

        // QTRY evaluates its condition once more at the end: it must not click.
        QTRY_VERIFY2(button(screen, QStringLiteral("Record")), qPrintable(visibleButtons(screen)));
        QVERIFY(click(screen, QStringLiteral("Record")));
        QCOMPARE(recorder.state(), State::recording());
        QTest::qWait(1500); // the fixture's monitors take about a second to deliver
        QVERIFY2(click(screen, QStringLiteral("Pause")), qPrintable(visibleButtons(screen)));
        QCOMPARE(recorder.state(), State::paused());
        QVERIFY(click(screen, QStringLiteral("Resume")));
        QCOMPARE(recorder.state(), State::recording());
        QTest::qWait(700);
        QVERIFY(click(screen, QStringLiteral("Pause")));
        QVERIFY(click(screen, QStringLiteral("Save")));
        QTRY_VERIFY_WITH_TIMEOUT(recorder.state() == State::sent() || recorder.state().is(State::Kind::failed), 30000);
        QCOMPARE(recorder.state(), State::sent());
        QTRY_VERIFY(showsText(screen, QStringLiteral("Sent. The note is being written on your phone.")));
        QCOMPARE(m_dev.notes().size(), 1);
        QCOMPARE(QDir(RecordingsFolder::defaultPath()).entryList(QDir::Files), QStringList());

        // Unlink, confirmed: back to pairing, the item gone, nothing sent to the service.
        const qsizetype requestsBefore = m_dev.requests().size();
        QVERIFY(click(screen, QStringLiteral("Unlink")));
        QTRY_VERIFY(screen->unlinkConfirmation());
        QVERIFY(click(screen->unlinkConfirmation(), QStringLiteral("Unlink this computer")));
        QTRY_COMPARE_WITH_TIMEOUT(content.currentScreen(), static_cast<QWidget *>(content.pairingView()), 5000);
        QVERIFY(!hasKeychainItem());
        QVERIFY(!app.model().store().isLinked());
        const QJsonArray requests = m_dev.requests();
        for (qsizetype i = requestsBefore; i < requests.size(); ++i)
            QVERIFY2(!requests.at(i).toObject().value(QStringLiteral("path")).toString().startsWith(
                         QLatin1String("/sessions/")),
                     "unlinking is local only");
    }

    void sessionDeletedAtTheServiceIsForgottenAtStart()
    {
        // Linked earlier; meanwhile the account removed this computer.
        const auto payload = SessionPayload::fromJson(m_dev.createSession(false));
        QVERIFY(payload);
        {
            SessionStore store;
            QVERIFY(!QCoro::waitFor(store.save(*payload)));
        }
        QCOMPARE(m_dev.deleteSession(payload->id), 200);

        SelvaroRecorderApp app(m_dev.baseUrl());
        app.show();
        QVERIFY(QTest::qWaitForWindowExposed(&app.window()));
        ContentView &content = app.content();
        // The saved session shows the recorder first; the refresh forgets it.
        QTRY_COMPARE_WITH_TIMEOUT(content.currentScreen(), static_cast<QWidget *>(content.pairingView()), 10000);
        QVERIFY(!hasKeychainItem());
    }

    void linkedStartRefreshesAndShowsTheRecorder()
    {
        const auto payload = SessionPayload::fromJson(m_dev.createSession(true));
        QVERIFY(payload);
        {
            SessionStore store;
            QVERIFY(!QCoro::waitFor(store.save(*payload)));
        }
        SelvaroRecorderApp app(m_dev.baseUrl());
        app.show();
        ContentView &content = app.content();
        QTRY_COMPARE(content.currentScreen(), static_cast<QWidget *>(content.recorderView()));
        // Every start renews the token.
        QTRY_VERIFY(app.model().store().session() && app.model().store().session()->token != payload->token);
        QCOMPARE(content.currentScreen(), static_cast<QWidget *>(content.recorderView()));
        QCoro::waitFor(Keychain::remove(QLatin1String(Keychain::sessionAccount)));
    }

private:
    DevService m_dev;
    std::unique_ptr<TonePlayer> m_speakers;
    std::unique_ptr<TonePlayer> m_microphone;
};

QTEST_MAIN(AppEndToEndTest)
#include "tst_AppEndToEnd.moc"
