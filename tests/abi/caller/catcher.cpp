// usage: catcher PLUGIN
// Catches the exceptions of the library, and those of a plugin, by their type and by both bases.
// The library itself throws each class but JsonException, which never leaves it: a request wraps
// it. No device profile is set, so the steps that ask the device fail without any network.

#include <dlfcn.h>
#include <json/json.h>

#include <exception>
#include <iostream>
#include <string>
#include <typeinfo>

#include "orbaoauth2client/errors.h"
#include "orbaoauth2client/httpclient.h"
#include "orbaoauth2client/oauth2.h"
#include "orbaoauth2client/utils.h"

namespace {

using namespace ORBA::OAuth2Client;  // NOLINT(google-build-using-namespace): one short file

int failures = 0;

template <class Caught, class Throw>
bool isCaughtAs(const Throw& doThrow, const std::type_info& thrown, int code) {
    try {
        doThrow();
    } catch (const Caught& caught) {
        const auto* const exception = dynamic_cast<const OAuth2ClientException*>(&caught);
        return typeid(caught) == thrown && exception != nullptr && exception->errCode() == code &&
               exception->what()[0] != '\0';
    } catch (...) {
        std::cout << "     it passed by the handler\n";
    }
    return false;
}

template <class Exception, class Throw>
void expectThrown(const std::string& name, int code, const Throw& doThrow) {
    const bool held = isCaughtAs<Exception>(doThrow, typeid(Exception), code) &&
                      isCaughtAs<OAuth2ClientException>(doThrow, typeid(Exception), code) &&
                      isCaughtAs<std::exception>(doThrow, typeid(Exception), code);
    std::cout << (held ? "ok   " : "FAIL ") << name << '\n';
    failures += held ? 0 : 1;
}

void checkLibrary() {
    Json::Value reply;
    expectThrown<OAuth2ClientException>("library: OAuth2ClientException", 19,
                                        [&] { OAuth2("x", "x").loginIDP(reply, "challenge"); });
    expectThrown<HttpClientException>("library: HttpClientException", 12,
                                      [&] { HttpClient::HttpClient("").get(reply); });
    expectThrown<CurlException>("library: CurlException", 24, [] {
        HttpClient::HttpClient("x").setCurlCookies(nullptr, "/no/such/folder/cookies");
    });
    expectThrown<TovraException>("library: TovraException", 18,
                                 [] { HttpClient::HttpClient("x").setCurlUserAgent(nullptr); });
    expectThrown<OAuth2Exception>("library: OAuth2Exception", 12,
                                  [] { getParamFromURL("", "key"); });
}

using PluginThrow = void (*)(const char*);

template <class Exception>
void checkPlugin(PluginThrow pluginThrow, const char* name) {
    expectThrown<Exception>(std::string("plugin: ") + name, 7, [&] { pluginThrow(name); });
}

}  // namespace

int main(int, char** argv) {
    checkLibrary();
    void* const plugin = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    void* const symbol = plugin == nullptr ? nullptr : dlsym(plugin, "pluginThrow");
    if (symbol == nullptr) {
        std::cout << "FAIL " << dlerror() << '\n';
        return 1;
    }
    const auto pluginThrow = reinterpret_cast<PluginThrow>(symbol);
    checkPlugin<OAuth2ClientException>(pluginThrow, "OAuth2ClientException");
    checkPlugin<HttpClientException>(pluginThrow, "HttpClientException");
    checkPlugin<JsonException>(pluginThrow, "JsonException");
    checkPlugin<CurlException>(pluginThrow, "CurlException");
    checkPlugin<TovraException>(pluginThrow, "TovraException");
    checkPlugin<OAuth2Exception>(pluginThrow, "OAuth2Exception");
    return failures == 0 ? 0 : 1;
}
