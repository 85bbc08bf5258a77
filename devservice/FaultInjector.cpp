#include "FaultInjector.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>

#include <limits>

bool FaultInjector::Fault::matches(const QString &requestMethod, const QString &requestPath) const
{
    if (!method.isEmpty() && method.compare(requestMethod, Qt::CaseInsensitive) != 0)
        return false;
    if (path.endsWith(QLatin1Char('*')))
        return requestPath.startsWith(QStringView(path).chopped(1));
    return requestPath == path;
}

QString FaultInjector::add(const QJsonObject &definition)
{
    Fault fault;
    const QJsonValue path = definition.value(QStringLiteral("path"));
    if (path.isUndefined())
        return QStringLiteral("missing_path");
    if (!path.isString() || !path.toString().startsWith(QLatin1Char('/')))
        return QStringLiteral("invalid_path");
    fault.path = path.toString();

    const auto optionalInt = [&definition](const QString &name, int minimum, int maximum, int *out) {
        const QJsonValue value = definition.value(name);
        if (value.isUndefined() || value.isNull())
            return true;
        const double number = value.toDouble(-1e18);
        if (!value.isDouble() || number != static_cast<double>(static_cast<qint64>(number))
            || number < minimum || number > maximum)
            return false;
        *out = static_cast<int>(number);
        return true;
    };
    if (!optionalInt(QStringLiteral("count"), 1, 1000000, &fault.count))
        return QStringLiteral("invalid_count");
    if (!optionalInt(QStringLiteral("status"), 100, 599, &fault.status))
        return QStringLiteral("invalid_status");
    if (!optionalInt(QStringLiteral("delayMs"), 0, 600000, &fault.delayMs))
        return QStringLiteral("invalid_delayMs");
    int afterBytes = -1;
    if (!optionalInt(QStringLiteral("afterBytes"), 0, std::numeric_limits<int>::max(), &afterBytes))
        return QStringLiteral("invalid_afterBytes");
    fault.afterBytes = afterBytes;

    const QJsonValue method = definition.value(QStringLiteral("method"));
    if (!method.isUndefined() && !method.isNull()) {
        if (!method.isString())
            return QStringLiteral("invalid_method");
        fault.method = method.toString().toUpper();
    }
    const QJsonValue body = definition.value(QStringLiteral("body"));
    if (body.isString())
        fault.body = body.toString().toUtf8();
    else if (body.isObject())
        fault.body = QJsonDocument(body.toObject()).toJson(QJsonDocument::Compact);
    else if (body.isArray())
        fault.body = QJsonDocument(body.toArray()).toJson(QJsonDocument::Compact);
    else if (!body.isUndefined() && !body.isNull())
        return QStringLiteral("invalid_body");
    const QJsonValue contentType = definition.value(QStringLiteral("contentType"));
    if (!contentType.isUndefined() && !contentType.isString())
        return QStringLiteral("invalid_contentType");
    // A body given as JSON text is served as JSON, like the service's own errors.
    const bool jsonText = !body.isString() || !QJsonDocument::fromJson(fault.body).isNull();
    fault.contentType
        = contentType.toString(jsonText ? QStringLiteral("application/json") : QStringLiteral("text/plain"))
              .toUtf8();
    const QJsonValue headers = definition.value(QStringLiteral("headers"));
    if (!headers.isUndefined()) {
        if (!headers.isObject())
            return QStringLiteral("invalid_headers");
        const QJsonObject object = headers.toObject();
        for (auto it = object.begin(); it != object.end(); ++it) {
            if (!it.value().isString())
                return QStringLiteral("invalid_headers");
            fault.headers.append({ it.key().toUtf8(), it.value().toString().toUtf8() });
        }
    }
    const QJsonValue drop = definition.value(QStringLiteral("drop"));
    if (!drop.isUndefined() && !drop.isBool())
        return QStringLiteral("invalid_drop");
    fault.drop = drop.toBool();

    const std::lock_guard lock(m_mutex);
    m_faults.append(fault);
    return {};
}

std::optional<FaultInjector::Fault> FaultInjector::take(const QString &method, const QString &path)
{
    const std::lock_guard lock(m_mutex);
    for (auto it = m_faults.begin(); it != m_faults.end(); ++it) {
        if (!it->matches(method, path))
            continue;
        Fault fault = *it;
        if (--it->count == 0)
            m_faults.erase(it);
        return fault;
    }
    return std::nullopt;
}

void FaultInjector::clear()
{
    const std::lock_guard lock(m_mutex);
    m_faults.clear();
}
