// Pure values of the account link: the token subject, the stored session's JSON and
// the pairing state's equality.
#include "account/JwtClaims.h"
#include "account/PairingState.h"
#include "account/StoredSession.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

class TestAccountValues : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void subject_data();
    void subject();
    void storedSessionJsonHasExactlyTheFourKeys();
    void storedSessionFromJson_data();
    void storedSessionFromJson();
    void pairingStateEquality();
};

void TestAccountValues::subject_data()
{
    QTest::addColumn<QString>("token");
    QTest::addColumn<QString>("subject"); // null: no subject

    // Payloads are written out as base64url so the test does not share the encoder.
    QTest::newRow("4n+2 gets ==") << "hdr.eyJpZCI6ImFjYzEifQ.sig" << "acc1";
    QTest::newRow("4n+3 gets =") << "hdr.eyJpZCI6ImFjYzEyIn0.sig" << "acc12";
    QTest::newRow("4n needs nothing") << "hdr.eyJpZCI6ImFjYzEyMyJ9.sig" << "acc123";
    QTest::newRow("already padded") << "hdr.eyJpZCI6ImFjYzEifQ==.sig" << "acc1";
    QTest::newRow("url alphabet _") << "hdr.eyJpZCI6Ij8_Pz4ifQ.sig" << "?\?\?>";
    QTest::newRow("url alphabet -") << "hdr.eyJpZCI6ImFjYz4-Pj8ifQ.sig" << "acc>>>?";
    QTest::newRow("other claims ignored") << "h.eyJpZCI6ImFjYzEiLCJleHAiOjF9.s" << "acc1";
    QTest::newRow("empty piece dropped: a..b.c reads b") << "hdr..eyJpZCI6ImFjYzEifQ.sig" << "acc1";
    QTest::newRow("leading and trailing dots dropped") << ".hdr.eyJpZCI6ImFjYzEifQ.sig." << "acc1";

    QTest::newRow("two pieces") << "hdr.eyJpZCI6ImFjYzEifQ" << QString();
    QTest::newRow("four pieces") << "a.eyJpZCI6ImFjYzEifQ.c.d" << QString();
    QTest::newRow("empty payload leaves two pieces") << "hdr..sig" << QString();
    QTest::newRow("empty token") << "" << QString();
    QTest::newRow("only dots") << "..." << QString();
    QTest::newRow("4n+1 cannot decode") << "hdr.eyJpZCI6ImFjYzEyMyJ9A.sig" << QString();
    QTest::newRow("not base64") << "hdr.!!!!.sig" << QString();
    QTest::newRow("not ascii") << "hdr.eyJpZCI6ImFjYzEifQé.sig" << QString();
    QTest::newRow("not JSON") << "hdr.bm90IGpzb24.sig" << QString();
    QTest::newRow("JSON array") << "hdr.WyJpZCJd.sig" << QString();
    QTest::newRow("JSON string") << "hdr.ImFjYzEi.sig" << QString();
    QTest::newRow("numeric id") << "hdr.eyJpZCI6NDJ9.sig" << QString();
    QTest::newRow("null id") << "hdr.eyJpZCI6bnVsbH0.sig" << QString();
    QTest::newRow("sub is not read") << "hdr.eyJzdWIiOiJhY2MxIn0.sig" << QString();
}

void TestAccountValues::subject()
{
    QFETCH(QString, token);
    QFETCH(QString, subject);
    const std::optional<QString> result = JwtClaims::subject(token);
    if (subject.isNull()) {
        QVERIFY2(!result, qPrintable(result.value_or(QString())));
    } else {
        QVERIFY(result);
        QCOMPARE(*result, subject);
    }
}

void TestAccountValues::storedSessionJsonHasExactlyTheFourKeys()
{
    const StoredSession session{QStringLiteral("s-1"), QStringLiteral("p-1"), QStringLiteral("t.o.k"), true};
    const QJsonObject object = QJsonDocument::fromJson(session.toJson()).object();
    QCOMPARE(object.keys(), (QStringList{QStringLiteral("id"), QStringLiteral("isAnonymous"),
                                         QStringLiteral("profileId"), QStringLiteral("token")}));
    QCOMPARE(object.value(QStringLiteral("isAnonymous")), QJsonValue(true));
    QCOMPARE(StoredSession::fromJson(session.toJson()), std::optional<StoredSession>(session));
}

void TestAccountValues::storedSessionFromJson_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<bool>("decodes");

    QTest::newRow("all four") << QByteArray(R"({"id":"a","profileId":"b","token":"c","isAnonymous":false})") << true;
    QTest::newRow("unknown key ignored")
        << QByteArray(R"({"id":"a","profileId":"b","token":"c","isAnonymous":false,"x":1})") << true;
    QTest::newRow("missing isAnonymous") << QByteArray(R"({"id":"a","profileId":"b","token":"c"})") << false;
    QTest::newRow("missing token") << QByteArray(R"({"id":"a","profileId":"b","isAnonymous":true})") << false;
    QTest::newRow("isAnonymous as string")
        << QByteArray(R"({"id":"a","profileId":"b","token":"c","isAnonymous":"true"})") << false;
    QTest::newRow("numeric id") << QByteArray(R"({"id":1,"profileId":"b","token":"c","isAnonymous":true})") << false;
    QTest::newRow("array") << QByteArray(R"(["a","b","c",true])") << false;
    QTest::newRow("garbage") << QByteArray("\x01\x02garbage") << false;
    QTest::newRow("empty") << QByteArray() << false;
}

void TestAccountValues::storedSessionFromJson()
{
    QFETCH(QByteArray, json);
    QFETCH(bool, decodes);
    QCOMPARE(StoredSession::fromJson(json).has_value(), decodes);
}

void TestAccountValues::pairingStateEquality()
{
    const PairingStart start{QStringLiteral("dev"), QStringLiteral("R3XD-8N5W"), 600, 5};
    const QDateTime at = QDateTime::fromSecsSinceEpoch(1'800'000'000, Qt::UTC);
    QCOMPARE(PairingState::waiting(start, at), PairingState::waiting(start, at));
    QVERIFY(PairingState::waiting(start, at) != PairingState::waiting(start, at.addSecs(1)));
    PairingStart other = start;
    other.interval = 6;
    QVERIFY(PairingState::waiting(start, at) != PairingState::waiting(other, at));
    QVERIFY(PairingState::failed(QStringLiteral("code_not_found")) != PairingState::failed(QStringLiteral("x")));
    QVERIFY(PairingState::idle() != PairingState::expired());
    QCOMPARE(PairingState::failed(QStringLiteral("boom")).toString(), QStringLiteral("failed(boom)"));
}

QTEST_GUILESS_MAIN(TestAccountValues)
#include "tst_accountvalues.moc"
