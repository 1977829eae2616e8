#include <orbaoauth2session/session.h>

#include <exception>
#include <iostream>

int main(int argc, char** argv) try {
    if (argc != 4) {
        std::cerr << "usage: my-service AUTHORIZATION-ENDPOINT TOKEN-ENDPOINT TOKEN-FILE\n";
        return 2;
    }
    ORBA::OAuth2Session::Settings settings;
    settings.authorizationEndpoint = argv[1];
    settings.tokenEndpoint = argv[2];
    settings.tokenFile = argv[3];
    settings.clientId = "fleet-lens";
    settings.redirectUri = "https://fleet-lens.localhost/callback";
    settings.scope = "openid offline_access fleet.read";
    ORBA::OAuth2Session::Session session(settings);
    std::cout << "Authorization: Bearer " << session.accessToken().text << '\n';
    return 0;
} catch (const std::exception& e) {
    std::cerr << "my-service: " << e.what() << '\n';
    return 1;
}
