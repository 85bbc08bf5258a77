#include "account/KeychainError.h"

QString KeychainError::description() const
{
    return QStringLiteral("keychain error %1: %2").arg(static_cast<int>(code)).arg(message);
}
