// The session item in a real GNOME Keyring: Keychain's three operations, what other
// Secret Service clients see, and SessionStore's load, save and forget.
#include "AccountTestSupport.h"

#include "account/Keychain.h"
#include "account/SessionStore.h"
#include "support/LogCapture.h"

#include <QRegularExpression>
#include <QSettings>
#include <QSignalSpy>
#include <QTest>

using namespace AccountTest;

namespace {
const QString session = QStringLiteral("session");
const StoredSession stored{QStringLiteral("sess-1"), QStringLiteral("prof-1"), QStringLiteral("tok.en.1"), false};
} // namespace

class TestSessionKeychain : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QCoro::waitFor(Keychain::remove(session)); }

    void writeReadRemove();
    void writeReplacesTheOneItem();
    void loadsNothingWithoutAnItem();
    void loadsTheStoredSessionAfterConstruction();
    void garbageLoadsAsNoSessionAndStaysInPlace();
    void aSessionSetWhileLoadingIsNotUndone();
    void saveWritesTheItemThenSetsTheSession();
    void forgetRemovesTheItemThenClears();
    void vendorUuidIsMadeOnceAndSurvivesUnlinking();
};

void TestSessionKeychain::writeReadRemove()
{
    QCOMPARE(QCoro::waitFor(Keychain::read(session)), std::nullopt);

    const QByteArray json = stored.toJson();
    QCOMPARE(QCoro::waitFor(Keychain::write(session, json)), std::nullopt);
    QCOMPARE(QCoro::waitFor(Keychain::read(session)), std::optional<QByteArray>(json));
    // Other clients read the JSON as it is, under QtKeychain's attribute names.
    QCOMPARE(secretToolLookup(), json);
    const QString item = secretToolSearch();
    QVERIFY2(item.contains(QStringLiteral("attribute.user = session")), qPrintable(item));
    QVERIFY2(item.contains(QStringLiteral("attribute.server = app.selvaro.recorder")), qPrintable(item));
    QVERIFY2(item.contains(QStringLiteral("attribute.type = plaintext")), qPrintable(item));

    QCoro::waitFor(Keychain::remove(session));
    QCOMPARE(QCoro::waitFor(Keychain::read(session)), std::nullopt);
    QCOMPARE(secretToolLookup(), QByteArray());
    // Removing what is not there is not an error anyone sees.
    QCoro::waitFor(Keychain::remove(session));
}

void TestSessionKeychain::writeReplacesTheOneItem()
{
    QCOMPARE(QCoro::waitFor(Keychain::write(session, "first")), std::nullopt);
    QCOMPARE(QCoro::waitFor(Keychain::write(session, "second")), std::nullopt);
    QCOMPARE(QCoro::waitFor(Keychain::read(session)), std::optional<QByteArray>("second"));
    QCOMPARE(secretToolSearch().count(QStringLiteral("attribute.user = session")), 1);
}

void TestSessionKeychain::loadsNothingWithoutAnItem()
{
    LogCapture log;
    SessionStore store;
    QVERIFY(!store.isLoaded());
    QSignalSpy sessionChanged(&store, &SessionStore::sessionChanged);
    QCoro::waitFor(store.waitUntilLoaded());
    QVERIFY(store.isLoaded());
    QCOMPARE(store.session(), std::nullopt);
    QCOMPARE(sessionChanged.count(), 0);
    QCOMPARE(log.lines(QStringLiteral("session")), QStringList());
}

void TestSessionKeychain::loadsTheStoredSessionAfterConstruction()
{
    QVERIFY(secretToolStore(stored.toJson()));
    SessionStore store;
    // The constructor only starts the read: nothing is known until it answers.
    QCOMPARE(store.session(), std::nullopt);
    QSignalSpy loaded(&store, &SessionStore::loadedChanged);
    QSignalSpy sessionChanged(&store, &SessionStore::sessionChanged);
    QVERIFY(loaded.wait(5000));
    QCOMPARE(store.session(), std::optional<StoredSession>(stored));
    QVERIFY(store.isLinked());
    QCOMPARE(sessionChanged.count(), 1);
}

void TestSessionKeychain::garbageLoadsAsNoSessionAndStaysInPlace()
{
    QVERIFY(secretToolStore("{\"id\": \"half"));
    LogCapture log;
    SessionStore store;
    QCoro::waitFor(store.waitUntilLoaded());
    QCOMPARE(store.session(), std::nullopt);
    QCOMPARE(secretToolLookup(), QByteArray("{\"id\": \"half"));
    QCOMPARE(log.lines(QStringLiteral("session")), QStringList());
}

void TestSessionKeychain::aSessionSetWhileLoadingIsNotUndone()
{
    QVERIFY(secretToolStore(stored.toJson()));
    SessionStore store;
    StoredSession paired = stored;
    paired.token = QStringLiteral("newer");
    store.setSession(paired);
    QCoro::waitFor(store.waitUntilLoaded());
    QCOMPARE(store.session(), std::optional<StoredSession>(paired));
}

void TestSessionKeychain::saveWritesTheItemThenSetsTheSession()
{
    SessionStore store;
    QCoro::waitFor(store.waitUntilLoaded());
    QByteArray itemWhenNotified;
    connect(&store, &SessionStore::sessionChanged, this, [&] { itemWhenNotified = secretToolLookup(); });

    const SessionPayload payload{QStringLiteral("s-2"), QStringLiteral("p-2"), QStringLiteral("t-2"), true};
    QCOMPARE(QCoro::waitFor(store.save(payload)), std::nullopt);
    const StoredSession expected = StoredSession::from(payload);
    QCOMPARE(store.session(), std::optional<StoredSession>(expected));
    QCOMPARE(itemWhenNotified, expected.toJson());
}

void TestSessionKeychain::forgetRemovesTheItemThenClears()
{
    QVERIFY(secretToolStore(stored.toJson()));
    SessionStore store;
    QCoro::waitFor(store.waitUntilLoaded());
    QVERIFY(store.isLinked());
    QByteArray itemWhenNotified = "unset";
    connect(&store, &SessionStore::sessionChanged, this, [&] { itemWhenNotified = secretToolLookup(); });
    QCoro::waitFor(store.forget());
    QCOMPARE(store.session(), std::nullopt);
    QCOMPARE(itemWhenNotified, QByteArray());
}

void TestSessionKeychain::vendorUuidIsMadeOnceAndSurvivesUnlinking()
{
    const QString first = SessionStore::vendorUuid();
    QVERIFY2(QRegularExpression(QStringLiteral("^[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$"))
                 .match(first)
                 .hasMatch(),
             qPrintable(first));
    QCOMPARE(SessionStore::vendorUuid(), first);

    {
        SessionStore store;
        QCoro::waitFor(store.waitUntilLoaded());
        QCOMPARE(QCoro::waitFor(store.save(SessionPayload{QStringLiteral("s"), QStringLiteral("p"),
                                                          QStringLiteral("t"), false})),
                 std::nullopt);
        QCoro::waitFor(store.forget());
    }
    SessionStore another;
    QCOMPARE(SessionStore::vendorUuid(), first);

    // On disk at once, where the next launch reads it.
    QSettings file(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("Selvaro"),
                   QStringLiteral("Selvaro Recorder"));
    QCOMPARE(file.value(QStringLiteral("vendorUuid")).toString(), first);
}

QTEST_GUILESS_MAIN(TestSessionKeychain)
#include "tst_sessionkeychain.moc"
