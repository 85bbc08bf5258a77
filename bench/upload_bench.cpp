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
// Then a recording of 170 MB goes out through the send pipeline (SendPipeline) while
// the service drops the PUT's connection three times mid-body: its retries resume it
// (the waits between tries skipped, so `seconds` is the work, not the back-off), one
// note is made, and the object stored is compared with the file (SHA-256).
//
// The last line reads `ratio=<client / curl throughput> rss_growth_mib=<n>
// drops=<connections dropped> attempts=<PUTs the service saw> intact=<1 when one note
// was made and the bytes match> seconds=<the send>`. The exit status is 1 when the
// client is under half of curl's speed or grows by 32 MiB or more, or the dropped run
// did not end in one intact note; 2 when the bench itself could not run.

#include "account/SessionStore.h"
#include "recording/SendPipeline.h"
#include "service/SelvaroAPI.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
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

// Real time with no waits: the retries go at once.
class NoWaitClock final : public Clock
{
public:
    [[nodiscard]] QDateTime now() const override { return QDateTime::currentDateTimeUtc(); }
    [[nodiscard]] std::chrono::steady_clock::time_point monotonicNow() const override
    {
        return std::chrono::steady_clock::now();
    }
    QCoro::Task<> sleep(std::chrono::milliseconds) override { co_return; }
};

QByteArray sha256Of(const QString &path)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file))
        fail(QStringLiteral("cannot read ") + path);
    return hash.result();
}

struct DroppedRun
{
    int drops = 0;
    int attempts = 0;
    bool intact = false;
    double seconds = 0;
};

// 170 MB of varied bytes sent by the pipeline through `drops` connections dropped at
// a third of the body.
DroppedRun sendThroughDrops(QNetworkAccessManager &network, const SelvaroAPI &api, const QUrl &baseUrl,
    const QByteArray &adminToken, const QTemporaryDir &work, int drops)
{
    const qint64 size = 170'000'000;
    const QString path = work.filePath(QStringLiteral("1763977200_mixed.m4a"));
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly))
            fail(QStringLiteral("cannot make the 170 MB file"));
        QByteArray block(1024 * 1024, Qt::Uninitialized);
        for (qsizetype i = 0; i < block.size(); ++i)
            block[i] = static_cast<char>((i * 2654435761U) >> 24);
        for (qint64 written = 0; written < size; written += block.size()) {
            block[0] = static_cast<char>(written >> 20); // no two blocks alike
            if (file.write(block.constData(), std::min<qint64>(block.size(), size - written)) < 0)
                fail(QStringLiteral("cannot write the 170 MB file"));
        }
    }
    const QByteArray expected = sha256Of(path);
    const auto admin = [&](const QByteArray &method, const char *route, const QByteArray &body) {
        return QJsonDocument::fromJson(blockingCall(
            network, method, baseUrl.resolved(QUrl(QString::fromLatin1(route))), body, adminToken));
    };
    admin("POST", "/admin/reset", "{}");
    admin("POST", "/admin/faults",
        QStringLiteral(R"({"path":"/uploads/*","method":"PUT","afterBytes":%1,"drop":true,"count":%2})")
            .arg(size / 3)
            .arg(drops)
            .toUtf8());
    SessionStore store(SessionStore::Load::nothing);
    store.setSession(SessionPayload::fromJson(admin("POST", "/admin/sessions", "{}").object()));
    const SendPipeline pipeline(api, store, std::make_shared<NoWaitClock>(), nullptr);
    QObject owner;
    QElapsedTimer clock;
    clock.start();
    const auto outcome = run(pipeline.send(path, QDateTime::currentDateTimeUtc(), 7200, &owner, {}));
    DroppedRun result;
    result.seconds = static_cast<double>(clock.elapsed()) / 1000.0;
    result.drops = drops;
    for (const QJsonValue request : admin("GET", "/admin/requests", {}).array())
        result.attempts += request[QLatin1String("method")].toString() == QLatin1String("PUT");
    const QJsonArray notes = admin("GET", "/admin/notes", {}).array();
    const QString key = notes.isEmpty() ? QString() : notes.first()[QLatin1String("recordingKey")].toString();
    result.intact = outcome && outcome->state.is(RecorderState::Kind::sent) && notes.size() == 1
        && sha256Of(work.filePath(QStringLiteral("service/uploads/") + key)) == expected;
    admin("POST", "/admin/reset", "{}");
    return result;
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
    const DroppedRun dropped = sendThroughDrops(network, api, baseUrl, adminToken, work, 3);

    const double ratio = bestClient / bestCurl;
    std::printf(
        "file: %lld MiB (sparse), %d rounds, best of each side\n", static_cast<long long>(sizeMiB), rounds);
    std::printf("client: %.1f MiB/s\n", bestClient);
    std::printf("curl:   %.1f MiB/s\n", bestCurl);
    std::printf("rss idle: %.1f MiB, peak during upload: %.1f MiB%s\n", static_cast<double>(idleKiB) / 1024.0,
        static_cast<double>(peakKiB) / 1024.0, peakReset ? "" : " (peak not resettable)");
    std::printf("170 MB through %d dropped connections: %d PUTs, %s, %.1f s\n", dropped.drops,
        dropped.attempts, dropped.intact ? "one note, bytes intact" : "NOT intact", dropped.seconds);
    std::printf("ratio=%.2f rss_growth_mib=%.1f drops=%d attempts=%d intact=%d seconds=%.1f\n", ratio,
        worstGrowthMiB, dropped.drops, dropped.attempts, int(dropped.intact), dropped.seconds);
    std::fflush(stdout);

    // An idle keep-alive connection would hold one of the service's workers until it
    // times out, delaying its exit by seconds.
    network.clearConnectionCache();
    service.terminate();
    if (!service.waitForFinished(5000)) {
        service.kill();
        service.waitForFinished(5000);
    }
    return ratio >= 0.5 && worstGrowthMiB < 32.0 && dropped.intact ? 0 : 1;
}
