// The functions below that have the names of libcurl's, OpenSSL's, jsoncpp's, the platform's and
// the C library's stand before those for this program and all its libraries. Each calls the one
// that it hides and counts the time.
#include "phases.h"

#include <curl/curl.h>
#include <dlfcn.h>
#include <json/json.h>
#include <klib/klib.h>
#include <openssl/x509.h>
#include <orbatovra/orbatovra.h>
#include <orbatovra/services.h>
#include <syslog.h>

#include <cstdarg>
#include <string>

#include "operations.h"

namespace {

using Clock = std::chrono::steady_clock;

Tally counted;
Phase current = kNothing;
Clock::time_point since = Clock::now();

Phase switchTo(Phase phase) {
    const Phase before = current;
    const Clock::time_point now = Clock::now();
    counted.phases[before] += now - since;
    current = phase;
    since = now;
    return before;
}

template <class Function>
Function* hidden(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// libcurl's own clock of the transfer. It gives the moment at which each step was done.
Seconds moment(CURL* curl, CURLINFO info) {
    curl_off_t microseconds = 0;
    curl_easy_getinfo(curl, info, &microseconds);
    return std::chrono::microseconds(microseconds);
}

// Gives the steps of a transfer their share of what was counted as libcurl's.
void spread(CURL* curl, Seconds bundle, Seconds cookies) {
    const Seconds name = moment(curl, CURLINFO_NAMELOOKUP_TIME_T);
    const Seconds connect = moment(curl, CURLINFO_CONNECT_TIME_T);
    const Seconds tls = moment(curl, CURLINFO_APPCONNECT_TIME_T);
    const Seconds request = moment(curl, CURLINFO_PRETRANSFER_TIME_T);
    const Seconds reply = moment(curl, CURLINFO_STARTTRANSFER_TIME_T);
    const auto give = [](Phase phase, Seconds share) {
        counted.phases[phase] += share;
        counted.phases[kLibcurl] -= share;
    };
    give(kName, name);
    give(kConnect, connect - name);
    give(kTls, tls - connect - bundle);
    give(kServer, reply - request);
    give(kCookies, cookies);
}

}  // namespace

void reset() {
    switchTo(current);
    counted = {};
}

Tally tally() {
    switchTo(current);
    return counted;
}

Span::Span(Phase phase) : before(switchTo(phase)) {}

Span::~Span() { switchTo(before); }

// ---- libcurl -----------------------------------------------------------------------------------

CURL* curl_easy_init(void) {
    static const auto original = hidden<decltype(curl_easy_init)>("curl_easy_init");
    static const std::string bundle = environment("ORBA_BENCH_BUNDLE");
    const Span span(kLibcurl);
    CURL* const curl = original();
    curl_easy_setopt(curl, CURLOPT_CAINFO, bundle.c_str());
    return curl;
}

CURLcode curl_easy_perform(CURL* curl) {
    static const auto original = hidden<decltype(curl_easy_perform)>("curl_easy_perform");
    // The transfer begins with reading the cookie file. It is read once more to know how long.
    Clock::duration cookies{};
    {
        const Span span(kNothing);
        const Clock::time_point begin = Clock::now();
        curl_easy_setopt(curl, CURLOPT_COOKIELIST, "RELOAD");
        cookies = Clock::now() - begin;
    }
    const Span span(kLibcurl);
    const Seconds bundleBefore = counted.phases[kBundle];
    const CURLcode result = original(curl);
    switchTo(kLibcurl);
    spread(curl, counted.phases[kBundle] - bundleBefore, cookies);
    ++counted.requests;
    return result;
}

void curl_easy_cleanup(CURL* curl) {
    static const auto original = hidden<decltype(curl_easy_cleanup)>("curl_easy_cleanup");
    const Span span(kLibcurl);
    {
        // What the clean-up would do, done before it.
        const Span writing(kCookies);
        curl_easy_setopt(curl, CURLOPT_COOKIELIST, "FLUSH");
        curl_easy_setopt(curl, CURLOPT_COOKIEJAR, nullptr);
    }
    original(curl);
}

// ---- What libcurl and the library call ---------------------------------------------------------

int X509_STORE_load_file(X509_STORE* store, const char* file) {
    static const auto original = hidden<decltype(X509_STORE_load_file)>("X509_STORE_load_file");
    const Span span(kBundle);
    return original(store, file);
}

void syslog(int priority, const char* format, ...) {
    const Span span(kSyslog);
    std::va_list arguments;
    va_start(arguments, format);
    vsyslog(priority, format, arguments);
    va_end(arguments);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
bool Json::Reader::parse(const char* begin, const char* end, Json::Value& root, bool comments) {
    static const auto original =
        hidden<bool(Json::Reader*, const char*, const char*, Json::Value&, bool)>(
            "_ZN4Json6Reader5parseEPKcS2_RNS_5ValueEb");
    const Span span(kJson);
    return original(this, begin, end, root, comments);
}
#pragma GCC diagnostic pop

namespace Json {

std::istream& operator>>(std::istream& in, Value& root) {
    static const auto original =
        hidden<std::istream&(std::istream&, Value&)>("_ZN4JsonrsERSiRNS_5ValueE");
    const Span span(kJson);
    return original(in, root);
}

std::ostream& operator<<(std::ostream& out, const Value& root) {
    static const auto original =
        hidden<std::ostream&(std::ostream&, const Value&)>("_ZN4JsonlsERSoRKNS_5ValueE");
    const Span span(kJson);
    return original(out, root);
}

}  // namespace Json

// ---- The platform ------------------------------------------------------------------------------

int KLIBCFileTouch(const char* path) {
    static const auto original = hidden<decltype(KLIBCFileTouch)>("KLIBCFileTouch");
    const Span span(kCookies);
    return original(path);
}

int KLIBGetSerialNumber(char* serial, size_t size) {
    static const auto original = hidden<decltype(KLIBGetSerialNumber)>("KLIBGetSerialNumber");
    const Span span(kPlatform);
    return original(serial, size);
}

int ORBATOVRAUserAgentNameGet(char* name, size_t size) {
    static const auto original =
        hidden<decltype(ORBATOVRAUserAgentNameGet)>("ORBATOVRAUserAgentNameGet");
    const Span span(kPlatform);
    return original(name, size);
}

int ORBATOVRAAccountGet(TovraAccountRecord* account) {
    static const auto original = hidden<decltype(ORBATOVRAAccountGet)>("ORBATOVRAAccountGet");
    const Span span(kPlatform);
    return original(account);
}

int ORBATOVRAServerConfigGet(TovraServerConfigRecord* config) {
    static const auto original =
        hidden<decltype(ORBATOVRAServerConfigGet)>("ORBATOVRAServerConfigGet");
    const Span span(kPlatform);
    return original(config);
}

int ORBATOVRAHttpsRequestSend(const TovraHttpsRequestRecord* request,
                              TovraHttpsResponseRecord* response) {
    static const auto original =
        hidden<decltype(ORBATOVRAHttpsRequestSend)>("ORBATOVRAHttpsRequestSend");
    const Span span(kPlatform);
    return original(request, response);
}

namespace orbatovra {

std::string AccountPkceService::GetAccessToken() const {
    static const auto original = hidden<std::string(const AccountPkceService*)>(
        "_ZNK9orbatovra18AccountPkceService14GetAccessTokenB5cxx11Ev");
    const Span span(kPlatform);
    return original(this);
}

std::string AccountFleetLensService::Grant(const std::string& clientId, const std::string& scope,
                                           const std::string& redirectUri,
                                           const std::string& state) const {
    static const auto original =
        hidden<std::string(const AccountFleetLensService*, const std::string&, const std::string&,
                           const std::string&, const std::string&)>(
            "_ZNK9orbatovra23AccountFleetLensService5GrantERKNSt7__cxx1112basic_string"
            "IcSt11char_traitsIcESaIcEEES8_S8_S8_");
    const Span span(kPlatform);
    return original(this, clientId, scope, redirectUri, state);
}

}  // namespace orbatovra
