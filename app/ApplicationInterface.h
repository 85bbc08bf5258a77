#pragma once

#include <QDBusVirtualObject>
#include <QString>

#include <functional>
#include <optional>

#include <qcoro/qcorotask.h>

// The one instance of the session: the bus name app.selvaro.recorder and, on
// /app/selvaro/recorder, org.freedesktop.Application — what a desktop calls for a
// launcher entry with DBusActivatable=true, and what a second start of the program
// calls. Activate raises the window; ActivateAction takes one of the recorder's
// actions ("toggle", "record", "pause", "save") and answers an error carrying the
// user's sentence when it could not be taken; Open is accepted and does nothing (the
// program opens no files).
//
// Thread contract: main thread only; an action's answer may come later (the secret
// store is read first), so the reply is sent when the action's task ends.
class ApplicationInterface : public QDBusVirtualObject
{
public:
    static constexpr const char *serviceName = "app.selvaro.recorder";
    static constexpr const char *objectPath = "/app/selvaro/recorder";
    static constexpr const char *interfaceName = "org.freedesktop.Application";
    // The error an action that could not be taken answers; its message is the sentence.
    static constexpr const char *notTakenError = "app.selvaro.recorder.Error.NotTaken";

    // Nothing when taken, else the user's sentence.
    using Action = std::function<QCoro::Task<std::optional<QString>>(QString name)>;

    // `activate` is given the desktop's activation token, if it sent one.
    ApplicationInterface(std::function<void(const QString &token)> activate, Action action);
    ~ApplicationInterface() override;

    enum class Claim {
        owned, // this process is the instance now
        elsewhere, // another process holds the name
        noBus, // no session bus: the program runs alone, as it always could
    };
    // Exports the interface and asks for the name.
    [[nodiscard]] Claim claim();

    [[nodiscard]] QString introspect(const QString &path) const override;
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override;

private:
    static QCoro::Task<> answer(Action action, QString name, QDBusMessage call);

    std::function<void(const QString &token)> m_activate;
    Action m_action;
    bool m_registered = false;
};
