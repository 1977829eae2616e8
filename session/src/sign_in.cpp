#include "sign_in.h"

#include <json/value.h>
#include <orbaoauth2client/oauth2.h>

#include <new>
#include <optional>
#include <string>
#include <vector>

#include "encoding.h"
#include "secrets.h"
#include "settings.h"

namespace ORBA::OAuth2Session {
namespace {

constexpr int kMaxRedirects = 10;

bool startsWith(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

// Our parameters come before those of the endpoint's own query, because liborbaoauth2client takes
// the first match.
std::string authorizationUrl(const Settings& settings, const std::string& state,
                             const std::string& verifier) {
    Parameters parameters = {{"response_type", "code"},
                             {"client_id", settings.clientId},
                             {"redirect_uri", settings.redirectUri},
                             {"scope", settings.scope},
                             {"state", state}};
    if (!verifier.empty()) {
        parameters.emplace_back("code_challenge", challengeOf(verifier));
        parameters.emplace_back("code_challenge_method", "S256");
    }
    const std::string& endpoint = settings.authorizationEndpoint;
    const std::string::size_type query = endpoint.find('?');
    std::string url = endpoint.substr(0, query) + "?" + formEncode(parameters);
    if (query != std::string::npos && query + 1 < endpoint.size()) {
        url += "&" + endpoint.substr(query + 1);
    }
    return url;
}

bool isCallback(const std::string& url, const Settings& settings) {
    return startsWith(url, callbackPrefix(settings));
}

// Without the redirect URI's own query.
std::string queryOfCallback(const std::string& callback, const Settings& settings) {
    if (!isCallback(callback, settings)) {
        return "";
    }
    return "?" + callback.substr(callbackPrefix(settings).size());
}

// The code of a callback, of which nothing is believed before its state is.
std::string codeOfCallback(const std::string& callback, const Settings& settings,
                           const std::string& state, const std::string& verifier) {
    const std::string& server = settings.authorizationEndpoint;
    const std::string query = queryOfCallback(callback, settings);
    if (!equalSecrets(queryParameter(query, "state").value_or(""), state)) {
        fail(kOtherState, "The callback of " + hostOf(server) + " has another state");
    }
    const std::string error = queryParameter(query, "error").value_or("");
    if (isServerError(error, {state, verifier})) {
        throw failureOfServerError(error, server, false);
    }
    std::string code = queryParameter(query, "code").value_or("");
    if (code.empty()) {
        fail(kSenselessReply, "The callback of " + hostOf(server) + " has neither code nor error");
    }
    return code;
}

// The account service's own grant, a code or a callback; nothing when it gives none.
std::optional<std::string> askForGrant(const std::string& url, Call& call) {
    try {
        // An empty cookie path ends it before its web flow makes a request.
        std::string grant = OAuth2Client::OAuth2(url, "").loginServiceByOrbaAccount();
        call.asked = true;
        return grant;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const OAuth2Client::OAuth2ClientException& exception) {
        call.asked = call.asked || exception.errCode() != kInvalidParameter;
    } catch (...) {
        call.asked = true;
    }
    return std::nullopt;
}

void logUselessGrant(const Failure& failure) {
    logWarning("The account service's grant is of no use. " + failure.text);
}

std::optional<std::string> codeByGrant(const Settings& settings, Call& call,
                                       const std::string& state) {
    std::optional<std::string> grant = askForGrant(authorizationUrl(settings, state, ""), call);
    if (!grant || grant->empty() || !startsWith(*grant, settings.redirectUri)) {
        return grant;
    }
    try {
        return codeOfCallback(*grant, settings, state, "");
    } catch (const Failure& failure) {
        logUselessGrant(failure);
        return std::nullopt;
    }
}

// A server may demand a challenge for every code, and the grant has none: only a failure that
// passes with time is final.
bool isFinal(const Failure& failure) {
    return failure.remedy == Remedy::cancelled ||
           (failure.remedy == Remedy::tryLater && failure.serverError != "invalid_grant");
}

// Tokens by the grant; nothing when the web login should be tried.
std::optional<TokenReply> signInByGrant(const Settings& settings, Call& call,
                                        TokenEndpoint& endpoint) {
    const std::string state = randomText();
    const std::optional<std::string> code = codeByGrant(settings, call, state);
    if (!code || code->empty()) {
        return std::nullopt;
    }
    try {
        TokenReply reply = endpoint.exchange(*code, "", state);
        if (!reply.failure || isFinal(*reply.failure)) {
            return reply;
        }
        logUselessGrant(*reply.failure);
    } catch (const Failure& failure) {
        if (isFinal(failure)) {
            throw;
        }
        logUselessGrant(failure);
    }
    return std::nullopt;
}

// Has the account service log the device in; gives the URL at which the web login continues.
std::string logIn(const std::string& challenge, const Call& call) {
    Json::Value reply(Json::objectValue);
    call.check();
    try {
        OAuth2Client::OAuth2("", "").loginIDP(reply, challenge);
    } catch (const OAuth2Client::OAuth2ClientException& exception) {
        // Its text may quote the whole reply.
        const int code =
            exception.errCode() == kUnexpectedException ? kSenselessReply : exception.errCode();
        fail(code, "The account service did not log the device in: code " +
                       std::to_string(exception.errCode()));
    }
    std::string target = textMember(reply, "redirect_to");
    if (target.empty()) {
        fail(kSenselessReply, "The account service named no URL to continue the login at");
    }
    return target;
}

class WebLogin {
  public:
    WebLogin(const Settings& theSettings, Call& theCall, Transfer& theTransfer)
        : settings(theSettings), call(theCall), transfer(theTransfer) {}

    TokenReply signIn(TokenEndpoint& endpoint) {
        const std::string url = authorizationUrl(settings, state, verifier);
        std::string target = redirectOf(url, kLoginChallengeFailed);
        if (!isCallback(target, settings)) {
            const std::string challenge = queryParameter(target, "login_challenge").value_or("");
            if (challenge.empty()) {
                fail(kLoginChallengeFailed, hostOf(url) + " sent no login challenge");
            }
            target = followUntilCallback(logIn(challenge, call));
        }
        return endpoint.exchange(codeOfCallback(target, settings, state, verifier), verifier,
                                 state);
    }

  private:
    // Where a GET leads; a reply that leads nowhere fails with the code.
    std::string redirectOf(const std::string& url, int code) {
        const Reply reply = transfer.get(url);
        checkStatus(reply, url, {state, verifier});
        if (!reply.isRedirect()) {
            Failure failure = makeFailure(code, hostOf(url) + " replied with HTTP status " +
                                                    std::to_string(reply.status) +
                                                    " where the login needs a redirect");
            failure.retryAfter = reply.retryAfter;
            throw std::move(failure);
        }
        return reply.redirect;
    }

    std::string followUntilCallback(const std::string& begin) {
        std::string url = begin;
        for (int redirects = 0; redirects <= kMaxRedirects; ++redirects) {
            if (isCallback(url, settings)) {
                return url;
            }
            if (!startsWith(url, "https://")) {
                fail(kCallbackFailed, "The web login leads to a URL that is not https");
            }
            if (redirects < kMaxRedirects) {
                url = redirectOf(url, kCallbackFailed);
            }
        }
        fail(kCallbackFailed, "The web login did not reach the callback in " +
                                  std::to_string(kMaxRedirects) + " redirects");
    }

    const Settings& settings;
    Call& call;
    Transfer& transfer;
    const std::string state = randomText();
    const std::string verifier = randomText();
};

}  // namespace

TokenReply signIn(const Settings& settings, Call& call, Transfer& transfer) {
    TokenEndpoint endpoint(settings, transfer);
    if (std::optional<TokenReply> reply = signInByGrant(settings, call, endpoint)) {
        return *reply;
    }
    return WebLogin(settings, call, transfer).signIn(endpoint);
}

}  // namespace ORBA::OAuth2Session
