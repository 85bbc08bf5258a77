#pragma once

#include <QString>

#include <qt6keychain/keychain.h>

// A failed secret-store operation: QtKeychain's error code and the backend's own
// text (for the Secret Service, libsecret's message, e.g. "Cannot create an item
// in a locked collection").
struct KeychainError
{
    QKeychain::Error code = QKeychain::OtherError;
    QString message;

    // The sentence that goes into log lines: "keychain error <code>: <message>".
    [[nodiscard]] QString description() const;

    friend bool operator==(const KeychainError &, const KeychainError &) = default;
};
