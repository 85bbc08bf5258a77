#pragma once

#include <QObject>

namespace Permissions {
Q_NAMESPACE

// Whether the application may capture from a source, from the sound server's probe
// all the way to the screen: no server answered → unknown; the server refused, or
// has no such device → denied; a probe stream opened → granted.
enum class Permission { unknown, denied, granted };
Q_ENUM_NS(Permission)

} // namespace Permissions

using Permissions::Permission;
