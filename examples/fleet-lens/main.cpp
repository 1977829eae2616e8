// Fleet Lens: a device service that stays signed in. Each line of standard input is a report, which
// it would send to its server with an access token.
#include <orbaoauth2session/session.h>
#include <syslog.h>

#include <chrono>
#include <iostream>
#include <string>

namespace {

namespace orba = ORBA::OAuth2Session;

// A real one sets the header `"Authorization: Bearer " + token.text` and, when the server answers
// 401, sends the report once more with session.renew(token.text).
void send(const std::string& report, const orba::AccessToken& token) {
    const auto left = token.expires - std::chrono::system_clock::now();
    std::cout << "sent \"" << report << "\" with a token for another "
              << std::chrono::duration_cast<std::chrono::seconds>(left).count() << " s"
              << std::endl;
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc != 4) {
        std::cerr << "usage: fleet-lens AUTHORIZATION-ENDPOINT TOKEN-ENDPOINT TOKEN-FILE\n";
        return 2;
    }
    setlogmask(LOG_UPTO(LOG_INFO));  // debug lines may hold secrets
    orba::Settings settings;
    settings.authorizationEndpoint = argv[1];
    settings.tokenEndpoint = argv[2];
    settings.tokenFile = argv[3];
    settings.clientId = "fleet-lens";
    settings.redirectUri = "https://fleet-lens.localhost/callback";
    settings.scope = "openid offline_access fleet.read";
    orba::Session session(settings);
    for (std::string report; std::getline(std::cin, report);) {
        send(report, session.accessToken());
    }
    return 0;
} catch (const orba::SessionException& e) {
    std::cerr << "fleet-lens: " << e.what() << '\n';
    // The service manager starts it again after 75.
    return e.remedy() == orba::Remedy::tryLater ? 75 : 1;
}
