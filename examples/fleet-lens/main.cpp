// Fleet Lens: a small device service that signs the device in with its linked account, and
// refreshes its tokens. It does what the library leaves to its caller.
//
// usage: fleet-lens AUTHORIZATION-ENDPOINT TOKEN-ENDPOINT TOKEN-FILE    signs in and refreshes
//        fleet-lens TOKEN-ENDPOINT TOKEN-FILE                           refreshes

#include <cxxabi.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <typeinfo>

#include "orbaoauth2client/errors.h"
#include "orbaoauth2client/httpclient.h"
#include "orbaoauth2client/oauth2.h"
#include "orbaoauth2client/pkce.h"
#include "orbaoauth2client/utils.h"
#include "secrets.h"
#include "tokens.h"

namespace fleet_lens {
namespace {

const std::string kClientId = "fleet-lens";
const std::string kRedirectUri = "https://fleet-lens.localhost/callback";
const std::string kScope = "openid offline_access fleet.read";

bool beginsWith(const std::string& text, const std::string& begin) {
    return text.rfind(begin, 0) == 0;
}

// The library takes any URL that libcurl knows.
void requireHttps(const std::string& url) {
    if (!beginsWith(url, "https://")) {
        throw std::runtime_error("not an https URL: " + url);
    }
}

std::string authorizationUrl(const std::string& endpoint, const Secrets& secrets) {
    return endpoint + "?" +
           orba::HttpClient::getEncodeQuery({{"client_id", kClientId},
                                             {"code_challenge", secrets.challenge},
                                             {"code_challenge_method", "S256"},
                                             {"redirect_uri", kRedirectUri},
                                             {"response_type", "code"},
                                             {"scope", kScope},
                                             {"state", secrets.state}});
}

// The login gives the callback URL, or the bare code when the account service granted it. A grant
// does not carry our challenge, so its code is not bound to it and goes without a verifier.
void takeCode(const std::string& result, const Secrets& secrets,
              orba::PKCE::ParamGetAccessToken& exchange) {
    const std::string callback = kRedirectUri + "?";
    if (!beginsWith(result, callback)) {
        if (result.find("://") != std::string::npos) {
            throw std::runtime_error("the login ended at " + result);
        }
        std::cout << "the account service granted a code" << std::endl;
        exchange.code = encoded(result);
        return;
    }
    // With the "&", no parameter is found whose name only ends like the wanted one.
    const std::string query = "&" + result.substr(callback.size());
    if (orba::getParamFromURL(query, "&state") != secrets.state) {
        throw std::runtime_error("the callback carries another state than our request");
    }
    std::cout << "the web login led to the callback, with our state" << std::endl;
    exchange.code = encoded(orba::getParamFromURL(query, "&code"));
    exchange.codeVerifier = secrets.verifier;
}

void signIn(const std::string& authorizationEndpoint, const std::string& tokenEndpoint,
            const std::string& tokenFile) {
    const Lock lock(tokenFile);
    const PrivateFolder folder(tokenFile);
    const std::string newTokens = folder.file("tokens");
    writeTokens(newTokens, {});  // fails here, before anybody is asked

    const Secrets secrets = makeSecrets();
    orba::OAuth2 login(authorizationUrl(authorizationEndpoint, secrets), folder.file("cookies"));
    orba::PKCE::ParamGetAccessToken exchange = {newTokens, tokenEndpoint,        kClientId, "",
                                                "",        encoded(kRedirectUri)};
    takeCode(login.loginServiceByOrbaAccount(), secrets, exchange);

    orba::PKCE::getAccessToken(exchange);
    requireAccessToken(readTokens(newTokens));
    std::filesystem::rename(newTokens, tokenFile);
    std::cout << "exchanged the code for tokens, stored in " << tokenFile << std::endl;
}

const char* whatNext(int code) {
    switch (code) {
        case 14:  // the server refuses the code or the refresh token
            return "sign in again";
        case 15:  // the server or the network may recover
        case 17:
        case 26:
        case 27:
        case 31:
        case 32:
            return "try again later";
        case 19:  // no account, or an account that is no longer accepted
        case 22:
            return "ask the owner to link the account";
        default:
            return "report it";
    }
}

// One line, whatever the text holds: it may quote a server's reply.
int fail(const std::string& code, const std::exception& exception, const std::string& next = "") {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(typeid(exception).name(), nullptr, nullptr, &status), &std::free);
    std::string text = exception.what();
    for (char& c : text) {
        c = static_cast<unsigned char>(c) < ' ' ? ' ' : c;
    }
    std::cerr << "fleet-lens: " << code << (name ? name.get() : "exception") << ": " << text << next
              << '\n';
    return EXIT_FAILURE;
}

void run(int argc, char** argv) {
    const std::string tokenEndpoint = argv[argc - 2];
    const std::string tokenFile = argv[argc - 1];
    requireHttps(tokenEndpoint);
    if (argc == 4) {
        requireHttps(argv[1]);
        signIn(argv[1], tokenEndpoint, tokenFile);
    }
    refresh(tokenEndpoint, tokenFile, kClientId);
    std::cout << "device fingerprint " << orba::getDeviceFingerprint() << std::endl;
}

}  // namespace
}  // namespace fleet_lens

int main(int argc, char** argv) {
    if (argc != 3 && argc != 4) {
        std::cerr << "usage: fleet-lens [AUTHORIZATION-ENDPOINT] TOKEN-ENDPOINT TOKEN-FILE\n";
        return 2;
    }
    umask(077);                         // files that the library makes are ours alone
    setlogmask(LOG_UPTO(LOG_WARNING));  // its debug lines, with their URLs, stay in the process
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);  // no core dump shows the secrets
    try {
        fleet_lens::run(argc, argv);
        return EXIT_SUCCESS;
    } catch (const ORBA::OAuth2Client::OAuth2ClientException& exception) {
        const int code = exception.errCode();
        return fleet_lens::fail("code " + std::to_string(code) + ", ", exception,
                                std::string(" (") + fleet_lens::whatNext(code) + ")");
    } catch (const std::exception& exception) {
        return fleet_lens::fail("", exception);
    }
}
