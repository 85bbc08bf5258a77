#pragma once

#include <QString>

#include <optional>

// Reads claims out of a service token without verifying it: the service checks
// the signature, the recorder only needs to know which account it is sending for.
namespace JwtClaims {

// The account id, which the service puts in the claim "id" (not the usual "sub").
// Malformed tokens give nothing: not exactly three non-empty dot-separated pieces,
// a payload that is not base64url, not JSON, not an object, or an "id" that is
// not a string.
[[nodiscard]] std::optional<QString> subject(const QString &token);

} // namespace JwtClaims
