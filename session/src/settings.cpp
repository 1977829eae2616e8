#include "settings.h"

#include <curl/curl.h>
#include <strings.h>

#include <algorithm>
#include <memory>
#include <new>

#include "failure.h"

namespace ORBA::OAuth2Session {
namespace {

// Far more than anybody waits, far less than what overflows.
constexpr seconds kLongest{10LL * 366 * 24 * 3600};

struct UrlCleanup {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
struct TextCleanup {
    void operator()(char* text) const { curl_free(text); }
};
using Url = std::unique_ptr<CURLU, UrlCleanup>;
using Text = std::unique_ptr<char, TextCleanup>;

Url makeUrl() {
    Url url(curl_url());
    if (url == nullptr) {
        throw std::bad_alloc();
    }
    return url;
}

// Whether it is a URL. No setting is to blame when there is no memory.
bool isUrl(CURLUcode result) {
    if (result == CURLUE_OUT_OF_MEMORY) {
        throw std::bad_alloc();
    }
    return result == CURLUE_OK;
}

[[noreturn]] void refuse(const char* member, const char* reason) {
    fail(kSettingsRefused, std::string("The setting ") + member + " " + reason);
}

void checkText(const char* member, const std::string& text) {
    const auto isControl = [](unsigned char c) { return c < ' ' || c == 0x7f; };
    if (text.empty()) {
        refuse(member, "is missing");
    }
    if (std::any_of(text.begin(), text.end(), isControl)) {
        refuse(member, "holds a control character");
    }
}

void checkEndpoint(const char* member, const std::string& text) {
    checkText(member, text);
    if (strncasecmp(text.c_str(), "https://", 8) != 0 ||
        !isUrl(curl_url_set(makeUrl().get(), CURLUPART_URL, text.c_str(), 0))) {
        refuse(member, "is not an https URL");
    }
    if (text.find('#') != std::string::npos) {
        refuse(member, "has a fragment");
    }
}

// libcurl gives redirects as it rebuilds them, but as they came when it cannot parse them.
std::string asRedirect(const std::string& redirect, const std::string& base) {
    const Url url = makeUrl();
    char* text = nullptr;
    isUrl(curl_url_set(url.get(), CURLUPART_URL, base.c_str(), 0));  // it has been checked
    if (!isUrl(
            curl_url_set(url.get(), CURLUPART_URL, redirect.c_str(), CURLU_NON_SUPPORT_SCHEME))) {
        return redirect;
    }
    isUrl(curl_url_get(url.get(), CURLUPART_URL, &text, 0));
    return Text(text).get();
}

void checkRedirectUri(const Settings& settings) {
    checkText("redirectUri", settings.redirectUri);
    if (settings.redirectUri.find('#') != std::string::npos) {
        refuse("redirectUri", "has a fragment");
    }
    const std::string callback = callbackPrefix(settings) + "code=1";
    if (asRedirect(callback, settings.authorizationEndpoint) != callback) {
        refuse("redirectUri", "would be rewritten by libcurl, so that its callback is never found");
    }
}

void checkTokenFile(const std::string& path) {
    checkText("tokenFile", path);
    if (path.front() != '/') {
        refuse("tokenFile", "is not an absolute path");
    }
    if (path.back() == '/') {
        refuse("tokenFile", "names a folder");
    }
}

}  // namespace

Settings checkedSettings(const Settings& settings, int /*version*/) {
    // Member by member: the record of an older caller may end before the newest members.
    Settings copy;
    copy.authorizationEndpoint = settings.authorizationEndpoint;
    copy.tokenEndpoint = settings.tokenEndpoint;
    copy.clientId = settings.clientId;
    copy.redirectUri = settings.redirectUri;
    copy.scope = settings.scope;
    copy.tokenFile = settings.tokenFile;
    copy.revocationEndpoint = settings.revocationEndpoint;
    copy.margin = std::min<seconds>(settings.margin, kLongest);
    copy.timeout = std::min<milliseconds>(settings.timeout, kLongest);

    checkEndpoint("authorizationEndpoint", copy.authorizationEndpoint);
    checkEndpoint("tokenEndpoint", copy.tokenEndpoint);
    checkText("clientId", copy.clientId);
    checkRedirectUri(copy);
    checkText("scope", copy.scope);
    checkTokenFile(copy.tokenFile);
    if (!copy.revocationEndpoint.empty()) {
        checkEndpoint("revocationEndpoint", copy.revocationEndpoint);
    }
    if (copy.margin < seconds(0)) {
        refuse("margin", "is negative");
    }
    if (copy.timeout < seconds(1)) {
        refuse("timeout", "is below 1 s");
    }
    return copy;
}

std::string callbackPrefix(const Settings& settings) {
    const bool hasQuery = settings.redirectUri.find('?') != std::string::npos;
    return settings.redirectUri + (hasQuery ? "&" : "?");
}

}  // namespace ORBA::OAuth2Session
