// The phone page: what it lists, and its confirm buttons.

#include "ServiceClient.h"

#include <QJsonArray>
#include <QRegularExpression>
#include <QTest>

class TestPhonePage : public QObject
{
    Q_OBJECT

private:
    DevService m_dev;
    ServiceClient m_client{m_dev};

    QString page(const QString &path = QStringLiteral("/"))
    {
        const auto reply = m_client.get(path);
        return reply.status == 200 ? QString::fromUtf8(reply.body) : QString();
    }
    QString startPairing(const QString &model)
    {
        const QJsonObject device{{QStringLiteral("vendorUuid"), QStringLiteral("V")}, {QStringLiteral("appVersion"), QStringLiteral("0.1.0")},
                                 {QStringLiteral("osVersion"), QStringLiteral("6.1.0")}, {QStringLiteral("type"), QStringLiteral("linux")},
                                 {QStringLiteral("brand"), QStringLiteral("b")},        {QStringLiteral("model"), model},
                                 {QStringLiteral("locale"), QStringLiteral("en_US")}};
        return m_client.post(QStringLiteral("/pair"), {{QStringLiteral("device"), device}}).json().value(QLatin1String("userCode")).toString();
    }
    // Posts the page's form as a browser would; returns the redirect target.
    std::string submitConfirm(const QString &userCode, bool anonymous)
    {
        const auto result = m_client.raw()->Post("/admin/pairings/confirm",
                                                 "userCode=" + userCode.toStdString() + "&anonymous=" + (anonymous ? "1" : "0"),
                                                 "application/x-www-form-urlencoded");
        if (!result || result->status != 303)
            return {};
        return result->get_header_value("Location");
    }

private slots:
    void initTestCase() { QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice"); }
    void init() { m_dev.reset(); }

    void anEmptyServiceSaysSo()
    {
        const QString html = page();
        QVERIFY(html.startsWith(QLatin1String("<!doctype html>")));
        QVERIFY(html.contains(QLatin1String("name=\"viewport\"")));
        QVERIFY(html.contains(QLatin1String("No computer is waiting")));
        QVERIFY(html.contains(QLatin1String("No notes yet")));
    }

    void pendingCodesHaveBothConfirmButtons()
    {
        const QString code = startPairing(QStringLiteral("Framework 13"));
        const QString html = page();
        QVERIFY(html.contains(code));
        QVERIFY(html.contains(QLatin1String("Framework 13")));
        QCOMPARE(html.count(QStringLiteral("action=\"/admin/pairings/confirm\"")), 2);
        QVERIFY(html.contains(QStringLiteral("name=\"userCode\" value=\"%1\"").arg(code)));
        QVERIFY(html.contains(QLatin1String("name=\"anonymous\" value=\"1\"")));
        QVERIFY(html.contains(QLatin1String("name=\"anonymous\" value=\"0\"")));
    }

    void theFormConfirmsAndComesBack()
    {
        const QString code = startPairing(QStringLiteral("m"));
        QCOMPARE(submitConfirm(code, true), std::string("/?result=linked"));
        const QJsonObject pairing = m_dev.pairings().first().toObject();
        QCOMPARE(pairing.value(QLatin1String("state")).toString(), QStringLiteral("confirmed"));
        QCOMPARE(m_dev.sessions().first().toObject().value(QLatin1String("isAnonymous")).toBool(), true);
        // Confirmed codes leave the list; a second press says why nothing happened.
        QVERIFY(!page().contains(code));
        QCOMPARE(submitConfirm(code, false), std::string("/?result=code_already_used"));
        QVERIFY(page(QStringLiteral("/?result=code_already_used")).contains(QLatin1String("code_already_used")));
        QVERIFY(page(QStringLiteral("/?result=linked")).contains(QLatin1String("linked")));
    }

    void expiredCodesAreNotOffered()
    {
        m_dev.setConfig({{QStringLiteral("expiresIn"), 0}});
        const QString code = startPairing(QStringLiteral("m"));
        QVERIFY(!page().contains(code));
    }

    void deviceTextIsEscaped()
    {
        startPairing(QStringLiteral("<script>alert(1)</script>"));
        const QString html = page();
        QVERIFY(!html.contains(QLatin1String("<script>")));
        QVERIFY(html.contains(QLatin1String("&lt;script&gt;")));
        QVERIFY(!page(QStringLiteral("/?result=%3Cb%3E")).contains(QLatin1String("<b>")));
    }

    void notesNewestFirstWithAPlayer()
    {
        const auto account = m_client.newAccount(false);
        QStringList keys;
        for (int i = 0; i < 2; ++i) {
            const QString key = m_client.upload(account, QByteArray(100 + i, 'a'));
            QJsonObject body = ServiceClient::noteBody(account, key);
            body.insert(QStringLiteral("duration"), 61 + i);
            QCOMPARE(m_client.post(QStringLiteral("/api/collections/notes/records"), body, account.token).status, 200);
            keys.append(key);
        }
        const QString html = page();
        const qsizetype newer = html.indexOf(QStringLiteral("<audio controls preload=\"metadata\" src=\"/files/%1\"").arg(keys[1]));
        const qsizetype older = html.indexOf(QStringLiteral("<audio controls preload=\"metadata\" src=\"/files/%1\"").arg(keys[0]));
        QVERIFY(newer > 0);
        QVERIFY(older > newer);
        for (const char *field : {"startedAt", "duration", "recordingKey", "source", "sourceUrl", "buildNumber", "deviceLocale", "user"})
            QVERIFY2(html.contains(QStringLiteral("<dt>%1</dt>").arg(QLatin1String(field))), field);
        QVERIFY(html.contains(QLatin1String("2025-03-04T10:11:12.345Z")));
        QVERIFY(html.contains(QLatin1String("<dd>recorder</dd>")));
    }
};

QTEST_GUILESS_MAIN(TestPhonePage)
#include "tst_phonepage.moc"
