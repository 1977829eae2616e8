// Makes a Session and calls it on a device without an account, so that nothing reaches the network.
#include <orbaoauth2session/errors.h>
#include <orbaoauth2session/export.h>
#include <orbaoauth2session/session.h>

#include <filesystem>
#include <iostream>
#include <string>

namespace orba = ORBA::OAuth2Session;

namespace {

orba::Settings makeSettings(const std::string& tokenFile) {
#if __cplusplus > 201703L
    return {
        .authorizationEndpoint = "https://localhost/auth",
        .tokenEndpoint = "https://localhost/token",
        .clientId = "consumer",
        .redirectUri = "https://localhost/callback",
        .scope = "openid",
        .tokenFile = tokenFile,
    };
#else
    orba::Settings settings;
    settings.authorizationEndpoint = "https://localhost/auth";
    settings.tokenEndpoint = "https://localhost/token";
    settings.clientId = "consumer";
    settings.redirectUri = "https://localhost/callback";
    settings.scope = "openid";
    settings.tokenFile = tokenFile;
    return settings;
#endif
}

void use(const std::string& tokenFile) {
    try {
        orba::Session session(makeSettings(tokenFile));
        std::cout << session.accessToken().text << '\n';
    } catch (const orba::SessionException& e) {
        std::cout << e.errCode() << ' ' << static_cast<int>(e.remedy()) << ' '
                  << e.retryAfter().count() << e.serverError() << '\n';
    }
}

}  // namespace

int main() {
    use("relative");
    use(std::filesystem::current_path() / "tokens.json");
}
