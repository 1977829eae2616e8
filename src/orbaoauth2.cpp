#include "orbaoauth2client/oauth2.h"

#include <json/json.h>
#include <klib/klib.h>
#include <orbatovra/orbatovra.h>
#include <orbatovra/services.h>
#include <syslog.h>

#include <cstdint>
#include <exception>
#include <fstream>
#include <iostream>
#include <string>

#include "error_code.h"
#include "guarded.h"
#include "json_text.h"
#include "log.h"
#include "orbaoauth2client/errors.h"
#include "orbaoauth2client/httpclient.h"
#include "orbaoauth2client/pkce.h"
#include "orbaoauth2client/utils.h"
#include "serial_number.h"

namespace ORBA::OAuth2Client {
namespace {

constexpr Log kLog{"orbaoauth2"};

constexpr int kFound = 302;
constexpr int kMaxRedirects = 5;
constexpr int kParameterTableSize = 1024;
constexpr char kLoginPath[] = "device/api/fleet_lens_login";
constexpr char kTokenCookies[] = "/tmp/oa_pkce_cookies.txt";

// What a login at the identity provider holds until its clean-up.
struct IdpLogin {
    TovraAccountRecord account = {};
    TovraServerConfigRecord config = {};
    TovraHttpsRequestRecord request = {};
    TovraHttpsResponseRecord response = {};
    SerialNumber serial;
    KLIBCSzHash* parameters = nullptr;
    JsonReader reader;

