// Measures the session and prints JSON. bench/run.mjs starts it.
//
// usage: orba-bench-session token SECONDS REPETITIONS
//            accessToken() with a good token of 1,000 bytes
//        orba-bench-session sign-in TIMES
//            processor time of a web login with exchange
//
// Environment: as for orba-bench; ORBA_AUTHORIZATION_ENDPOINT and ORBA_TOKEN_ENDPOINT of the test
// cloud.
#include <curl/curl.h>
#include <dlfcn.h>
#include <json/json.h>
#include <orbaoauth2session/session.h>
#include <syslog.h>

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "orbaoauth2client/httpclient.h"
#include "orbaoauth2client/oauth2.h"
#include "orbaoauth2client/pkce.h"
#include "orbaoauth2client/utils.h"

namespace {

namespace orba = ORBA::OAuth2Client;
using ORBA::OAuth2Session::Session;
using ORBA::OAuth2Session::Settings;

std::string environment(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr ? value : throw std::runtime_error(std::string(name) + " is not set");
}

double now(clockid_t clock = CLOCK_MONOTONIC) {
    timespec time = {};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

Settings makeSettings() {
    Settings settings;
    settings.authorizationEndpoint = environment("ORBA_AUTHORIZATION_ENDPOINT");
    settings.tokenEndpoint = environment("ORBA_TOKEN_ENDPOINT");
    settings.clientId = "fleet-lens";
    settings.redirectUri = "https://fleet-lens.localhost/callback";
    settings.scope = "openid offline_access fleet.read";
    settings.tokenFile = environment("ORBA_BENCH_FOLDER") + "/session.json";
    return settings;
}

// ---- A good token ------------------------------------------------------------------------------

// Signs in, and has the token file hold a longer token.
void makeLongToken(const Settings& settings) {
    (void)Session(settings).accessToken();
    Json::Value tokens;
    std::ifstream(settings.tokenFile) >> tokens;
    tokens["access_token"] = std::string(1000, 'a');
    std::ofstream(settings.tokenFile) << tokens;
}

// Processor time of a call.
double costOfCall(Session& session) {
    constexpr int kCalls = 100'000;
    const double begin = now(CLOCK_THREAD_CPUTIME_ID);
    for (int i = 0; i < kCalls; ++i) {
        (void)session.accessToken();
    }
    return (now(CLOCK_THREAD_CPUTIME_ID) - begin) / kCalls;
}

// Calls per second of one thread for each element; the same session may be there several times.
double throughput(const std::vector<Session*>& sessions, double seconds) {
    std::atomic<long> calls{0};
    const double begin = now();
    std::vector<std::thread> threads;
    for (Session* const session : sessions) {
        threads.emplace_back([&, session] {
            long mine = 0;
            for (; mine % 1000 != 0 || now() < begin + seconds; ++mine) {
                if (session->accessToken().text.size() != 1000) {
                    std::terminate();
                }
            }
            calls += mine;
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return static_cast<double>(calls) / (now() - begin);
}

// Of one thread, then of two that share a session and of two with a session each.
Json::Value measureToken(double seconds, int repetitions) {
    const Settings settings = makeSettings();
    makeLongToken(settings);
    Session first(settings);
    Session second(settings);
    Json::Value result;
    for (int i = 0; i < repetitions; ++i) {
        result["one"].append(costOfCall(first));
        result["shared"].append(throughput({&first, &first}, seconds));
        result["own"].append(throughput({&first, &second}, seconds));
    }
    return result;
}

// ---- Sign-in -----------------------------------------------------------------------------------

void signInByHand(const Settings& settings) {
    const std::string cookies = settings.tokenFile + ".cookies";
    orba::OAuth2 login(settings.authorizationEndpoint + "?" +
                           orba::HttpClient::getEncodeQuery(
                               {{"client_id", settings.clientId},
                                {"code_challenge", "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM"},
                                {"code_challenge_method", "S256"},
                                {"redirect_uri", settings.redirectUri},
                                {"response_type", "code"},
                                {"scope", settings.scope},
                                {"state", "af0ifjsldkj"}}),
                       cookies);
    const std::string callback = login.loginServiceByOrbaAccount();
    std::filesystem::remove(cookies);
    orba::PKCE::getAccessToken({settings.tokenFile, settings.tokenEndpoint, settings.clientId,
                                orba::getParamFromURL(callback, "code"),
                                "dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk",
                                "https%3A%2F%2Ffleet-lens.localhost%2Fcallback"});
}

// The request of the account-service library, which both sides make.
void askAccountService(const Settings&) {
    Json::Value reply;
    orba::OAuth2("https://localhost/", "/dev/null").loginIDP(reply, "unknown");
}

double processorTime(const std::function<void(const Settings&)>& signIn) {
    const Settings settings = makeSettings();
    std::filesystem::remove(settings.tokenFile);
    const double begin = now(CLOCK_PROCESS_CPUTIME_ID);
    signIn(settings);
    return now(CLOCK_PROCESS_CPUTIME_ID) - begin;
}

Json::Value measureSignIn(int times) {
    Json::Value result;
    for (int i = 0; i < times; ++i) {
        result["session"].append(
            processorTime([](const Settings& settings) { (void)Session(settings).accessToken(); }));
        result["byHand"].append(processorTime(&signInByHand));
        result["accountService"].append(processorTime(&askAccountService));
    }
    return result;
}

const char* bundle() {
    static const char* const path = std::getenv("ORBA_BENCH_BUNDLE");
    return path;
}

template <class Function>
Function* original(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// These hide libcurl's functions of the same name: the CA bundle of both sides is ours.
#undef curl_easy_setopt
CURLcode curl_easy_setopt(CURL* curl, CURLoption option, ...) {
    static auto* const setOption = original<CURLcode(CURL*, CURLoption, ...)>("curl_easy_setopt");
    va_list arguments;
    va_start(arguments, option);
    void* const value = va_arg(arguments, void*);
    va_end(arguments);
    const bool replaced = option == CURLOPT_CAINFO && bundle() != nullptr;
    return replaced ? setOption(curl, option, bundle()) : setOption(curl, option, value);
}

CURL* curl_easy_init(void) {
    static auto* const init = original<CURL*()>("curl_easy_init");
    CURL* const curl = init();
    curl_easy_setopt(curl, CURLOPT_CAINFO, bundle());
    return curl;
}

int main(int argc, char** argv) try {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    curl_global_init(CURL_GLOBAL_DEFAULT);
    setlogmask(LOG_UPTO(LOG_INFO));
    if (argc == 4 && arguments[0] == "token") {
        std::cout << measureToken(std::stod(arguments[1]), std::stoi(arguments[2])) << std::endl;
    } else if (argc == 3 && arguments[0] == "sign-in") {
        std::cout << measureSignIn(std::stoi(arguments[1])) << std::endl;
    } else {
        throw std::runtime_error("wrong arguments: its usage is in bench/session/session.cpp");
    }
    return EXIT_SUCCESS;
} catch (const std::exception& exception) {
    std::cerr << "orba-bench-session: " << exception.what() << '\n';
    return EXIT_FAILURE;
}
