#pragma once

#include "app/UpdateFeed.h"

#include <QObject>
#include <QUrl>

#include <qcoro/qcorotask.h>

class QNetworkAccessManager;

// "Check for Updates…": reads the build's update feed and says whether a newer
// build exists. Without a feed (the default; distributions update through their
// package manager) the command is inert.
//
// Thread contract: main thread; the check is a coroutine on it.
class Updater : public QObject
{
    Q_OBJECT

public:
    struct Check
    {
        enum class Outcome { upToDate, available, failed };
        Outcome outcome = Outcome::failed;
        UpdateFeed feed; // set when available or up to date
        QString description; // set when failed: why, in a sentence
    };

    // `feed` is the compiled-in SELVARO_UPDATE_FEED unless a test passes another.
    explicit Updater(QNetworkAccessManager *network, QUrl feed = compiledFeed(),
        qint64 runningBuild = compiledBuild(), QObject *parent = nullptr);

    [[nodiscard]] bool isConfigured() const { return m_feed.isValid() && !m_feed.isEmpty(); }
    [[nodiscard]] QCoro::Task<Check> check() const;

    [[nodiscard]] static QUrl compiledFeed();
    [[nodiscard]] static qint64 compiledBuild();

private:
    QNetworkAccessManager *m_network;
    const QUrl m_feed;
    const qint64 m_runningBuild;
};
