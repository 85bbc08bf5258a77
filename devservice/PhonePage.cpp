#include "PhonePage.h"

#include <QDateTime>
#include <QJsonObject>

namespace {
QString escaped(const QString &text)
{
    return text.toHtmlEscaped();
}

QString field(const QString &name, const QString &value)
{
    return QStringLiteral("<dt>%1</dt><dd>%2</dd>").arg(escaped(name), escaped(value));
}

QString display(const QJsonValue &value)
{
    if (value.isString())
        return value.toString().isEmpty() ? QStringLiteral("\"\"") : value.toString();
    if (value.isBool())
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    if (value.isDouble())
        return QString::number(value.toDouble(), 'g', 15);
    return QStringLiteral("—");
}

// "4 Mar 2025, 10:11:12 UTC" for an ISO 8601 time; anything else as it came.
QString friendlyTime(const QJsonValue &value)
{
    const QDateTime time = QDateTime::fromString(value.toString(), Qt::ISODateWithMs);
    return time.isValid() ? time.toUTC().toString(QStringLiteral("d MMM yyyy, HH:mm:ss 'UTC'"))
                          : display(value);
}

// "1:05" for 65 seconds.
QString clock(const QJsonValue &seconds)
{
    if (!seconds.isDouble())
        return display(seconds);
    const qint64 total = static_cast<qint64>(seconds.toDouble());
    return QStringLiteral("%1:%2").arg(total / 60).arg(total % 60, 2, 10, QLatin1Char('0'));
}

QString describeDevice(const QJsonObject &device)
{
    const QString model = device.value(QLatin1String("model")).toString();
    const QString type = device.value(QLatin1String("type")).toString();
    const QString version = device.value(QLatin1String("appVersion")).toString();
    QString text = model.isEmpty() ? QStringLiteral("A computer") : model;
    if (!type.isEmpty())
        text += QStringLiteral(" · ") + type;
    if (!version.isEmpty())
        text += QStringLiteral(" · recorder ") + version;
    return text;
}

const char style[] = R"(
:root { color-scheme: light dark; --bg: #fcfaf8; --card: #ffffff; --ink: #1d1b19; --muted: #6f6a64;
        --line: #e8e3dd; --accent: #d9482b; --accent-ink: #ffffff; }
@media (prefers-color-scheme: dark) {
  :root { --bg: #171615; --card: #22201e; --ink: #f2eee9; --muted: #a39c94; --line: #37332f; }
}
* { box-sizing: border-box; }
body { margin: 0; background: var(--bg); color: var(--ink);
       font: 16px/1.45 system-ui, -apple-system, "Segoe UI", Roboto, sans-serif; }
main { max-width: 560px; margin: 0 auto; padding: 16px 16px 48px; }
header { display: flex; align-items: baseline; justify-content: space-between; gap: 12px; }
h1 { font-size: 1.35rem; margin: 8px 0 16px; }
h2 { font-size: 0.8rem; text-transform: uppercase; letter-spacing: .06em; color: var(--muted); margin: 28px 0 10px; }
a { color: var(--accent); }
.card { background: var(--card); border: 1px solid var(--line); border-radius: 14px; padding: 14px 16px; margin: 0 0 12px; }
.code { font: 600 1.6rem/1.2 ui-monospace, "SF Mono", Menlo, monospace; letter-spacing: .08em; }
.muted { color: var(--muted); font-size: .9rem; }
.actions { display: flex; gap: 8px; margin-top: 12px; flex-wrap: wrap; }
.actions form { flex: 1 1 140px; margin: 0; }
button { width: 100%; min-height: 44px; border-radius: 22px; border: 1px solid var(--accent); font: inherit;
         font-weight: 600; background: var(--accent); color: var(--accent-ink); cursor: pointer; }
button.secondary { background: transparent; color: var(--accent); }
.notice { border-radius: 10px; padding: 10px 14px; margin-bottom: 12px; background: var(--card); border: 1px solid var(--line); }
.notice.ok { border-color: #3c9a5f; } .notice.error { border-color: var(--accent); }
audio { width: 100%; margin: 10px 0 4px; }
dl { display: grid; grid-template-columns: max-content 1fr; gap: 2px 12px; margin: 8px 0 0; font-size: .9rem; }
dt { color: var(--muted); } dd { margin: 0; overflow-wrap: anywhere; }
.empty { color: var(--muted); font-style: italic; }
)";
} // namespace

QByteArray PhonePage::render(const QJsonArray &pairings, const QJsonArray &notes, const QString &result)
{
    QString html;
    html += QStringLiteral("<!doctype html><html lang=\"en\"><head><meta charset=\"utf-8\">"
                           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
                           "<title>Selvaro — local note service</title><style>")
        + QLatin1String(style) + QStringLiteral("</style></head><body><main>");
    html += QStringLiteral("<header><h1>Selvaro notes</h1><a href=\"/\">Refresh</a></header>");

    if (result == QLatin1String("linked"))
        html += QStringLiteral("<div class=\"notice ok\">The computer is linked.</div>");
    else if (!result.isEmpty())
        html += QStringLiteral("<div class=\"notice error\">Could not link: %1</div>").arg(escaped(result));

    html += QStringLiteral("<h2>Link requests</h2>");
    int pending = 0;
    for (auto it = pairings.end(); it != pairings.begin();) {
        const QJsonObject pairing = (*--it).toObject();
        if (pairing.value(QLatin1String("state")).toString() != QLatin1String("pending")
            || pairing.value(QLatin1String("expired")).toBool())
            continue;
        ++pending;
        const QString code = pairing.value(QLatin1String("userCode")).toString();
        const auto button = [&code](bool anonymous, const QString &label) {
            return QStringLiteral("<form method=\"post\" action=\"/admin/pairings/confirm\">"
                                  "<input type=\"hidden\" name=\"userCode\" value=\"%1\">"
                                  "<input type=\"hidden\" name=\"anonymous\" value=\"%2\">"
                                  "<button type=\"submit\"%3>%4</button></form>")
                .arg(escaped(code), anonymous ? QStringLiteral("1") : QStringLiteral("0"),
                    anonymous ? QStringLiteral(" class=\"secondary\"") : QString(), label);
        };
        html += QStringLiteral(
            "<section class=\"card\"><div class=\"code\">%1</div>"
            "<div class=\"muted\">%2 · expires %3</div><div class=\"actions\">%4%5</div></section>")
                    .arg(escaped(code),
                        escaped(describeDevice(pairing.value(QLatin1String("device")).toObject())),
                        escaped(friendlyTime(pairing.value(QLatin1String("expiresAt")))),
                        button(false, QStringLiteral("Link, signed in")),
                        button(true, QStringLiteral("Link anonymously")));
    }
    if (pending == 0)
        html += QStringLiteral("<p class=\"empty\">No computer is waiting to be linked.</p>");

    html += QStringLiteral("<h2>Notes</h2>");
    for (const QJsonValue &value : notes) {
        const QJsonObject note = value.toObject();
        const QJsonObject body = note.value(QLatin1String("body")).toObject();
        const QString key = note.value(QLatin1String("recordingKey")).toString();
        html += QStringLiteral("<article class=\"card\"><div><strong>%1</strong></div>"
                               "<div class=\"muted\">%2 · received %3</div>"
                               "<audio controls preload=\"metadata\" src=\"/files/%4\"></audio><dl>")
                    .arg(escaped(friendlyTime(body.value(QLatin1String("startedAt")))),
                        escaped(clock(body.value(QLatin1String("duration")))),
                        escaped(friendlyTime(note.value(QLatin1String("createdAt")))), escaped(key));
        html += field(QStringLiteral("note"), note.value(QLatin1String("id")).toString());
        for (auto it = body.begin(); it != body.end(); ++it)
            html += field(it.key(), display(it.value()));
        html += field(QStringLiteral("size"),
            display(note.value(QLatin1String("recordingSize"))) + QStringLiteral(" bytes"));
        html += QStringLiteral("</dl></article>");
    }
    if (notes.isEmpty())
        html += QStringLiteral("<p class=\"empty\">No notes yet. Record something and press Save.</p>");

    html += QStringLiteral("</main></body></html>\n");
    return html.toUtf8();
}