    void release() {
        if (parameters != nullptr) {
            KLIBCSzHashFree(parameters);
        }
        ORBATOVRAHttpsResponseFree(&response);
    }
};

void readDevice(IdpLogin& login) {
    if (ORBATOVRAAccountGet(&login.account) < 0) {
        kLog.fail<TovraException>(kAccountFailed, "Failed to get Tovra account conf.");
    }
    if (ORBATOVRAServerConfigGet(&login.config) < 0) {
        kLog.fail<TovraException>(kServerConfigFailed, "Failed to get Tovra server config.");
    }
    if (KLIBGetSerialNumber(login.serial.text, kSerialNumberSize) < 0) {
        kLog.fail<OAuth2ClientException>(kSerialNumberFailed, "Failed to get serial number.");
    }
}

void sendLogin(IdpLogin& login, const std::string& challenge) {
    login.parameters = KLIBCSzHashAlloc(kParameterTableSize);
    if (login.parameters == nullptr) {
        kLog.fail<OAuth2ClientException>(kHashTableFailed, "Failed to alloc Query hash.");
    }
    KLIBCSzHashSetValue(&login.parameters, "id", login.account.id);
    KLIBCSzHashSetValue(&login.parameters, "auth_key", login.account.authKey);
    KLIBCSzHashSetValue(&login.parameters, "serial_no", login.serial.text);
    KLIBCSzHashSetValue(&login.parameters, "challenge", challenge.c_str());

    login.request.server = login.config.server;
    login.request.path = kLoginPath;
    login.request.parameters = login.parameters;
    login.request.option0 = 0;
    login.request.option1 = 1;
    if (ORBATOVRAHttpsRequestSend(&login.request, &login.response) < 0) {
        kLog.fail<TovraException>(kSendToAccountFailed, "Failed to send https request.");
    }
}

void readReply(IdpLogin& login, Json::Value& reply) {
    const std::string body(login.response.body);  // no body: std::logic_error
    if (!login.reader.parse(body.data(), body.data() + body.size(), reply)) {
        kLog.fail<OAuth2ClientException>(kParseJsonFailed, "Failed to parse json: " + body);
    }
    if (reply["code"].asString() == "badauth") {
        ORBATOVRAAccountRemove();
        kLog.fail<TovraException>(kAuthenticationFailed,
                                  "Logged out Tovra due to authentication failure.");
    }
}

// Asks for a PKCE access token only to learn whether there is one. An exception of the constructor
// is not an answer to that: it passes to the caller.
bool hasPkceAccessToken() {
    orbatovra::AccountPkceService service;
    try {
        service.GetAccessToken();
        return true;
    } catch (const orbatovra::TovraException& exception) {
        syslog(
            LOG_WARNING,
            "%s:%d Failed to get Tovra access token. please re-login Orbalon Account to generate "
            "pkce access token, otherwise Fleet Lens will use non-pkce flow to get grant code, "
            "reason: %s",
            kLog.source, __LINE__, textOf(exception));
    } catch (...) {
        syslog(LOG_WARNING, "%s:%d Failed to get Tovra access token.", kLog.source, __LINE__);
    }
    return false;
}

std::string requestGrant(const std::string& authURL) {
    const std::string clientId = getParamFromURL(authURL, "client_id");
    const std::string scope = getParamFromURL(authURL, "scope");
    const std::string redirectUri = getParamFromURL(authURL, "redirect_uri");
    const std::string state = getParamFromURL(authURL, "state");
    orbatovra::AccountFleetLensService service;
    return service.Grant(clientId, scope, redirectUri, state);
}

}  // namespace

OAuth2::OAuth2(const std::string& authorizationURL, const std::string& cookies)
    : authURL(authorizationURL), cookiesFilePath(cookies) {}

OAuth2::~OAuth2() = default;

std::string OAuth2::getServerLoginChallenge() {
    HttpClient::HttpClient client(authURL, cookiesFilePath);
    client.get(false);
    const auto status = static_cast<std::int32_t>(client.getRespCode());
    const std::string redirectURL = client.getRedirectURL();
    if (status == kFound) {
        return getParamFromURL(redirectURL, "login_challenge");
    }
    std::string text = "Server's auth endpoint returned [" + std::to_string(status) + "]. ";
    if (!redirectURL.empty()) {
        text += "redirect url = [" + redirectURL + "]. ";
    }
    kLog.fail<OAuth2ClientException>(kLoginChallengeFailed, text);
}

void OAuth2::loginIDP(Json::Value& reply, const std::string& loginChallenge) {
    IdpLogin login;
    const auto steps = [&] {
        readDevice(login);
        sendLogin(login, loginChallenge);
        readReply(login, reply);
    };
    const Failure failure = runGuarded(kLog, steps, [&] { login.release(); });
    if (failure.code != kNoError) {
        kLog.fail<OAuth2ClientException>(failure.code,
                                         "Failed to Login IDP due to: " + failure.text);
    }
}

std::string OAuth2::followRedirectUntilCallback(const Json::Value& idpReply) {
    HttpClient::HttpClient client(idpReply["redirect_to"].asString(), cookiesFilePath);
    const std::string callback = getParamFromURL(authURL, "redirect_uri");
    std::int64_t status = 0;
    for (int redirects = 0; redirects < kMaxRedirects; ++redirects) {
        syslog(LOG_DEBUG, "%s:%d GET url: %s", kLog.source, __LINE__, client.getURL().c_str());
        client.get(false);
        status = client.getRespCode();
        if (status < 300 || status > 399) {
            break;
        }
        std::string redirectURL = client.getRedirectURL();
        if (redirectURL.find(callback) != std::string::npos) {
            return redirectURL;
        }
        client.setURL(redirectURL);
    }
    kLog.fail<OAuth2ClientException>(
        kCallbackUrlFailed,
        "Didn't receive callback url. Last status code = " + std::to_string(status));
}

std::string OAuth2::loginServiceByOrbaAccount() {
    if (hasPkceAccessToken()) {
        return requestGrant(authURL);
    }
    Json::Value idpReply(Json::objectValue);
    const std::string challenge = getServerLoginChallenge();
    loginIDP(idpReply, challenge);
    return followRedirectUntilCallback(idpReply);
}

namespace PKCE {
namespace {

// A file that cannot be written is not reported: the caller decides what the file is worth.
void storeReply(const std::string& tokenFilePath, const Json::Value& reply) {
    std::ofstream file(tokenFilePath, std::ios::out | std::ios::trunc);
    file << reply << std::endl;
}

}  // namespace

void getAccessToken(const ParamGetAccessToken& param) {
    HttpClient::HttpClient client(param.tokenURL, kTokenCookies);
    Json::Value reply;
    // The values are sent as they are: callers escape them.
    client.postURLEncodedString(
        "grant_type=authorization_code&code=" + param.code + "&client_id=" + param.clientID +
            "&redirect_uri=" + param.redirectURI + "&code_verifier=" + param.codeVerifier,
        reply);
    storeReply(param.tokenFilePath, reply);
}

void refreshAccessToken(const ParamRefreshAccessToken& param) {
    std::ifstream file(param.tokenFilePath);
    Json::Value stored;
    file >> stored;
    HttpClient::HttpClient client(param.tokenURL, kTokenCookies);
    Json::Value reply;
    client.postURLEncodedString(
        "grant_type=refresh_token&refresh_token=" + stored["refresh_token"].asString() +
            "&client_id=" + param.clientID,
        reply);
    std::cout << reply << std::endl;  // tokens included: callers read them there
    storeReply(param.tokenFilePath, reply);
}

}  // namespace PKCE

}  // namespace ORBA::OAuth2Client
