// An access token and what it is worth by this process's clock.
#ifndef ORBA_SESSION_HELD_TOKEN_H
#define ORBA_SESSION_HELD_TOKEN_H

#include "clock.h"
#include "orbaoauth2session/session.h"
#include "token_endpoint.h"

namespace ORBA::OAuth2Session {

// The times are on bootTime().
struct HeldToken {
    AccessToken token;
    nanoseconds since{};  // when it came
    nanoseconds expires = nanoseconds::max();
    nanoseconds due = nanoseconds::max();    // until then it is good for the margin
    nanoseconds early = nanoseconds::max();  // from then on it may be renewed early
};

HeldToken heldFromReply(const Tokens& tokens, const Settings& settings);

// `changed`: when the file was written.
HeldToken heldFromFile(const Tokens& tokens, milliseconds changed, const Settings& settings);

}  // namespace ORBA::OAuth2Session

#endif
