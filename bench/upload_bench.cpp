// Uploads a 1 GiB file to a private local note service with SelvaroAPI::upload and
// with `curl -T` to a fresh target of the same service, and reports the client's
// memory growth and its throughput against curl's.
//
//   upload_bench [path/to/selvaro-devservice] [size in MiB, default 1024] [rounds, default 3]
//
// Each round uploads once with the client, then once with curl; the figures compared
// are the best round of each, which is what the machine can do when nothing else
// competes for it (the two cores are often shared with builds).
// Without a path (or with "") it uses the service built in the same build tree.
//
// The last line reads `ratio=<client / curl throughput> rss_growth_mib=<n>`. The
// exit status is 1 when the client is under half of curl's speed or grows by 32 MiB
// or more, 2 when the bench itself could not run.

#include "service/SelvaroAPI.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <qcoro/qcorotask.h>

#include <cstdio>
#include <optional>

namespace {

[[noreturn]] void fail(const QString &why)
{
    std::fprintf(stderr, "upload_bench: %s\n", qPrintable(why));
    std::exit(2);
}

// A field of /proc/self/status in KiB (VmRSS, VmHWM).
qint64 statusKiB(const char *field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray prefix = QByteArray(field) + ':';
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(prefix))
            return line.mid(prefix.size()).trimmed().split(' ').first().toLongLong();
    }
    return -1;
}

// Makes VmHWM start again from the current resident size, so the peak measured
// belongs to the upload alone.
bool resetPeak()
{
    QFile clear(QStringLiteral("/proc/self/clear_refs"));
    return clear.open(QIODevice::WriteOnly) && clear.write("5") == 1;
}

QString findService(const QStringList &arguments)
{
    if (arguments.size() > 1 && !arguments.at(1).isEmpty())
        return arguments.at(1);
    const QString dir = QCoreApplication::applicationDirPath();
    const QStringList candidates { QStringLiteral(SELVARO_DEVSERVICE_PATH),
        dir + QStringLiteral("/../devservice/selvaro-devservice"),
        dir + QStringLiteral("/../selvaro-devservice") };
    for (const QString &candidate : candidates) {
        if (QFileInfo(candidate).isExecutable())
            return candidate;
    }
    fail(QStringLiteral("selvaro-devservice not found; pass its path"));
}

