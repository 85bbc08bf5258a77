#include "service/DeviceInfo.h"

#include "BuildInfo.h"

#include <QFile>
#include <QLocale>
#include <QStringList>
#include <QSysInfo>

namespace {

// The firmware's description of the machine; empty where there is none (virtual
// machines without DMI, other architectures). Informational to the service.
QString dmiField(const char *name)
{
    QFile file(QStringLiteral("/sys/class/dmi/id/") + QLatin1String(name));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).trimmed();
}

QString shortVersion()
{
    const QString version = QString::fromUtf8(BuildInfo::shortVersion);
    return version.isEmpty() ? QStringLiteral("0") : version;
}

} // namespace

DeviceInfo DeviceInfo::current(const QString &vendorUuid)
{
    return DeviceInfo {
        .vendorUuid = vendorUuid,
        .appVersion = shortVersion(),
        // VERSION_ID of os-release; "unknown" on rolling distributions, which reads as 0.0.0.
        .osVersion = threePartVersion(QSysInfo::productVersion()),
        .type = QStringLiteral("linux"),
        .brand = dmiField("sys_vendor"),
        .model = dmiField("product_name"),
        .locale = QLocale().name(),
    };
}

QJsonObject DeviceInfo::toJson() const
{
    return { { QStringLiteral("vendorUuid"), vendorUuid }, { QStringLiteral("appVersion"), appVersion },
        { QStringLiteral("osVersion"), osVersion }, { QStringLiteral("type"), type },
        { QStringLiteral("brand"), brand }, { QStringLiteral("model"), model },
        { QStringLiteral("locale"), locale } };
}

QString DeviceInfo::threePartVersion(const QString &version)
{
    const QStringList parts = version.split(QLatin1Char('.'));
    QStringList numbers;
    for (int i = 0; i < 3; ++i) {
        qulonglong number = 0;
        if (i < parts.size()) {
            const QString &part = parts.at(i);
            qsizetype digits = 0;
            while (digits < part.size() && part.at(digits).isDigit() && part.at(digits).unicode() < 128)
                ++digits;
            number = part.left(digits).toULongLong();
        }
        numbers.append(QString::number(number));
    }
    return numbers.join(QLatin1Char('.'));
}
