// Includes every public header, calls each part of the library, and prints what comes back. Nothing
// here reaches the network: the requests fail before that.

#include <json/json.h>

#include <iostream>
#include <string>

#include "orbaoauth2client/errors.h"
#include "orbaoauth2client/export.h"
#include "orbaoauth2client/httpclient.h"
#include "orbaoauth2client/oauth2.h"
#include "orbaoauth2client/pkce.h"
#include "orbaoauth2client/utils.h"

namespace orba = ORBA::OAuth2Client;

namespace {

template <class Exception, class Call>
void expect(const char* name, const Call& call) {
    try {
        call();
        std::cout << name << " threw nothing\n";
    } catch (const Exception& e) {
        std::cout << name << ' ' << e.errCode() << '\n';
    }
}

}  // namespace

int main() {
    std::cout << orba::errCode2Str(0) << '\n'
              << orba::decodeString("a%20b") << '\n'
              << orba::HttpClient::getEncodeQuery({{"a", "b c"}}) << '\n'
              << "fingerprint " << orba::getDeviceFingerprint().size() << '\n';
    expect<orba::HttpClientException>("get", [] {
        Json::Value reply;
        orba::HttpClient::HttpClient("").get(reply);
    });
    expect<orba::OAuth2Exception>(
        "login", [] { orba::OAuth2("https://localhost/", "").followRedirectUntilCallback({}); });
    expect<orba::OAuth2ClientException>("token", [] { orba::PKCE::getAccessToken({}); });
}
