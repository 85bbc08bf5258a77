#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <optional>

// The update feed a build may be pointed at (SELVARO_UPDATE_FEED): one small JSON
// document describing the newest release,
//
//   {"version": "0.2.0", "build": 7, "url": "https://example.org/selvaro-recorder"}
//
// "build" is compared with the build number compiled in; "url" is the page the
// user is sent to (Linux users mostly install from a package or an archive, so
// the program downloads and installs nothing itself).
struct UpdateFeed
{
    QString version;
    qint64 build = 0;
    QUrl url;

    // Nothing when the document is not such an object, the build is not a
    // positive integer or the URL is not http(s).
    [[nodiscard]] static std::optional<UpdateFeed> parse(const QByteArray &json);
    [[nodiscard]] bool isNewerThan(qint64 runningBuild) const { return build > runningBuild; }
};
