#include <iostream>
#include "orbaoauth2client/errors.h"
#include "orbaoauth2client/oauth2.h"

int main(int, char** argv) {
    try {
        ORBA::OAuth2Client::OAuth2 login(argv[1], "/tmp/my-cookies");  // the authorization URL
        std::cout << login.loginServiceByOrbaAccount() << '\n';        // a callback URL, or a code
    } catch (const ORBA::OAuth2Client::OAuth2ClientException& e) {
        std::cerr << e.errCode() << ": " << e.what() << '\n';
    }
}
