// The settings: checks, and what follows from them.
#ifndef ORBA_SESSION_SETTINGS_H
#define ORBA_SESSION_SETTINGS_H

#include <string>

#include "orbaoauth2session/session.h"

namespace ORBA::OAuth2Session {

// A copy of what a caller of that version knows; throws 34 for what cannot be used.
Settings checkedSettings(const Settings& settings, int version);

// What a callback begins with.
std::string callbackPrefix(const Settings& settings);

}  // namespace ORBA::OAuth2Session

#endif
