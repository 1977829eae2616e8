#include <orbatovra/orbatovra.h>
#include <orbatovra/services.h>

#include <map>
#include <optional>
#include <string>
#include <utility>

#include "../common/failure.h"
#include "../common/profile.h"
#include "https_post.h"

namespace orbatovra {
namespace {

using orba_host::Failure;
using orba_host::HttpsReply;
using orba_host::Profile;

constexpr char kGrantPath[] = "device/api/fleet_lens_grant";

template <class Work>
std::string orTovraException(const char* what, Work&& work) {
    try {
        return work();
    } catch (const Failure& failure) {
        ORBATOVRAErrSet(failure.number());
        throw TovraException(std::string(what) + ": " + failure.what());
    }
}

std::string accessToken(const Profile& profile) { return profile.text("pkce_access_token"); }

// The reply's "code" for a person, cut short: it comes from outside.
std::string describeCode(const std::optional<Json::Value>& document) {
    constexpr std::size_t kMaxShown = 100;
    if (!document) {
        return "the reply is no JSON object";
    }
    const Json::Value code = document->get("code", Json::nullValue);
    if (!code.isString()) {
        return "the reply has no \"code\"";
    }
    return "\"code\" is " + Json::valueToQuotedString(code.asString().substr(0, kMaxShown).c_str());
}

std::string grantIn(const HttpsReply& reply, const std::string& url) {
    const std::optional<Json::Value> document = orba_host::parseJsonObject(reply.body);
    const std::string cause =
        url + ": HTTP status " + std::to_string(reply.status) + ", " + describeCode(document);
    if (!reply.isSuccess()) {
        throw Failure(ORBA_HOST_REPLY_STATUS, cause);
    }
    if (!document || document->get("code", "") != Json::Value("success")) {
        throw Failure(ORBA_HOST_REPLY_REFUSED, cause);
    }
    const Json::Value grant = document->get("grant", "");
    if (!grant.isString() || grant.asString().empty()) {
        throw Failure(ORBA_HOST_REPLY_REFUSED, cause + ", but there is no \"grant\"");
    }
    return grant.asString();
}

}  // namespace

TovraException::TovraException(std::string text) : message(std::move(text)) {}

const char* TovraException::what() const noexcept { return message.c_str(); }

AccountPkceService::AccountPkceService() = default;

AccountPkceService::~AccountPkceService() {}

std::string AccountPkceService::GetAccessToken() const {
    return orTovraException("no PKCE access token", [] { return accessToken(Profile::read()); });
}

AccountFleetLensService::AccountFleetLensService() = default;

AccountFleetLensService::~AccountFleetLensService() {}

std::string AccountFleetLensService::Grant(const std::string& clientId, const std::string& scope,
                                           const std::string& redirectUri,
                                           const std::string& state) const {
    return orTovraException("no grant", [&] {
        const Profile profile = Profile::read();
        const std::string server = profile.text("account_service");
        const std::map<std::string, std::string> form = {{"client_id", clientId},
                                                         {"scope", scope},
                                                         {"redirect_uri", redirectUri},
                                                         {"state", state}};
        return grantIn(orba_host::postForm(server, kGrantPath, form, accessToken(profile)),
                       orba_host::httpsUrl(server, kGrantPath));
    });
}

}  // namespace orbatovra
