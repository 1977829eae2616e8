// The token endpoint: exchange, refresh, revocation; its replies (RFC 6749, 5.1 and 5.2).
#ifndef ORBA_SESSION_TOKEN_ENDPOINT_H
#define ORBA_SESSION_TOKEN_ENDPOINT_H

#include <json/value.h>

#include <optional>
#include <string>

#include "encoding.h"
#include "failure.h"
#include "orbaoauth2session/session.h"
#include "transfer.h"

namespace ORBA::OAuth2Session {

// What a reply or the token file says; an empty text: nothing.
struct Tokens {
    std::string accessToken;
    std::string tokenType;
    std::string refreshToken;
    std::string scope;
    std::string idToken;
    std::optional<milliseconds> lifetime;
    std::optional<milliseconds> expiresAt;  // since 1970
    nanoseconds sent{};                     // on bootTime(); of replies only
};

struct TokenReply {
    Tokens tokens;                   // of a failed one only a new refresh token
    std::optional<Failure> failure;  // the reply is no tokens
    bool refused = false;            // ... because the refresh token is no longer good
};

// The members of a reply or a token file, each empty unless it obeys RFC 6749.
Tokens readTokens(const Json::Value& object);

// Throws when the reply is neither 2xx nor 3xx. `sent`: the secrets of the request.
void checkStatus(const Reply& reply, const std::string& url, const std::vector<std::string>& sent);

class TokenEndpoint {
  public:
    TokenEndpoint(const Settings& theSettings, Transfer& theTransfer)
        : settings(theSettings), transfer(theTransfer) {}

    // A code of the account service's grant has no verifier. The state belongs to the code.
    TokenReply exchange(const std::string& code, const std::string& verifier,
                        const std::string& state);
    TokenReply refresh(const std::string& refreshToken);
    // Throws when the server does not confirm it.
    void revoke(const std::string& token, const char* kind);

  private:
    TokenReply request(const Parameters& form, const std::vector<std::string>& secrets,
                       bool isRefresh);

    const Settings& settings;
    Transfer& transfer;
};

}  // namespace ORBA::OAuth2Session

#endif
