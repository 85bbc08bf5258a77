// The account link's pure rules: the token's account id, the poll's delay and the
// words for a failed pairing.
#include "account/JwtClaims.h"
#include "account/PairingFlow.h"

#include <QTest>

using namespace std::chrono_literals;

class TestAccountValues : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void subject_data()
    {
        QTest::addColumn<QString>("token");
        QTest::addColumn<QString>("subject"); // null: no subject
        // Payloads are written out as base64url so the test does not share the encoder.
        QTest::newRow("4n+2 gets ==") << "hdr.eyJpZCI6ImFjYzEifQ.sig" << "acc1";
        QTest::newRow("4n+3 gets =") << "hdr.eyJpZCI6ImFjYzEyIn0.sig" << "acc12";
        QTest::newRow("url alphabet") << "hdr.eyJpZCI6ImFjYz4-Pj8ifQ.sig" << "acc>>>?";
        QTest::newRow("a..b.c reads b") << "hdr..eyJpZCI6ImFjYzEifQ.sig" << "acc1";
        QTest::newRow("two pieces") << "hdr.eyJpZCI6ImFjYzEifQ" << QString();
        QTest::newRow("four pieces") << "a.eyJpZCI6ImFjYzEifQ.c.d" << QString();
        QTest::newRow("4n+1 cannot decode") << "hdr.eyJpZCI6ImFjYzEyMyJ9A.sig" << QString();
        QTest::newRow("not JSON") << "hdr.bm90IGpzb24.sig" << QString();
        QTest::newRow("JSON array") << "hdr.WyJpZCJd.sig" << QString();
        QTest::newRow("numeric id") << "hdr.eyJpZCI6NDJ9.sig" << QString();
        QTest::newRow("sub is not read") << "hdr.eyJzdWIiOiJhY2MxIn0.sig" << QString();
    }
    void subject()
    {
        QFETCH(QString, token);
        QFETCH(QString, subject);
        QCOMPARE(JwtClaims::subject(token), subject.isNull() ? std::nullopt : std::optional(subject));
    }

    // Within [2 s, 1 h] and within the code's remaining lifetime, but never below 2 s.
    void pollDelay_data()
    {
        QTest::addColumn<int>("interval");
        QTest::addColumn<qint64>("secondsLeft");
        QTest::addColumn<qint64>("delay");
        QTest::newRow("0") << 0 << qint64(600) << qint64(2000);
        QTest::newRow("1") << 1 << qint64(600) << qint64(2000);
        QTest::newRow("5") << 5 << qint64(600) << qint64(5000);
        QTest::newRow("2^29 s, an hour left") << 536870912 << qint64(86400) << qint64(3600000);
        QTest::newRow("4294967 s, 10 min left") << 4294967 << qint64(600) << qint64(600000);
        QTest::newRow("5, 3 s left") << 5 << qint64(3) << qint64(3000);
        QTest::newRow("5, expired") << 5 << qint64(-10) << qint64(2000);
        QTest::newRow("negative") << -5 << qint64(600) << qint64(2000);
    }
    void pollDelay()
    {
        QFETCH(int, interval);
        QFETCH(qint64, secondsLeft);
        QFETCH(qint64, delay);
        QCOMPARE(PairingFlow::pollDelay(interval, std::chrono::seconds(secondsLeft)).count(), delay);
    }

    void failureText_data()
    {
        QTest::addColumn<PairingState>("state");
        QTest::addColumn<QString>("text");
        QTest::newRow("an error's own text") << PairingState::failed(QStringLiteral("boom (500)")) << "boom (500)";
        QTest::newRow("code_not_found") << PairingState::failed(QStringLiteral("code_not_found"))
                                        << "This code is no longer valid. Ask for a new one.";
        QTest::newRow("code_already_used") << PairingState::failed(QStringLiteral("code_already_used"))
                                           << "This code has already been used.";
        QTest::newRow("not failed") << PairingState::expired() << "";
    }
    void failureText()
    {
        QFETCH(PairingState, state);
        QFETCH(QString, text);
        QCOMPARE(PairingFlow::preview(state)->failureText(), text);
    }
};

QTEST_GUILESS_MAIN(TestAccountValues)
#include "tst_account_values.moc"
