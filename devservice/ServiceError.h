#pragma once

#include <QString>

// Why the service turns a request down: what kind of refusal it is, and the code a
// client reads in {"error": code}. The HTTP face picks the status from the kind
// (Answer::refusal), so the rules here never speak HTTP.
struct ServiceError
{
    enum class Kind {
        Rejected, // the request breaks a rule, or is early ("authorization_pending")
        Unauthenticated, // no token, or not one of ours
        Forbidden, // a pre-signed upload that does not allow this PUT
        NotFound,
        AlreadyUsed,
        Expired,
    };

    Kind kind = Kind::Rejected;
    QString code;
};
