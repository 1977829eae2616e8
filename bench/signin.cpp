// Signs in at the loopback cloud again and again and tells where the time went.
//
// usage: orba-bench-signin TIMES
//
// Prints one line for each step of each sign-in: {"step": ..., "requests": ..., "seconds": {...}}.
// First come the sign-ins by the web flow, each with exchange and refresh, then those by the grant.
#include <curl/curl.h>
#include <json/json.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>

#include "operations.h"
#include "orbaoauth2client/httpclient.h"
#include "orbaoauth2client/oauth2.h"
#include "orbaoauth2client/pkce.h"
#include "orbaoauth2client/utils.h"
#include "phases.h"

namespace {

namespace orba = ORBA::OAuth2Client;

const std::string kClientId = "fleet-lens";
const std::string kRedirectUri = "https://fleet-lens.localhost/callback";
// The pair of RFC 7636, appendix B.
const std::string kVerifier = "dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk";
const std::string kChallenge = "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM";

// The first ones fill caches, on both sides.
constexpr int kWarmUps = 3;

std::string authorizationUrl() {
    return environment("ORBA_AUTHORIZATION_ENDPOINT") + "?" +
           orba::HttpClient::getEncodeQuery({{"client_id", kClientId},
                                             {"code_challenge", kChallenge},
                                             {"code_challenge_method", "S256"},
                                             {"redirect_uri", kRedirectUri},
                                             {"response_type", "code"},
                                             {"scope", "openid offline_access fleet.read"},
                                             {"state", "af0ifjsldkj"}});
}

void print(const char* step, const Tally& tally) {
    Json::Value line;
    line["step"] = step;
    line["requests"] = tally.requests;
    for (std::size_t phase = 0; phase < kPhases; ++phase) {
        if (phase != kNothing) {
            line["seconds"][kPhaseNames[phase]] = tally.phases[phase].count();
        }
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    std::cout << Json::writeString(writer, line) << std::endl;
}

// What the library prints is not for our standard output.
class Captured {
  public:
    Captured() : before(std::cout.rdbuf(text.rdbuf())) {}
    ~Captured() { std::cout.rdbuf(before); }
    Captured(const Captured&) = delete;
    Captured& operator=(const Captured&) = delete;

  private:
    std::ostringstream text;
    std::streambuf* before;
};

void measure(const char* step, bool warm, const std::function<void()>& work) {
    reset();
    {
        const Captured captured;
        const Span span(kOurs);
        work();
    }
    if (warm) {
        print(step, tally());
    }
}

void useProfile(const char* variable) {
    setenv("ORBA_HOST_PROFILE", environment(variable).c_str(), 1);
}

void signInByWeb(const std::string& url, const std::string& folder, bool warm) {
    const std::string cookies = folder + "/cookies";
    orba::PKCE::ParamGetAccessToken exchange = {
        folder + "/tokens", environment("ORBA_TOKEN_ENDPOINT"),
        kClientId,          "",
        kVerifier,          "https%3A%2F%2Ffleet-lens.localhost%2Fcallback"};
    orba::OAuth2 login(url, cookies);
    measure("login, web flow", warm, [&] {
        exchange.code = orba::getParamFromURL(login.loginServiceByOrbaAccount(), "code");
    });
    measure("exchange", warm, [&] { orba::PKCE::getAccessToken(exchange); });
    measure("refresh", warm, [&] {
        orba::PKCE::refreshAccessToken({exchange.tokenFilePath, exchange.tokenURL, kClientId});
    });
    std::filesystem::remove(cookies);
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc != 2) {
        std::cerr << "usage: orba-bench-signin TIMES\n";
        return 2;
    }
    const int times = std::stoi(argv[1]) + kWarmUps;
    const std::string& folder = scratchFolder();
    curl_global_init(CURL_GLOBAL_DEFAULT);
    const std::string url = authorizationUrl();

    useProfile("ORBA_BENCH_WEB_PROFILE");
    for (int i = 0; i < times; ++i) {
        signInByWeb(url, folder, i >= kWarmUps);
    }
    useProfile("ORBA_BENCH_GRANT_PROFILE");
    for (int i = 0; i < times; ++i) {
        orba::OAuth2 login(url, folder + "/cookies");
        measure("login, grant", i >= kWarmUps, [&] { login.loginServiceByOrbaAccount(); });
    }
    return EXIT_SUCCESS;
} catch (const std::exception& exception) {
    std::cerr << "orba-bench-signin: " << exception.what() << '\n';
    return EXIT_FAILURE;
}
