// The account link with no Secret Service on any bus: nothing crashes or blocks, and
// the session is never kept anywhere else (no plaintext fallback).
#include "account/Keychain.h"
#include "account/PairingFlow.h"
#include "account/SessionStore.h"
#include "support/DevService.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"

#include <QDirIterator>
#include <QNetworkAccessManager>
#include <QTest>

class TestAccountNoSecretStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theSessionIsNeverKeptElsewhere()
    {
        DevService dev;
        QVERIFY2(dev.available(), "run under scripts/fixtures/with-devservice");
        QNetworkAccessManager network;
        const SelvaroAPI api(&network, dev.baseUrl());
        LogCapture log;
        SessionStore store;
        QCoro::waitFor(store.waitUntilLoaded());
        const SessionPayload session { QStringLiteral("s"), QStringLiteral("p"),
            QStringLiteral("secret-token"), false };
        const std::optional<KeychainError> error = QCoro::waitFor(store.save(session));
        QCOMPARE(error->code, QKeychain::OtherError);
        QCOMPARE(store.session(), std::nullopt);

        // A refresh that cannot keep the renewed session keeps the old one.
        store.setSession(SessionPayload::fromJson(dev.createSession(false)));
        const auto old = store.session();
        QCoro::waitFor(store.refresh(api));
        QCOMPARE(store.session(), old);
        QVERIFY(log.lines(QStringLiteral("session"))
                    .last()
                    .startsWith(QStringLiteral("session refresh failed: keychain error 7: ")));

        // A pairing whose session cannot be kept polls on until the service says the code is spent.
        auto clock = std::make_shared<ManualClock>();
        PairingFlow flow(api, &store, clock);
        store.setSession(std::nullopt);
        dev.setConfig({ { QStringLiteral("interval"), 2 } });
        flow.start();
        QTRY_COMPARE(flow.state().kind(), PairingState::Kind::waiting);
        dev.confirm(flow.state().userCode(), false);
        for (int poll = 0; poll < 2; ++poll) {
            clock->advance(std::chrono::seconds(2));
            QTest::qWait(200);
        }
        QTRY_COMPARE(flow.state(), PairingState::failed(QStringLiteral("code_already_used")));
        QCOMPARE(
            log.lines(QStringLiteral("pairing")).filter(QStringLiteral("poll: keychain error 7")).size(), 1);

        for (QDirIterator it(QDir::homePath(), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
             it.hasNext();) {
            QFile file(it.next());
            QVERIFY(file.open(QIODevice::ReadOnly));
            QVERIFY2(!file.readAll().contains("secret-token"), qPrintable(file.fileName()));
        }
    }
};

QTEST_GUILESS_MAIN(TestAccountNoSecretStore)
#include "tst_account_nosecretstore.moc"
