// The layouts of the records that callers fill, as this compiler sees them. Those of the classes
// are held by the unit tests.

#include <cstddef>

#include "orbaoauth2client/pkce.h"

using Exchange = ORBA::OAuth2Client::PKCE::ParamGetAccessToken;
static_assert(offsetof(Exchange, tokenFilePath) == 0);
static_assert(offsetof(Exchange, tokenURL) == 32);
static_assert(offsetof(Exchange, clientID) == 64);
static_assert(offsetof(Exchange, code) == 96);
static_assert(offsetof(Exchange, codeVerifier) == 128);
static_assert(offsetof(Exchange, redirectURI) == 160);
static_assert(sizeof(Exchange) == 192);

using Refresh = ORBA::OAuth2Client::PKCE::ParamRefreshAccessToken;
static_assert(offsetof(Refresh, tokenFilePath) == 0);
static_assert(offsetof(Refresh, tokenURL) == 32);
static_assert(offsetof(Refresh, clientID) == 64);
static_assert(sizeof(Refresh) == 96);