// Blocks on one reply: the bench's own admin calls, outside any measurement.
QByteArray blockingCall(QNetworkAccessManager &network, const QByteArray &method, const QUrl &url,
    const QByteArray &body, const QByteArray &adminToken)
{
    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    request.setRawHeader("X-Admin-Token", adminToken);
    std::unique_ptr<QNetworkReply> reply(network.sendCustomRequest(request, method, body));
    QEventLoop loop;
    QObject::connect(reply.get(), &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    if (reply->error() != QNetworkReply::NoError)
        fail(QStringLiteral("%1 %2: %3")
                 .arg(QString::fromLatin1(method), url.toString(), reply->errorString()));
    return reply->readAll();
}

template <typename T> T run(QCoro::Task<T> task)
{
    std::optional<T> result;
    QEventLoop loop;
    // Named: a coroutine lambda's captures live in the closure, which must outlive it.
    const auto body = [&]() -> QCoro::Task<> {
        try {
            result = co_await std::move(task);
        } catch (const ApiError &error) {
            fail(error.description());
        }
        loop.quit();
    };
    auto runner = body();
    if (!result)
        loop.exec();
    return *result;
}

void runUpload(QCoro::Task<> task)
{
    bool done = false;
    QEventLoop loop;
    const auto body = [&]() -> QCoro::Task<> {
        try {
            co_await std::move(task);
        } catch (const ApiError &error) {
            fail(QStringLiteral("upload: ") + error.description());
        }
        done = true;
        loop.quit();
    };
    auto runner = body();
    if (!done)
        loop.exec();
}

double mibPerSecond(qint64 bytes, qint64 ms)
{
    return (static_cast<double>(bytes) / (1024.0 * 1024.0)) / (static_cast<double>(ms) / 1000.0);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    const qint64 sizeMiB = arguments.size() > 2 ? arguments.at(2).toLongLong() : 1024;
    const qint64 size = sizeMiB * 1024 * 1024;
    const int rounds = arguments.size() > 3 ? std::max(1, arguments.at(3).toInt()) : 3;

    QTemporaryDir work;
    if (!work.isValid())
        fail(QStringLiteral("no temporary directory"));

    QProcess service;
    service.setProgram(findService(arguments));
    service.setArguments({ QStringLiteral("--port"), QStringLiteral("0"), QStringLiteral("--data"),
        work.filePath(QStringLiteral("service")) });
    // Its access log would bury the figures; it stays in the work folder.
    service.setStandardErrorFile(work.filePath(QStringLiteral("service.log")));
    service.start();
    if (!service.waitForStarted(10000))
        fail(QStringLiteral("the service did not start"));
    while (!service.canReadLine()) {
        if (!service.waitForReadyRead(20000))
            fail(QStringLiteral("the service printed no address"));
    }
    const QUrl baseUrl(QString::fromUtf8(service.readLine().trimmed()));
    // The second line is the admin token.
    while (!service.canReadLine()) {
        if (!service.waitForReadyRead(20000))
            fail(QStringLiteral("the service printed no admin token"));
    }
    const QByteArray adminToken = service.readLine().trimmed();
    // Keep draining its output so it never blocks on a full pipe.
    QObject::connect(&service, &QProcess::readyReadStandardOutput, &service,
        [&service] { service.readAllStandardOutput(); });

    QNetworkAccessManager network;
    const QUrl adminSessions = baseUrl.resolved(QUrl(QStringLiteral("/admin/sessions")));
    const QUrl adminReset = baseUrl.resolved(QUrl(QStringLiteral("/admin/reset")));

    // Sparse: the bytes read are zeros from the page cache, for the client and curl alike.
    const QString path = work.filePath(QStringLiteral("recording.m4a"));
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || !file.resize(size))
            fail(QStringLiteral("cannot make the %1 MiB file").arg(sizeMiB));
    }

    const SelvaroAPI api(&network, baseUrl);
    double bestClient = 0;
    double bestCurl = 0;
    double worstGrowthMiB = 0;
    qint64 idleKiB = 0;
    qint64 peakKiB = 0;
    bool peakReset = true;
    for (int round = 1; round <= rounds; ++round) {
        // A fresh service state each round, so stored uploads do not pile up on disk.
        blockingCall(network, "POST", adminReset, "{}", adminToken);
        const QString token = QJsonDocument::fromJson(
            blockingCall(network, "POST", adminSessions, R"({"anonymous": false})", adminToken))
                                  .object()
                                  .value(QLatin1String("token"))
                                  .toString();
        if (token.isEmpty())
            fail(QStringLiteral("the service made no session"));
        const UploadTarget target = run(api.uploadTarget(token));
        const UploadTarget curlTarget = run(api.uploadTarget(token));

        const qint64 roundIdleKiB = statusKiB("VmRSS");
        peakReset = resetPeak() && peakReset;
        const qint64 hwmBeforeKiB = statusKiB("VmHWM");
        QElapsedTimer clock;
        clock.start();
        runUpload(api.upload(path, target));
        const qint64 clientMs = std::max<qint64>(clock.elapsed(), 1);
        const qint64 roundPeakKiB = statusKiB("VmHWM");
        // Without a peak reset an earlier peak could hide this one; then the growth is
        // measured from the larger of the two.
        const double growthMiB = static_cast<double>(roundPeakKiB
                                     - (peakReset ? roundIdleKiB : std::max(roundIdleKiB, hwmBeforeKiB)))
            / 1024.0;

        QProcess curl;
        clock.restart();
        curl.start(QStringLiteral("curl"),
            { QStringLiteral("--silent"), QStringLiteral("--show-error"), QStringLiteral("--fail"),
                QStringLiteral("-T"), path, QStringLiteral("-H"), QStringLiteral("Content-Type: audio/m4a"),
                // No "Expect: 100-continue" pause: both sides start sending at once.
                QStringLiteral("-H"), QStringLiteral("Expect:"), QStringLiteral("-o"),
                QStringLiteral("/dev/null"), curlTarget.url });
        if (!curl.waitForFinished(600000) || curl.exitStatus() != QProcess::NormalExit
            || curl.exitCode() != 0)
            fail(QStringLiteral("curl failed: ") + QString::fromLocal8Bit(curl.readAllStandardError()));
        const qint64 curlMs = std::max<qint64>(clock.elapsed(), 1);

        const double clientSpeed = mibPerSecond(size, clientMs);
        const double curlSpeed = mibPerSecond(size, curlMs);
        std::printf("round %d: client %.1f MiB/s (%.2f s), curl %.1f MiB/s (%.2f s), rss growth %.1f MiB\n",
            round, clientSpeed, static_cast<double>(clientMs) / 1000.0, curlSpeed,
            static_cast<double>(curlMs) / 1000.0, growthMiB);
        std::fflush(stdout);
        bestClient = std::max(bestClient, clientSpeed);
        bestCurl = std::max(bestCurl, curlSpeed);
        if (growthMiB >= worstGrowthMiB) {
            worstGrowthMiB = growthMiB;
            idleKiB = roundIdleKiB;
            peakKiB = roundPeakKiB;
        }
    }
    blockingCall(network, "POST", adminReset, "{}", adminToken);

    const double ratio = bestClient / bestCurl;
    std::printf(
        "file: %lld MiB (sparse), %d rounds, best of each side\n", static_cast<long long>(sizeMiB), rounds);
    std::printf("client: %.1f MiB/s\n", bestClient);
    std::printf("curl:   %.1f MiB/s\n", bestCurl);
    std::printf("rss idle: %.1f MiB, peak during upload: %.1f MiB%s\n", static_cast<double>(idleKiB) / 1024.0,
        static_cast<double>(peakKiB) / 1024.0, peakReset ? "" : " (peak not resettable)");
    std::printf("ratio=%.2f rss_growth_mib=%.1f\n", ratio, worstGrowthMiB);
    std::fflush(stdout);

    // An idle keep-alive connection would hold one of the service's workers until it
    // times out, delaying its exit by seconds.
    network.clearConnectionCache();
    service.terminate();
    if (!service.waitForFinished(5000)) {
        service.kill();
        service.waitForFinished(5000);
    }
    return ratio >= 0.5 && worstGrowthMiB < 32.0 ? 0 : 1;
}
