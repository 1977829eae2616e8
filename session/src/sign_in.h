// Getting a code with the device's linked account and exchanging it: grant, else web login.
#ifndef ORBA_SESSION_SIGN_IN_H
#define ORBA_SESSION_SIGN_IN_H

#include "failure.h"
#include "orbaoauth2session/session.h"
#include "token_endpoint.h"
#include "transfer.h"

namespace ORBA::OAuth2Session {

TokenReply signIn(const Settings& settings, Call& call, Transfer& transfer);

}  // namespace ORBA::OAuth2Session

#endif
