#pragma once

#include "account/KeychainError.h"

#include <QByteArray>
#include <QString>

#include <qcoro/qcorotask.h>

#include <optional>

// The application's items in the desktop's secret store, reached through QtKeychain
// (on Linux the Secret Service: GNOME Keyring, KWallet, KeePassXC). Every item
// belongs to the service "app.selvaro.recorder" and is named by an account string;
// the application uses one account, "session".
//
// QtKeychain's plaintext fallback is always off: without a secret store, writes fail
// with KeychainError instead of leaving the token in a settings file.
//
// On the Secret Service an item carries the attributes server = the service,
// user = the account and type = "plaintext" (QtKeychain's schema "org.qt.keychain"), so
//   secret-tool lookup server app.selvaro.recorder user session
// prints it.
//
// Main thread only. Each call returns at once; the work happens in the secret store
// and the coroutine resumes on the main thread when it answers — which may take as
// long as an unlock prompt stays open, so the event loop must never wait on it.
// QtKeychain runs its jobs one after another in the order they were started.
namespace Keychain {

inline constexpr char service[] = "app.selvaro.recorder";
inline constexpr char sessionAccount[] = "session";

// The item's data; nothing when there is no such item or the store cannot be
// read (no secret service, a locked collection whose unlock was refused).
[[nodiscard]] QCoro::Task<std::optional<QByteArray>> read(const QString &account);

// Adds the item or replaces its data. Nothing on success; the error otherwise.
[[nodiscard]] QCoro::Task<std::optional<KeychainError>> write(const QString &account, const QByteArray &data);

// Removes the item. Failures (no item, no store) are deliberately not reported:
// the callers forget the session in memory either way.
QCoro::Task<> remove(const QString &account);

} // namespace Keychain
