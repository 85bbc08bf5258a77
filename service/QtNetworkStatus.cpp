#include "service/QtNetworkStatus.h"

#include "common/Logging.h"

#include <QNetworkInformation>

bool QtNetworkStatus::offline() const
{
    // Loaded once for the process: QNetworkInformation is a process-wide instance.
    static const bool loaded = [] {
        const bool found
            = QNetworkInformation::loadBackendByFeatures(QNetworkInformation::Feature::Reachability);
        if (!found)
            qCInfo(lcApi, "no network information: offline is known only from failed requests");
        return found;
    }();
    const QNetworkInformation *information = loaded ? QNetworkInformation::instance() : nullptr;
    return information && information->reachability() == QNetworkInformation::Reachability::Disconnected;
}
