// The account link with no secret store to use: a KDE session whose KWallet is not running
// (QtKeychain asks KWallet there, not the Secret Service on the bus). Nothing crashes or
// blocks, and the session is never kept anywhere else: this is where QtKeychain would
// fall back to a plaintext settings file if it were allowed to.
#include "account/PairingFlow.h"
#include "account/SessionStore.h"
#include "support/DevService.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"

#include <QDirIterator>
#include <QNetworkAccessManager>
#include <QTest>

using namespace Qt::StringLiterals;

class TestAccountNoSecretStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theSessionIsNeverKeptElsewhere()
    {
        qputenv("XDG_CURRENT_DESKTOP", "KDE");
        qputenv("KDE_SESSION_VERSION", "4");
        DevService dev;
        QVERIFY2(dev.available(), "run under scripts/fixtures/with-devservice");
        QNetworkAccessManager network;
        const SelvaroAPI api(&network, dev.baseUrl());
        LogCapture log;
        SessionStore store;
        QCoro::waitFor(store.waitUntilLoaded());
        const SessionPayload session { u"s"_s, u"p"_s, u"secret-token"_s, false };
        const std::optional<KeychainError> error = QCoro::waitFor(store.save(session));
        QVERIFY(error && error->code == QKeychain::OtherError);
        QCOMPARE(store.session(), std::nullopt);

        // A refresh that cannot keep the renewed session keeps the old one.
        store.setSession(SessionPayload::fromJson(dev.createSession(false)));
        const auto old = store.session();
        QCoro::waitFor(store.refresh(api));
        QCOMPARE(store.session(), old);
        QVERIFY(log.lines(u"session"_s).last().startsWith(u"session refresh failed: keychain error 7: "_s));

        // A pairing whose session cannot be kept polls on until the service says the code is spent.
        auto clock = std::make_shared<ManualClock>();
        PairingFlow flow(api, &store, clock);
        store.setSession(std::nullopt);
        dev.setConfig({ { u"interval"_s, 2 } });
        flow.start();
        QTRY_COMPARE(flow.state().kind(), PairingState::Kind::waiting);
        dev.confirm(flow.state().userCode(), false);
        for (int poll = 0; poll < 2; ++poll) {
            clock->advance(std::chrono::seconds(2));
            QTest::qWait(200);
        }
        QTRY_COMPARE(flow.state(), PairingState::failed(u"code_already_used"_s));
        QCOMPARE(log.lines(u"pairing"_s).filter(u"poll: keychain error 7"_s).size(), 1);

        for (QDirIterator it(QDir::homePath(), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
             it.hasNext();) {
            QFile file(it.next());
            QVERIFY(file.open(QIODevice::ReadOnly) && !file.readAll().contains("secret-token"));
        }
    }
};

QTEST_GUILESS_MAIN(TestAccountNoSecretStore)
#include "tst_account_nosecretstore.moc"
