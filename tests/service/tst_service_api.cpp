// The client against the local note service: a recording's whole way out (upload
// target, upload, note), with the upload streamed from disk.
#include "Await.h"

#include "service/SelvaroAPI.h"
#include "support/DevService.h"

#include <QFile>
#include <QNetworkAccessManager>
#include <QTemporaryDir>
#include <QtTest/QTest>

namespace {
// Peak resident memory since the last reset, in bytes.
qint64 peakMemory()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray text = status.readAll();
    const qsizetype at = text.indexOf("VmHWM:");
    return text.mid(at + 6, text.indexOf('\n', at) - at - 6).replace("kB", "").trimmed().toLongLong() * 1024;
}
} // namespace

class TestServiceApi : public QObject
{
    Q_OBJECT

private slots:
    void recordingGoesOut()
    {
        DevService service;
        QVERIFY2(service.available(), "run under scripts/fixtures/with-devservice");
        QNetworkAccessManager network;
        const SelvaroAPI api(&network, service.baseUrl());
        const QJsonObject session = service.createSession(true);
        const QString token = session.value(QLatin1String("token")).toString();
        const auto target = await(api.uploadTarget(token));
        QVERIFY(target.value);

        QTemporaryDir dir;
        QFile file(dir.filePath(QStringLiteral("r.m4a")));
        const qint64 size = 64 * 1024 * 1024;
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write("head") == 4 && file.resize(size));
        file.close();
        QFile clearPeak(QStringLiteral("/proc/self/clear_refs"));
        QVERIFY(clearPeak.open(QIODevice::WriteOnly) && clearPeak.write("5") == 1);
        clearPeak.close();
        const qint64 before = peakMemory();
        int ticks = 0;
        QTimer ticker;
        connect(&ticker, &QTimer::timeout, this, [&ticks] { ++ticks; });
        ticker.start(1);
        const auto uploaded = await(api.upload(file.fileName(), *target.value), 60000);
        QVERIFY(uploaded.value);
        // Streamed: the file is never held in memory, and the event loop keeps turning.
        QVERIFY2(peakMemory() - before < size / 4, qPrintable(QString::number(peakMemory() - before)));
        QVERIFY(ticks > 10);

        const QJsonObject put = service.requests().last().toObject();
        const QJsonObject headers = put.value(QLatin1String("headers")).toObject();
        QCOMPARE(headers.value(QLatin1String("content-type")).toString(), QStringLiteral("audio/m4a"));
        QVERIFY(!headers.contains(QLatin1String("authorization")));
        QCOMPARE(headers.value(QLatin1String("content-length")).toString(), QString::number(size));
        QVERIFY(service.download(target.value->key).startsWith("head"));

        const QString accountId = session.value(QLatin1String("accountId")).toString();
        const QDateTime startedAt = QDateTime::fromMSecsSinceEpoch(1741083072345, Qt::UTC);
        const auto note = await(api.createNote(token, accountId, true, startedAt, 59, target.value->key));
        QVERIFY(note.value);
        const QJsonObject stored = service.notes().first().toObject();
        QCOMPARE(stored.value(QLatin1String("id")).toString(), note.value->id);
        QCOMPARE(stored.value(QLatin1String("body")).toObject(), SelvaroAPI::noteBody(accountId, true, startedAt, 59, target.value->key));
    }
};

QTEST_GUILESS_MAIN(TestServiceApi)
#include "tst_service_api.moc"
