#include "app/Updater.h"

#include "BuildInfo.h"
#include "common/Logging.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

#include <qcoro/qcoronetworkreply.h>

#include <memory>

namespace {
// A feed is a few hundred bytes; anything near this is not one.
constexpr qint64 maxFeedBytes = 64 * 1024;
constexpr int feedTimeoutMs = 30000;
} // namespace

Updater::Updater(QNetworkAccessManager *network, QUrl feed, qint64 runningBuild, QObject *parent)
    : QObject(parent)
    , m_network(network)
    , m_feed(std::move(feed))
    , m_runningBuild(runningBuild)
{ }

QUrl Updater::compiledFeed()
{
    return QUrl(QString::fromUtf8(BuildInfo::updateFeed), QUrl::StrictMode);
}

qint64 Updater::compiledBuild()
{
    return QByteArray(BuildInfo::buildNumber).toLongLong();
}

QCoro::Task<Updater::Check> Updater::check() const
{
    if (!isConfigured())
        co_return Check { Check::Outcome::failed, {}, tr("This build has no update feed.") };

    QNetworkRequest request(m_feed);
    request.setTransferTimeout(feedTimeoutMs);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    const std::unique_ptr<QNetworkReply, void (*)(QNetworkReply *)> reply(
        m_network->get(request), [](QNetworkReply *r) { r->deleteLater(); });
    co_await reply.get();

    if (reply->error() != QNetworkReply::NoError) {
        qCWarning(lcApp, "update check failed: %s", qUtf8Printable(reply->errorString()));
        co_return Check { Check::Outcome::failed, {}, reply->errorString() };
    }
    const std::optional<UpdateFeed> feed = UpdateFeed::parse(reply->read(maxFeedBytes));
    if (!feed) {
        qCWarning(lcApp, "update feed %s is not a feed", qUtf8Printable(m_feed.toDisplayString()));
        co_return Check { Check::Outcome::failed, {}, tr("The update information could not be read.") };
    }
    qCInfo(lcApp, "update feed: build %lld, running %lld", feed->build, m_runningBuild);
    co_return Check {
        feed->isNewerThan(m_runningBuild) ? Check::Outcome::available : Check::Outcome::upToDate, *feed, {}
    };
}
