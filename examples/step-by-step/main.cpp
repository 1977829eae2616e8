// Signs the device in and refreshes its tokens by hand, each operation of liborbaoauth2client
// called once and plainly. It leaves out what a service needs besides and liborbaoauth2session does
// (see examples/fleet-lens): a locked token file that is replaced as a whole, replies checked and
// merged, tokens kept off standard output, secrets kept out of the log, retries, a refresh in time,
// and a new sign-in when the refresh token is refused.
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/sha.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>

#include "orbaoauth2client/errors.h"
#include "orbaoauth2client/httpclient.h"
#include "orbaoauth2client/oauth2.h"
#include "orbaoauth2client/pkce.h"
#include "orbaoauth2client/utils.h"

namespace {

namespace orba = ORBA::OAuth2Client;

const std::string kUsage = "usage: step-by-step AUTHORIZATION-ENDPOINT TOKEN-ENDPOINT TOKEN-FILE\n";
const std::string kClientId = "fleet-lens";
const std::string kRedirectUri = "https://fleet-lens.localhost/callback";

// 32 bytes as base64url without padding (RFC 7636, appendix A).
std::string base64url(const unsigned char (&bytes)[32]) {
    unsigned char base64[45];
    EVP_EncodeBlock(base64, bytes, sizeof bytes);
    std::string text(base64, base64 + 43);
    std::replace(text.begin(), text.end(), '+', '-');
    std::replace(text.begin(), text.end(), '/', '_');
    return text;
}

std::string randomText() {
    unsigned char bytes[32];
    if (RAND_bytes(bytes, sizeof bytes) != 1) {
        throw std::runtime_error("no random numbers");
    }
    return base64url(bytes);
}

std::string challengeOf(const std::string& verifier) {
    unsigned char digest[32];
    SHA256(reinterpret_cast<const unsigned char*>(verifier.data()), verifier.size(), digest);
    return base64url(digest);
}

// The library puts values into its forms as they are.
std::string encoded(const std::string& value) {
    return orba::HttpClient::getEncodeQuery({{"", value}}).substr(1);
}

void signIn(const std::string& authorizationEndpoint, const std::string& tokenEndpoint,
            const std::string& tokenFile) {
    const std::string state = randomText();
    const std::string verifier = randomText();
    const std::string query = orba::HttpClient::getEncodeQuery({
        {"client_id", kClientId},
        {"code_challenge", challengeOf(verifier)},
        {"code_challenge_method", "S256"},
        {"redirect_uri", kRedirectUri},
        {"response_type", "code"},
        {"scope", "openid offline_access fleet.read"},
        {"state", state},
    });
    orba::OAuth2 login(authorizationEndpoint + "?" + query, tokenFile + ".cookies");
    const std::string result = login.loginServiceByOrbaAccount();
    std::filesystem::remove(tokenFile + ".cookies");

    const bool granted = result.rfind(kRedirectUri + "?", 0) != 0;
    std::cout << (granted ? "the account service granted a code"
                          : "the web login led to the callback")
              << std::endl;
    if (!granted && orba::getParamFromURL(result, "state") != state) {
        throw std::runtime_error("the callback has another state");
    }
    // A granted code is not bound to our challenge, so it is exchanged without the verifier.
    orba::PKCE::getAccessToken({tokenFile, tokenEndpoint, kClientId,
                                encoded(granted ? result : orba::getParamFromURL(result, "code")),
                                granted ? "" : verifier, encoded(kRedirectUri)});
    std::cout << "exchanged the code for tokens" << std::endl;
}

}  // namespace

int main(int argc, char** argv) try {
    const std::string first = argc > 1 ? argv[1] : "";
    if (argc == 2 && (first == "-h" || first == "--help" || first == "--version")) {
        std::cout << (first == "--version" ? "step-by-step 1.0.0\n" : kUsage);
        return 0;
    }
    if (argc != 4 || first.rfind("https://", 0) != 0 ||
        std::string(argv[2]).rfind("https://", 0) != 0) {
        std::cerr << kUsage << "Both endpoints are https URLs.\n";
        return 2;
    }
    umask(077);  // the token file is ours alone
    signIn(first, argv[2], argv[3]);
    orba::PKCE::refreshAccessToken({argv[3], argv[2], kClientId});  // prints the reply
    std::cout << "refreshed the tokens of device " << orba::getDeviceFingerprint() << std::endl;
    return 0;
} catch (const orba::OAuth2ClientException& e) {
    std::cerr << "step-by-step: code " << e.errCode() << ": " << e.what() << '\n';
    return 1;
} catch (const std::exception& e) {
    std::cerr << "step-by-step: " << e.what() << '\n';
    return 1;
}
