#include "token_endpoint.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <utility>
#include <vector>

namespace ORBA::OAuth2Session {
namespace {

constexpr double kTenYears = 10.0 * 365 * 24 * 3600;

bool isAccessToken(const std::string& text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

std::optional<double> decimal(const std::string& text) {
    double number = 0;
    const char* const begin = text.data();
    const char* const end = begin + text.size();
    const bool startsWithDigit = text.find_first_of("0123456789") == (text[0] == '-' ? 1 : 0);
    const auto [stop, error] = std::from_chars(begin, end, number, std::chars_format::fixed);
    if (!startsWithDigit || stop != end) {
        return std::nullopt;
    }
    // Out of range is either far too long or next to nothing.
    return error == std::errc() ? number : text[0] >= '1' ? kTenYears : 0;
}

std::optional<milliseconds> readLifetime(const Json::Value& value) {
    std::optional<double> lifetime;
    if (value.isNumeric()) {
        lifetime = value.asDouble();
    } else if (value.isString()) {
        lifetime = decimal(value.asString());
    }
    if (!lifetime) {
        return std::nullopt;
    }
    return milliseconds(std::llround(std::clamp(*lifetime, 0.0, kTenYears) * 1000));
}

std::optional<milliseconds> readPointInTime(const Json::Value& value) {
    constexpr double kFarAhead = 1e12;
    if (!value.isNumeric() || std::abs(value.asDouble()) > kFarAhead) {
        return std::nullopt;
    }
    return milliseconds(std::llround(value.asDouble() * 1000));
}

// The `error` of a reply, if it counts.
std::string errorOf(const Reply& reply, const std::vector<std::string>& sent) {
    const std::optional<Json::Value> object = parseObject(reply.body);
    const std::string error = object ? textMember(*object, "error") : "";
    return countsInStatus(error, reply.status) && isServerError(error, sent) ? error : "";
}

Failure failureOf(const Reply& reply, const std::string& url, const std::string& error,
                  bool freshCode) {
    Failure failure = error.empty() ? failureOfStatus(reply.status, url)
                                    : failureOfServerError(error, url, freshCode);
    failure.retryAfter = reply.retryAfter;
    return failure;
}

// A reply that is no 200.
TokenReply judgeRefusal(const Reply& reply, const std::string& url,
                        const std::vector<std::string>& sent, bool isRefresh) {
    TokenReply result;
    const std::string error = errorOf(reply, sent);
    result.failure = failureOf(reply, url, error, !isRefresh);
    result.refused = isRefresh && error != "invalid_client" &&
                     (reply.status == 400 || reply.status == 401 || error == "invalid_grant");
    return result;
}

}  // namespace

Tokens readTokens(const Json::Value& object) {
    Tokens tokens;
    tokens.refreshToken = textMember(object, "refresh_token");
    tokens.tokenType = textMember(object, "token_type");
    const std::string accessToken = textMember(object, "access_token");
    if (isAccessToken(accessToken) && strcasecmp(tokens.tokenType.c_str(), "bearer") == 0) {
        tokens.accessToken = accessToken;
    }
    tokens.scope = textMember(object, "scope");
    tokens.idToken = textMember(object, "id_token");
    tokens.lifetime = readLifetime(object["expires_in"]);
    tokens.expiresAt = readPointInTime(object["expires_at"]);
    return tokens;
}

void checkStatus(const Reply& reply, const std::string& url, const std::vector<std::string>& sent) {
    if (reply.status / 100 != 2 && reply.status / 100 != 3) {
        throw failureOf(reply, url, errorOf(reply, sent), false);
    }
}

TokenReply TokenEndpoint::exchange(const std::string& code, const std::string& verifier,
                                   const std::string& state) {
    Parameters form = {{"grant_type", "authorization_code"},
                       {"code", code},
                       {"client_id", settings.clientId},
                       {"redirect_uri", settings.redirectUri}};
    if (!verifier.empty()) {
        form.emplace_back("code_verifier", verifier);
    }
    return request(form, {code, verifier, state}, false);
}

TokenReply TokenEndpoint::refresh(const std::string& refreshToken) {
    return request({{"grant_type", "refresh_token"},
                    {"refresh_token", refreshToken},
                    {"client_id", settings.clientId}},
                   {refreshToken}, true);
}

void TokenEndpoint::revoke(const std::string& token, const char* kind) {
    const Parameters form = {
        {"token", token}, {"token_type_hint", kind}, {"client_id", settings.clientId}};
    const Reply reply = transfer.post(settings.revocationEndpoint, formEncode(form));
    checkStatus(reply, settings.revocationEndpoint, {token});
    if (reply.status / 100 != 2) {
        throw failureOfStatus(reply.status, settings.revocationEndpoint);
    }
}

TokenReply TokenEndpoint::request(const Parameters& form, const std::vector<std::string>& secrets,
                                  bool isRefresh) {
    const std::string& url = settings.tokenEndpoint;
    const nanoseconds sent = bootTime();
    const milliseconds sentAt = wallTime();
    const Reply reply = transfer.post(url, formEncode(form));
    if (reply.status != 200) {
        return judgeRefusal(reply, url, secrets, isRefresh);
    }
    TokenReply result;
    const std::optional<Json::Value> object = parseObject(reply.body);
    if (!object) {
        result.failure =
            makeFailure(kParseJsonFailed, hostOf(url) + " sent tokens that are no JSON object");
        result.failure->retryAfter = reply.retryAfter;
        return result;
    }
    result.tokens = readTokens(*object);
    result.tokens.sent = sent;
    result.tokens.expiresAt.reset();
    if (result.tokens.lifetime) {
        result.tokens.expiresAt = sentAt + *result.tokens.lifetime;
    }
    if (result.tokens.accessToken.empty()) {
        result.failure = makeFailure(kSenselessReply, hostOf(url) + " sent no usable access token");
        result.failure->retryAfter = reply.retryAfter;
    }
    return result;
}

}  // namespace ORBA::OAuth2Session
